// Processes of several ABIs on one device. Each test has two peers, A and B: the program's own build and
// those that the environment variable QOR_PEERS names (build directories with colons between) meet in every
// order. Without the variable two peers of the own build meet. A comes first, so its ABI makes the segments
// that B finds.
#include <stdlib.h>

#include <algorithm>
#include <set>

#include "peers/pattern.h"
#include "support/peer.h"
#include "support/traceline.h"
#include "support/leavings.h"

using namespace qorTest;

namespace {

// What peers opened by name stays with the device.
const bool s_bLeaves = qorTest::leaveObjects("bell");
const bool s_bLeavesToo = qorTest::leaveObjects("own_lock");

std::vector<peerBuild> listBuilds() {
    std::vector<peerBuild> listBuild = {findPeerBuild(QOR_PEER_BUILD)};
    const char* const lpszPeers = getenv("QOR_PEERS");
    std::string strPeers = lpszPeers != nullptr ? lpszPeers : "";
    while (!strPeers.empty()) {
        const size_t nEnd = std::min(strPeers.find(':'), strPeers.size());
        listBuild.push_back(findPeerBuild(strPeers.substr(0, nEnd)));
        strPeers.erase(0, nEnd + 1);
    }
    return listBuild;
}

struct buildPair {
    peerBuild first, second;
};

void PrintTo(const buildPair& pair, std::ostream* pOut) {
    *pOut << pair.first.strProcessor << " and " << pair.second.strProcessor;
}

std::vector<buildPair> listPairs() {
    const std::vector<peerBuild> listBuild = listBuilds();
    if (listBuild.size() == 1)
        return {{listBuild[0], listBuild[0]}};
    std::vector<buildPair> listPair;
    for (const peerBuild& first : listBuild)
        for (const peerBuild& second : listBuild)
            if (&first != &second)
                listPair.push_back({first, second});
    return listPair;
}

std::string pairName(const testing::TestParamInfo<buildPair>& info) {
    return info.param.first.strProcessor + "_and_" + info.param.second.strProcessor;
}

// What a handler says it saw.
std::string seen(const char* lpszWho, unsigned uMsg, unsigned wParam, int lParam, int nSize, unsigned uSeed) {
    char sz[160];
    snprintf(sz, sizeof(sz), "%s 0x%x %u %d %d %08x", lpszWho, uMsg, wParam, lParam, nSize, patternSum(nSize, uSeed));
    return sz;
}

class Mixed : public testing::TestWithParam<buildPair> {
protected:
    Mixed() {
        watch("mixed_test");
        clearDevice();
        m_pA.reset(new peer(GetParam().first, "A"));
        m_pB.reset(new peer(GetParam().second, "B"));
    }
    ~Mixed() override {
        if (HasFailure())
            fprintf(stderr, "%s:\n%s%s:\n%s", A().name().c_str(), A().errors().c_str(), B().name().c_str(),
                    B().errors().c_str());
        alarm(0);
    }
    void registerBoth() {
        m_strTaskA = A().ask("register ay");
        m_strTaskB = B().ask("register bee");
    }
    peer& A() { return *m_pA; }
    peer& B() { return *m_pB; }

