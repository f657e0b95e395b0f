// The warning about a cycle of sends: who gives it, when, and that the senders go on waiting.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "gtest/gtest.h"
#include "qor/flat.h"
#include "support/child.h"
#include "support/peer.h"

using namespace qorTest;

namespace {

int onMessage(simpMSG*) { return 7; }

// Threads in processes of their own, each of which sends to another when it is told to. What they say on standard error
// ends in one pipe for each.
class Cycle : public testing::Test {
protected:
    struct member {
        meeting ready, go;
        int fdError[2] = {-1, -1};
        std::unique_ptr<childProcess> pProcess;
    };

    ~Cycle() override {
        for (auto& entry : m_mapMember)
            close(entry.second->fdError[0]);
        m_mapMember.clear();
        clearDevice();
    }

    // Ends with status 1 when its send was answered, and with 2 otherwise.
    void start(const std::string& strName, const std::string& strTo, int nTimeout) {
        member& objMember = *(m_mapMember[strName] = std::make_unique<member>());
        ASSERT_EQ(0, pipe2(objMember.fdError, O_CLOEXEC));
        objMember.pProcess = std::make_unique<childProcess>(strName.c_str(), [&] {
            dup2(objMember.fdError[1], STDERR_FILENO);
            setenv("trace", "0", 1);
            msgRegistMainThread(strName.c_str(), onMessage);
            objMember.ready.say();
            objMember.go.hear();
            int bReplied = 0;
            msgSendMsgToThreadRaw(msgGetThreadByName(strTo.c_str()), 0x100, 0, 0, 0, NULL, nTimeout, &bReplied);
            return bReplied != 0 ? 1 : 2;
        });
        close(objMember.fdError[1]);
        objMember.ready.hear();
    }
    void go() {
        for (auto& entry : m_mapMember)
            entry.second->go.say();
    }
    // The next line that a member says on standard error.
    std::string readError(const std::string& strName) {
        std::string strLine;
        for (char ch = 0; read(m_mapMember[strName]->fdError[0], &ch, 1) == 1 && ch != '\n';)
            strLine += ch;
        return strLine;
    }
    // What is left of it when the member has ended.
    std::string restOfErrors(const std::string& strName) {
        std::string strText, strLine;
        while (!(strLine = readError(strName)).empty())
            strText += strLine + "\n";
        return strText;
    }
    childProcess& process(const std::string& strName) { return *m_mapMember[strName]->pProcess; }

    std::map<std::string, std::unique_ptr<member>> m_mapMember;
};

const std::string szWarning = "\033[1;33m warning: \033[00m cycle of sends: ";

TEST_F(Cycle, IsToldOnceByEachWhoWaitsInItForASecondWithoutTimeOut) {
    start("a", "b", -1);
    start("b", "c", 3600000);
    start("c", "a", -1);
    go();
    EXPECT_EQ(szWarning + "a -> b -> c -> a", readError("a"));
    EXPECT_EQ(szWarning + "c -> a -> b -> c", readError("c"));
    process("b").kill();
    process("b").wait();
    EXPECT_EQ(2, process("a").wait());  // it waited on, until the thread that should have answered died
    EXPECT_EQ(2, process("c").wait());
    for (const char* lpszName : {"a", "b", "c"})
        EXPECT_EQ("", restOfErrors(lpszName));
}

// Each of them waits for longer than a second, the chain without time-out until its end gives up.
TEST_F(Cycle, IsNotToldOfAChainAndOfSendersWithATimeOut) {
    start("x", "y", 1300);
    start("y", "x", 1300);
    start("p", "q", -1);
    start("q", "r", -1);
    start("r", "s", 1300);
    start("s", "p", -1);
    for (const char* lpszName : {"x", "y", "p", "q", "r"})
        m_mapMember[lpszName]->go.say();
    for (const char* lpszName : {"x", "y", "r", "q", "p"}) {
        EXPECT_EQ(2, process(lpszName).wait()) << lpszName;
        EXPECT_EQ("", restOfErrors(lpszName)) << lpszName;
    }
}

}  // namespace
