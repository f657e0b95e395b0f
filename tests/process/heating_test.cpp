// The heating controller of the examples: five programs under a supervisor that restarts them, one of them in C.
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <regex>
#include <sstream>
#include <vector>

#include "../../examples/heating/heating.h"
#include "qor/MsgQueueHelper.h"
#include "support/child.h"
#include "support/filebytes.h"
#include "support/scale.h"
#include "support/socket_peer.h"
#include "support/stop.h"

using namespace qorTest;

namespace {

constexpr const char* szDirectory = "/tmp/heating";

int matchesOf(const std::string& strText, const std::string& strPattern) {
    const std::regex regex(strPattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(strText.begin(), strText.end(), regex), std::sregex_iterator()));
}

class Heating : public testing::Test {
protected:
    void SetUp() override {
        watch("heating_test");
        // What the supervisor leaves when it is killed comes here for its end.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    void TearDown() override { alarm(0); }

    // Replaces the process by the supervisor; the emulator, if there is one, also runs the programs that it starts.
    static int supervise(std::vector<std::string> listOption) {
        std::vector<std::string> listRunner;
        std::stringstream emulator(QOR_TEST_EMULATOR);
        for (std::string strWord; std::getline(emulator, strWord, '|');)
            listRunner.push_back(strWord);
        std::vector<std::string> listWord = listRunner;
        listWord.insert(listWord.end(), {QOR_HEATING_PROGRAM, "--directory", szDirectory});
        for (const std::string& strWord : listRunner)
            listWord.insert(listWord.end(), {"--runner", strWord});
        listWord.insert(listWord.end(), listOption.begin(), listOption.end());
        std::vector<char*> listArgument;
        for (std::string& strWord : listWord)
            listArgument.push_back(&strWord[0]);
        listArgument.push_back(nullptr);
        if (freopen("/tmp/heating.out", "w", stdout) == nullptr)
            return 126;
        setenv("trace", "0", 1);
        execvp(listArgument[0], listArgument.data());
        return 127;
    }

    static std::string output() { return getFile("/tmp/heating.out"); }
};

// Waits until a thread has that name and answers.
int ask(const char* lpszName, unsigned int uMsg) {
    int nAnswer = 0;
    while (!heatingAsk(lpszName, uMsg, timeoutAsk, &nAnswer))
        usleep(1000);
    return nAnswer;
}

std::string exchange(const plainPeer& peer, const std::string& strPacket) {
    if (!peer.say(packetOf(strPacket)))
        return "";
    const std::string strHead = peer.hear(4);
    return strHead.size() == 4 ? peer.hear(static_cast<unsigned char>(strHead[3])) : "";
}

TEST_F(Heating, EveryProcessIsKilledAndTheRoomIsHeatedOn) {
    const int nKills = isSlow() ? 5 : 10;
    childProcess supervisor("supervisor", [&] { return supervise({"--kills", std::to_string(nKills)}); });
    EXPECT_EQ(0, supervisor.wait()) << output();
    EXPECT_EQ(nKills / 5, matchesOf(output(), "supervisor \\| heating\\.alarm is killed\n")) << output();
    EXPECT_EQ(nKills / 5, matchesOf(output(), "supervisor \\| heating\\.controller is killed\n"));
    EXPECT_EQ(1, matchesOf(output(), "supervisor \\| " + std::to_string(nKills) + " kills, [0-9]+ restarts\n"));
    EXPECT_EQ(0, matchesOf(output(), "hangs")) << output();

    // The history has whole lines, and the sensor's numbers go on after its death.
    std::istringstream history(getFile(std::string(szDirectory) + "/history.csv"));
    unsigned uLast = 0;
    double fHottest = 0;
    for (std::string strLine; std::getline(history, strLine);) {
        unsigned uNumber = 0;
        double fTemperature = 0, fTarget = 0, fPower = 0;
        ASSERT_EQ(4, sscanf(strLine.c_str(), "%u,%lf,%lf,%lf", &uNumber, &fTemperature, &fTarget, &fPower)) << strLine;
        EXPECT_GT(uNumber, uLast);
        uLast = uNumber;
        fHottest = std::max(fHottest, fTemperature);
    }
    EXPECT_GT(fHottest, 10.5);
    EXPECT_LT(fHottest, 30);
    EXPECT_NE(std::string::npos, getFile(std::string(szDirectory) + "/heating.ini").find("target = 21\n"));
}

TEST_F(Heating, AStrangerSetsTheTargetAndTalksNonsenseToNoAvail) {
    childProcess supervisor("supervisor", [] { return supervise({}); });
    plainPeer peer, nonsense;
    ASSERT_TRUE(peer.connect(ask(HEATING_GATEWAY, MSG_PORT)));
    ask(HEATING_CONTROLLER, MSG_PING);
    EXPECT_EQ("ok", exchange(peer, "set 22.5"));
    EXPECT_EQ("not a number", exchange(peer, "set warm"));
    EXPECT_EQ("not from 5 to 30", exchange(peer, "set 99"));
    EXPECT_EQ("get, or set NUMBER", exchange(peer, "hello"));
    ASSERT_TRUE(nonsense.connect(ask(HEATING_GATEWAY, MSG_PORT)));
    ASSERT_TRUE(nonsense.say("GET / HTTP/1.0\r\n\r\n"));
    EXPECT_EQ("", nonsense.hear(1));
    std::string strAnswer;
    do
        strAnswer = exchange(peer, "get");
    while (strAnswer == "no temperature yet");
    EXPECT_EQ(1, matchesOf(strAnswer, "^[0-9.]+ [0-9.]+$")) << strAnswer << "\n" << output();
    supervisor.signal(SIGTERM);
    EXPECT_EQ(0, supervisor.wait()) << output();
    EXPECT_NE(std::string::npos, getFile(std::string(szDirectory) + "/heating.ini").find("target = 22.5\n"));
}

TEST_F(Heating, AProcessThatHangsIsKilledAndStartedAgain) {
    childProcess supervisor("supervisor", [] { return supervise({}); });
    ask(HEATING_HISTORY, MSG_PING);
    const HTHREAD hOld = msgGetThreadByName(HEATING_HISTORY);
    // It hangs in its own handler, as far as anybody can tell.
    ASSERT_TRUE(stopUnlocked(msgHTHREAD2chMsgQueue(hOld)->GetTaskId()));
    while (output().find("heating.history hangs: killed\n") == std::string::npos)
        usleep(1000);
    ask(HEATING_HISTORY, MSG_PING);
    supervisor.signal(SIGTERM);
    EXPECT_EQ(0, supervisor.wait()) << output();
}

}  // namespace