    std::unique_ptr<peer> m_pA, m_pB;
    std::string m_strTaskA, m_strTaskB;
};

// The lines of the trace buffer, taken out by one peer.
std::vector<std::string> traceLines(peer& reader) {
    std::vector<std::string> listLine;
    for (std::string strLine; !(strLine = reader.ask("read")).empty();) {
        listLine.push_back(strLine);
        if (strLine.find(" is gone: ") != std::string::npos)
            break;
    }
    return listLine;
}

TEST_P(Mixed, BothBelieveInTheSameLayout) {
    const std::string strLayout = A().ask("layout");
    EXPECT_EQ(strLayout, B().ask("layout"));
    EXPECT_EQ(0u, strLayout.find("msgObject=40 ")) << strLayout;
    EXPECT_GT(std::count(strLayout.begin(), strLayout.end(), '='), 50) << strLayout;
}

TEST_P(Mixed, BothKnowAThreadByTheSameHandle) {
    registerBoth();
    for (const char* lpszName : {"ay", "bee"}) {
        const std::string strHandle = A().ask(std::string("find ") + lpszName);
        EXPECT_EQ(strHandle, B().ask(std::string("find ") + lpszName));
        EXPECT_GT(atoi(strHandle.c_str()), 32);
    }
    EXPECT_NE(A().ask("find ay"), A().ask("find bee"));
    EXPECT_EQ("ok", A().ask("unregister"));
    EXPECT_EQ("0", B().ask("find ay"));
}

TEST_P(Mixed, APostedMessageIsReadByTheOther) {
    registerBoth();
    for (int nSize : {0, 1, 64, 1024}) {
        const std::string strTail = " 0x1234 4294967295 -2147483648 " + std::to_string(nSize) + " 5";
        EXPECT_EQ("1", A().ask("post bee" + strTail));
        EXPECT_EQ(seen("thread", 0x1234, 4294967295u, INT32_MIN, nSize, 5), B().ask("take 0"));
        EXPECT_EQ("1", B().ask("post ay" + strTail));
        EXPECT_EQ(seen("thread", 0x1234, 4294967295u, INT32_MIN, nSize, 5), A().ask("take 0"));
    }
}

TEST_P(Mixed, ASentMessageIsAnsweredByTheOther) {
    registerBoth();
    for (int nSize : {0, 1, 64, 1024})
        for (const char* lpszTake : {"take -77", "take -77 early"}) {
            A().start("send bee 0x200 7 -8 " + std::to_string(nSize) + " 9 -1");
            EXPECT_EQ(seen("thread", 0x200, 7, -8, nSize, 9), B().ask(lpszTake));
            EXPECT_EQ("-77 1", A().finish());
        }
    EXPECT_EQ("0", B().ask("drain"));
    EXPECT_EQ("", A().ask("peek bee"));
}

TEST_P(Mixed, TheDataOfAnAnswerComeFromTheOther) {
    registerBoth();
    char sz[80];
    for (int nSize : {1, 64, 1024})
        for (const char* lpszHow : {"", " early"}) {
            A().start("ask bee 0x200 7 -8 64 9 1024");
            EXPECT_EQ(seen("thread", 0x200, 7, -8, 64, 9),
                      B().ask("answer -77 " + std::to_string(nSize) + " 3" + lpszHow));
            snprintf(sz, sizeof(sz), "-77 1 %d %08x", nSize, patternSum(nSize, 3));
            EXPECT_EQ(sz, A().finish());
        }
    A().start("ask bee 0x200 7 -8 64 9 1024");
    B().ask("take 5");
    snprintf(sz, sizeof(sz), "5 1 64 %08x", patternSum(64, 9));
    EXPECT_EQ(sz, A().finish());
    EXPECT_EQ("0", B().ask("drain"));
}

TEST_P(Mixed, AttemptsFindTheQueuesAndTheMemoryOfTheOther) {
    registerBoth();
    for (const char* lpszExpected : {"1", "1", "1", "-1"})
        EXPECT_EQ(lpszExpected, A().ask("trypost bee 0x250 1 2 40 5 3"));
    EXPECT_EQ("3", A().ask("length bee"));
    EXPECT_EQ("3", B().ask("length bee"));
    EXPECT_EQ(seen("thread", 0x250, 1, 2, 40, 5), B().ask("take 0"));
    EXPECT_EQ("-1", A().ask("tryregister bee"));
    EXPECT_EQ("2", B().ask("drain"));

    EXPECT_EQ("0", A().ask("reserve 4096"));
    EXPECT_GT(atoi(A().ask("flood bee 0x250").c_str()), 1000);
    const std::string strMemory = A().ask("memory");
    EXPECT_EQ(strMemory, B().ask("memory"));
    EXPECT_GE(atoi(strMemory.c_str()), 4096);
    EXPECT_LT(atoi(strMemory.c_str()), 4096 + 200);
    EXPECT_EQ("-4 -1", A().ask("trysend bee 0x251 3 4 8 6 20"));  // the reserve has room for it
    EXPECT_GT(atoi(B().ask("drain").c_str()), 1000);
    A().start("trysend bee 0x251 3 4 8 6 -1");
    EXPECT_EQ(seen("thread", 0x251, 3, 4, 8, 6), B().ask("take 7"));
    EXPECT_EQ("1 7", A().finish());

    EXPECT_EQ("4096", A().ask("reserve 0"));
    EXPECT_GT(atoi(B().ask("flood ay 0x250").c_str()), 1000);
    EXPECT_EQ("-2", A().ask("trypost bee 0x250 1 2 0 0 -1"));
    EXPECT_EQ("-2 -1", A().ask("trysend bee 0x250 1 2 0 0 -1"));
    EXPECT_EQ("-2", A().ask("tryregister more"));
    EXPECT_GT(atoi(A().ask("drain").c_str()), 1000);
}

TEST_P(Mixed, TheReserveOfTheEnvironmentIsThatOfTheProcess) {
    setenv("qor_reserve", "12345", 1);
    peer third(GetParam().first, "C");
    setenv("qor_reserve", "12k", 1);
    peer fourth(GetParam().second, "D");
    unsetenv("qor_reserve");
    EXPECT_EQ("12345", third.ask("reserve 1"));
    EXPECT_EQ("1", third.ask("reserve 1"));
    EXPECT_EQ("0", fourth.ask("reserve 1"));
    EXPECT_NE(std::string::npos, fourth.errors().find("qor_reserve is not a number of bytes: \"12k\""));
    EXPECT_EQ("0", A().ask("reserve 0"));
}

TEST_P(Mixed, ADeliveredMessageIsTakenByTheOther) {
    registerBoth();
    A().start("deliver bee 0x201 3 4");
    EXPECT_EQ(seen("thread", 0x201, 3, 4, 0, 0), B().ask("take 0"));
    EXPECT_EQ("1", A().finish());
}

TEST_P(Mixed, BothReadOneRecordAlike) {
    registerBoth();
    ASSERT_EQ("1", A().ask("post bee 0x222 10 -11 64 3"));
    const std::string strRecord = A().ask("peek bee");
    EXPECT_EQ(strRecord, B().ask("peek bee"));
    int nAt = 0, nQueue = 0, nOffset = 0;
    ASSERT_EQ(3, sscanf(strRecord.c_str(), "at %d queue %d task %*d words 0 0 %d", &nAt, &nQueue, &nOffset))
        << strRecord;
    EXPECT_EQ("at " + std::to_string(nAt) + " queue " + std::to_string(nQueue) + " task " + m_strTaskB + " words 0 0 " +
                  std::to_string(nOffset) + " 64 -1 546 10 -11 0 " + m_strTaskA + " sum " +
                  std::to_string(patternSum(64, 3)),
              strRecord);
    EXPECT_EQ(std::to_string(nQueue), B().ask("find bee"));
}

TEST_P(Mixed, ManyQuestionsGetTheirAnswers) {
    registerBoth();
    B().start("serve 100");
    EXPECT_EQ("100", A().ask("question bee 100"));
    EXPECT_EQ("100", B().finish());
}

TEST_P(Mixed, BothPostToEachOtherAtTheSameTime) {
    registerBoth();
    A().start("exchange bee 200");
    B().start("exchange ay 200");
    EXPECT_EQ("200", A().finish());
    EXPECT_EQ("200", B().finish());
}

TEST_P(Mixed, ABroadcastReachesBoth) {
    registerBoth();
    EXPECT_EQ("ok", A().ask("broadcast 0x210 6"));
    EXPECT_EQ(seen("thread", 0x210, 6, -1, 64, 6), A().ask("take 0"));
    EXPECT_EQ(seen("thread", 0x210, 6, -1, 64, 6), B().ask("take 0"));
}

TEST_P(Mixed, ASendThatTakesTooLongIsNeverHandled) {
    registerBoth();
    EXPECT_EQ("-1 0", A().ask("send bee 0x200 1 1 64 1 30"));
    EXPECT_EQ("0", B().ask("drain"));
    // Closed, it stays until its queue goes.
    const std::string strRecord = A().ask("peek bee");
    EXPECT_NE(std::string::npos, strRecord.find(" words 1 4 ")) << strRecord;
    EXPECT_EQ(strRecord, B().ask("peek bee"));
}

TEST_P(Mixed, TimersOfOneDoNotConfuseTheOther) {
    registerBoth();
    EXPECT_EQ("7", A().ask("timer 7 3"));
    EXPECT_EQ("7", B().ask("timer 7 3"));
    // The words that name timers in shared records mean nothing to another process.
    const std::string strWordA = A().ask("timer 0 3600000"), strWordB = B().ask("timer 0 3600000");
    for (const std::string& strWord : {strWordA, strWordB, std::string("1"), std::string("2"), std::string("0")}) {
        EXPECT_EQ("1", A().ask("post bee 2 " + strWord + " 0 0 0"));
        EXPECT_EQ("1", B().ask("post ay 2 " + strWord + " 0 0 0"));
    }
    EXPECT_EQ("7 ", A().ask("await 7 5"));
    EXPECT_EQ("7 ", B().ask("await 7 5"));
    EXPECT_EQ("0", A().ask("drain"));
    EXPECT_EQ("0", B().ask("drain"));
    EXPECT_NE(std::string::npos, A().errors().find("timer message without its timer"));
    EXPECT_NE(std::string::npos, B().errors().find("timer message without its timer"));
}

TEST_P(Mixed, AProxyCallsTheMethodInTheOthersProcess) {
    registerBoth();
    EXPECT_EQ("ok", B().ask("subscribe notices"));
    EXPECT_EQ("1", A().ask("notify post notices 0x9001 11 -12"));
    EXPECT_EQ(seen("method", 0x9001, 11, -12, 0, 0), B().ask("take 0"));
    A().start("notify send notices 0x9002 13 -14");
    EXPECT_EQ(seen("method", 0x9002, 13, -14, 0, 0), B().ask("take 1234"));
    EXPECT_EQ("1234", A().finish());
}

TEST_P(Mixed, AProxyToAnObjectThatIsGoneIsSkipped) {
    registerBoth();
    EXPECT_EQ("ok", B().ask("subscribe notices"));
    EXPECT_EQ("ok", B().ask("unsubscribe"));
    EXPECT_EQ("1", A().ask("notify post notices 0x9001 11 -12"));
    EXPECT_EQ("0", B().ask("drain"));
    EXPECT_NE(std::string::npos, B().errors().find("TM_MESSAGE_PROXY:9001 while object pass away")) << B().errors();
    EXPECT_EQ("1", A().ask("post bee 0x200 1 2 0 0"));
    EXPECT_EQ(seen("thread", 0x200, 1, 2, 0, 0), B().ask("take 0"));
}

TEST_P(Mixed, AHookerSeesTheOthersMessagesFirst) {
    registerBoth();
    EXPECT_EQ("ok", B().ask("hook 0x240"));
    EXPECT_EQ("1", A().ask("post bee 0x240 1 2 1 8"));
    EXPECT_EQ("1", A().ask("post bee 0x241 3 4 1 8"));
    EXPECT_EQ(seen("hooker", 0x240, 1, 2, 1, 8), B().ask("take 0"));
    EXPECT_EQ(seen("thread", 0x241, 3, 4, 1, 8), B().ask("take 0"));
}

TEST_P(Mixed, ANamedBlockHoldsTheSameBytesForBoth) {
    // Names and sizes that need rounding, some before and some after the first in the chain's order.
    for (const char* lpszBlock : {"middle 100", "a 1", "zulu_longer_name 513", "beta7 64"}) {
        const std::string strBlock = lpszBlock;
        const std::string strMade = A().ask("block " + strBlock), strFound = B().ask("block " + strBlock);
        EXPECT_EQ("1", strMade.substr(0, 1)) << strMade;
        EXPECT_EQ("0" + strMade.substr(1), strFound);
        EXPECT_EQ("ok", B().ask("fill " + strBlock + " 17"));
        const int nSize = atoi(strBlock.c_str() + strBlock.find(' '));
        EXPECT_EQ("0" + strMade.substr(1, strMade.rfind(' ') - 1) + " " + std::to_string(patternSum(nSize, 17)),
                  A().ask("block " + strBlock));
    }
    EXPECT_EQ("ok", B().ask("free middle"));
    EXPECT_EQ("1", A().ask("block middle 100").substr(0, 1));
}

TEST_P(Mixed, BothStepOneCounter) {
    EXPECT_EQ("1", A().ask("counter ticket 98 1 100"));
    EXPECT_EQ("3", B().ask("step ticket 5"));
    EXPECT_EQ("4", A().ask("step ticket 1"));
    EXPECT_EQ("1", B().ask("counter steps 0 0 1000000"));
    A().start("step steps 1 50");
    B().start("step steps 1 50");
    A().finish();
    B().finish();
    EXPECT_EQ("101", A().ask("step steps 1"));
}

TEST_P(Mixed, TheTraceBufferHoldsTheLinesOfBoth) {
    registerBoth();
    EXPECT_EQ(2u, traceLines(A()).size());  // both registrations
    A().ask("trace first of A");
    B().ask("trace first of B");
    A().ask("scope within");
    B().ask("trace " + std::string(700, 'b'));
    const std::vector<std::string> listLine = traceLines(B());
    std::string strTexts;
    for (const std::string& strLine : listLine)
        strTexts += traceTexts(strLine + "\n");
    EXPECT_EQ("first of A\nfirst of B\n  {  outer\n    {  inner\nwithin\n    }  inner\n  }  outer\n" +
                  std::string(700, 'b') + "\n",
              strTexts);
    ASSERT_EQ(8u, listLine.size());
    int idA = 0, idB = 0;
    EXPECT_EQ(1, sscanf(listLine[0].c_str(), "[TRC+%d:", &idA)) << listLine[0];
    EXPECT_EQ(1, sscanf(listLine[1].c_str(), "[TRC+%d:", &idB)) << listLine[1];
    EXPECT_EQ(m_strTaskA, std::to_string(idA));
    EXPECT_EQ(m_strTaskB, std::to_string(idB));
}

TEST_P(Mixed, AnEventSetByOneWakesTheOther) {
    EXPECT_EQ("0", A().ask("wait bell 0"));
    A().start("wait bell -1");
    EXPECT_EQ("1", B().ask("set bell"));
    EXPECT_EQ("1", A().finish());
    EXPECT_EQ("1", A().ask("set bell"));
    EXPECT_EQ("1", A().ask("set bell"));
    for (const char* lpszResult : {"1", "1", "0"})
        EXPECT_EQ(lpszResult, B().ask("wait bell 0"));
}

TEST_P(Mixed, ALockOfOneShutsTheOtherOut) {
    A().ask("layout");  // opens every segment, which takes its lock
    B().ask("layout");
    for (const char* lpszLock : {"share", "named", "trace", "own_lock"}) {
        const std::string strLock = lpszLock;
        EXPECT_EQ("1", A().ask("lock " + strLock + " -1"));
        EXPECT_EQ("0", B().ask("lock " + strLock + " 0")) << strLock;
        B().start("lock " + strLock + " -1");
        EXPECT_EQ("ok", A().ask("unlock " + strLock));
        EXPECT_EQ("1", B().finish());
        EXPECT_EQ("0", A().ask("lock " + strLock + " 0")) << strLock;
        EXPECT_EQ("ok", B().ask("unlock " + strLock));
    }
}

TEST_P(Mixed, ALockIsFreedWhenItsOwnerIsKilled) {
    A().ask("layout");  // opens every segment, which takes its lock
    for (const char* lpszLock : {"share", "named", "trace", "own_lock"}) {
        const std::string strLock = lpszLock;
        peer owner(GetParam().second, "owner");
        EXPECT_EQ("1", owner.ask("lock " + strLock + " -1"));
        EXPECT_EQ("0", A().ask("lock " + strLock + " 0")) << strLock;
        A().start("lock " + strLock + " -1");
        owner.kill();
        EXPECT_EQ("1", A().finish());
        EXPECT_EQ("ok", A().ask("unlock " + strLock));
    }
}

TEST_P(Mixed, TheQueueOfAKilledPeerIsSweptByTheOther) {
    registerBoth();
    EXPECT_EQ("1", B().ask("post ay 0x200 1 2 1024 1"));
    EXPECT_EQ("1", A().ask("post ay 0x200 1 2 64 1"));
    const std::string strEvent = "/tmp/qor_task_event_" + m_strTaskA;
    EXPECT_EQ(0, access(strEvent.c_str(), F_OK));
    A().kill();
    EXPECT_EQ("0", B().ask("find ay"));
    EXPECT_EQ("0", B().ask("post ay 0x200 1 2 1 1"));
    EXPECT_EQ("ok", B().ask("unregister"));
    EXPECT_EQ(m_strTaskB, B().ask("register ay"));
    EXPECT_NE(0, access(strEvent.c_str(), F_OK));
    std::string strTexts;
    for (const std::string& strLine : traceLines(B()))
        strTexts += traceTexts(strLine + "\n");
    char sz[200];
    snprintf(sz, sizeof(sz),
             "Registing thread \"ay\" ...\nRegisting thread \"bee\" ...\nClear ghost process %.4d \"ay\"\n"
             "Registing thread \"ay\" ...\n",
             atoi(m_strTaskA.c_str()));
    EXPECT_EQ(sz, strTexts);
    EXPECT_EQ("", B().ask("peek ay"));
}

TEST_P(Mixed, ASenderWhoseTargetIsKilledGoesOn) {
    registerBoth();
    A().start("send bee 0x200 1 2 64 1 -1");
    std::string strRecord;
    while (strRecord.empty())
        strRecord = B().ask("peek bee");
    B().kill();
    EXPECT_EQ("-1 0", A().finish());
}

TEST_P(Mixed, BothReadOneTick) {
    long long nLast = 0;
    for (int i = 0; i < 10; ++i) {
        const long long nTick = atoll((i % 2 == 0 ? A() : B()).ask("tick").c_str());
        EXPECT_GE(nTick + 20, nLast);
        EXPECT_LT(nTick, (i == 0 ? nTick : nLast) + 60000);
        nLast = nTick;
    }
    EXPECT_GT(nLast, 0);
}

TEST_P(Mixed, BothEndWell) {
    registerBoth();
    A().ask("timer 7 3600000");
    B().ask("hook 0x240");
    EXPECT_EQ("1", A().ask("post bee 0x200 1 2 64 1"));
    EXPECT_EQ(0, A().end());
    EXPECT_EQ(0, B().end());
    EXPECT_EQ("", A().errors() + B().errors());
}

INSTANTIATE_TEST_SUITE_P(Abis, Mixed, testing::ValuesIn(listPairs()), pairName);

TEST(MixedRing, EveryAbiPostsToTheNext) {
    watch("mixed_test");
    clearDevice();
    std::vector<peerBuild> listBuild = listBuilds();
    const size_t nBuild = listBuild.size();
    if (nBuild == 1)
        listBuild.push_back(listBuild[0]);
    std::set<std::string> setAbi;
    std::vector<std::unique_ptr<peer>> listPeer;
    for (const peerBuild& build : listBuild) {
        listPeer.emplace_back(new peer(build, "ring"));
        const std::string strAbi = listPeer.back()->ask("abi");
        EXPECT_EQ(0u, strAbi.find(build.strProcessor + " ")) << strAbi;
        setAbi.insert(strAbi);
    }
    EXPECT_EQ(nBuild, setAbi.size()) << "two builds are of one ABI";
    const auto nameOf = [&](size_t i) { return "ring" + std::to_string(i % listPeer.size()); };
    for (size_t i = 0; i < listPeer.size(); ++i)
        listPeer[i]->ask("register " + nameOf(i));
    for (size_t i = 0; i < listPeer.size(); ++i)
        listPeer[i]->start("exchange " + nameOf(i + 1) + " 200");
    for (const auto& pPeer : listPeer)
        EXPECT_EQ("200", pPeer->finish()) << pPeer->errors();
    for (const auto& pPeer : listPeer)
        EXPECT_EQ(0, pPeer->end());
    alarm(0);
}

}  // namespace
