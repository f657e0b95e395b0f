// What qorctl shows of threads that wait for each other, hang, and die.
#include <nlohmann/json.hpp>

#include <stdlib.h>
#include <sys/prctl.h>

#include <regex>

#include "gtest/gtest.h"
#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"
#include "support/ctl.h"
#include "support/peer.h"

using namespace qorTest;
using nlohmann::json;

namespace {

class Ctl : public testing::Test {
protected:
    void SetUp() override { prctl(PR_SET_NAME, "tester"); }
    void TearDown() override {
        device.killAll();
        clearDevice();
    }
    // The text of a run that has a status.
    std::string run(int nStatus, const std::vector<std::string>& listArgument) {
        const ctlResult result = ctl(listArgument);
        EXPECT_EQ(nStatus, result.nStatus) << result.strOutput << result.strError;
        return device.normal(result.strOutput);
    }
    // What a command shows of the device, and of the snapshots that the tool of each build makes, read by each.
    void expectShown(const std::string& strText, int nStatus, const std::vector<std::string>& listArgument) {
        EXPECT_EQ(strText, run(nStatus, listArgument));
        std::vector<std::string> listFrom = listArgument;
        listFrom.insert(listFrom.begin(), {"--from", "/tmp/home/shown.snap"});
        const std::vector<ctlWords> listTool = ctlTools();
        for (const ctlWords& maker : listTool) {
            EXPECT_EQ(0, ctlOf(maker, {"snapshot", "/tmp/home/shown.snap"}).nStatus) << maker.back();
            for (const ctlWords& reader : listTool) {
                const ctlResult result = ctlOf(reader, listFrom);
                EXPECT_EQ(nStatus, result.nStatus) << maker.back() << " " << reader.back();
                EXPECT_EQ(strText, device.normal(result.strOutput)) << maker.back() << " " << reader.back();
            }
        }
    }
    // Each thread sends to the next, and the last to the first.
    void startRing(const std::vector<std::string>& listName, int nTimeout = -1) {
        for (size_t i = 0; i < listName.size(); ++i)
            device.startSender(listName[i], listName[(i + 1) % listName.size()], static_cast<unsigned>(0x100 + i),
                               nTimeout);
        device.go();
        ctlDevice::waitForEdges(listName.size(), 0);
    }

    ctlDevice device;
};

TEST_F(Ctl, OnAnEmptyMachineNothingIsShownAndNothingIsMade) {
    for (const char* lpszCommand : {"ps", "graph", "segments", "named", "acc", "trace", "doctor", "metrics", "clean"}) {
        const ctlResult result = ctl({lpszCommand});
        EXPECT_EQ(3, result.nStatus) << lpszCommand;
        EXPECT_EQ("", result.strOutput) << lpszCommand;
        EXPECT_EQ("qorctl: there is no segment: nothing has run yet\n", result.strError) << lpszCommand;
    }
    EXPECT_EQ(3, ctl({"post", "a", "1"}).nStatus);
    EXPECT_EQ(3, ctl({"send", "a", "1"}).nStatus);
    EXPECT_EQ(3, ctl({"acc", "step", "a"}).nStatus);
    EXPECT_EQ("", ctl({"-q", "ps"}).strError);
    EXPECT_EQ(3, ctl({"ps"}).nStatus);
}

TEST_F(Ctl, AnEmptyMachineGivesNoSnapshot) {
    EXPECT_EQ(3, ctl({"snapshot", "/tmp/home/empty.snap"}).nStatus);
    EXPECT_NE(0, access("/tmp/home/empty.snap", F_OK));
}

TEST_F(Ctl, ARingOfTwoIsShown) {
    startRing({"a", "b"});
    expectShown(
        "a -> b: 0x100 queued, <time>, no limit\n"
        "b -> a: 0x101 queued, <time>, no limit\n"
        "ring: a -> b -> a: DEADLOCK\n",
        4, {"graph"});
    expectShown(
        "NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n"
        "a <a> <a> device send-blocked on b for <time> 2 0 136\n"
        "b <b> <b> device send-blocked on a for <time> 2 0 136\n",
        0, {"ps"});
    expectShown(
        "BAD DEADLOCK: threads wait for each other: a -> b -> a\n"
        "They wait for ever. End one of the processes; let one of the sends be a\n"
        "post, or give it a time-out.\n",
        4, {"doctor"});
}

TEST_F(Ctl, ARingOfThreeIsExplainedByTheGraphAlone) {
    startRing({"panel", "sampler", "server"});
    expectShown(
        "panel -> sampler: 0x100 queued, <time>, no limit\n"
        "sampler -> server: 0x101 queued, <time>, no limit\n"
        "server -> panel: 0x102 queued, <time>, no limit\n"
        "ring: panel -> sampler -> server -> panel: DEADLOCK\n",
        4, {"graph"});
}

TEST_F(Ctl, ARingOfTenIsOneRing) {
    std::vector<std::string> listName;
    std::string strEdges, strRing = "ring: ";
    for (char ch = 'a'; ch < 'k'; ++ch) {
        listName.emplace_back(1, ch);
        const char szEdge[] = {ch, ' ', '-', '>', ' ', ch == 'j' ? 'a' : static_cast<char>(ch + 1), 0};
        strEdges += std::string(szEdge) + ": 0x10" + std::to_string(ch - 'a') + " queued, <time>, no limit\n";
        strRing += std::string(1, ch) + " -> ";
    }
    startRing(listName);
    expectShown(strEdges + strRing + "a: DEADLOCK\n", 4, {"graph"});
    const json all = json::parse(ctl({"graph", "--json"}).strOutput);
    EXPECT_EQ(10u, all["edges"].size());
    ASSERT_EQ(1u, all["rings"].size());
    EXPECT_EQ(json(listName), all["rings"][0]["members"]);
    EXPECT_EQ("deadlock", all["rings"][0]["kind"]);
}

TEST_F(Ctl, ARingWithATimeOutEndsByIt) {
    device.startSender("a", "b", 0x100);
    device.startSender("b", "a", 0x101, 3600000);
    device.go();
    ctlDevice::waitForEdges(2, 0);
    expectShown(
        "a -> b: 0x100 queued, <time>, no limit\n"
        "b -> a: 0x101 queued, <time> of <time>\n"
        "ring: a -> b -> a: cycle, ends by time-out\n",
        0, {"graph"});
    expectShown(
        "look threads wait for each other: a -> b -> a\n"
        "One of these sends has a time-out, which ends it. Let one of them be a\n"
        "post.\n",
        0, {"doctor"});
    const json edges = json::parse(ctl({"graph", "--json"}).strOutput)["edges"];
    EXPECT_EQ(-1, edges[0]["limitMs"]);
    EXPECT_EQ(3600000, edges[1]["limitMs"]);
    EXPECT_GE(edges[1]["waitedMs"], 50);
}

HTHREAD threadOf(const char* lpszName) { return msgGetThreadByName(lpszName); }

TEST_F(Ctl, AChainHasNoRing) {
    device.start("c", [] {});
    device.startSender("b", "c", 0x101);
    device.startSender("a", "b", 0x100);
    device.go();
    ctlDevice::waitForEdges(2, 0);
    expectShown("a -> b: 0x100 queued, <time>, no limit\nb -> c: 0x101 queued, <time>, no limit\n", 0, {"graph"});
    EXPECT_EQ(
        "digraph sends {\n"
        "node [shape=box];\n"
        "t<a> [label=\"a\"];\n"
        "t<b> [label=\"b\"];\n"
        "t<c> [label=\"c\"];\n"
        "t<a> -> t<b> [label=\"0x100\", style=dashed];\n"
        "t<b> -> t<c> [label=\"0x101\", style=dashed];\n"
        "}\n",
        run(0, {"graph", "--format=dot"}));
    EXPECT_EQ(
        "graph LR\n"
        "t<a>[\"a\"]\n"
        "t<b>[\"b\"]\n"
        "t<c>[\"c\"]\n"
        "t<a> -.->|0x100| t<b>\n"
        "t<b> -.->|0x101| t<c>\n",
        run(0, {"graph", "--format=mermaid"}));
}

TEST_F(Ctl, GraphvizTakesTheDotOutput) {
    if (system("command -v dot >/dev/null") != 0)
        GTEST_SKIP() << "Graphviz is not installed";
    startRing({"a \"quoted\" name", "back\\slash"});
    const std::string strText = ctl({"graph", "--format=dot"}).strOutput;
    FILE* pDot = popen("dot -Tsvg >/tmp/home/graph.svg 2>/tmp/home/graph.error", "w");
    fwrite(strText.data(), 1, strText.size(), pDot);
    EXPECT_EQ(0, pclose(pDot)) << strText;
    EXPECT_EQ(0, system("test ! -s /tmp/home/graph.error && grep -q svg /tmp/home/graph.svg"));
}

// Handlers of a thread of the device: 0x200 hangs, 0x201 replies and hangs, 0x202 sends to the thread itself.
int onHanging(simpMSG* pMsg) {
    if (pMsg->uMsg == 0x202)
        return msgSendMsgToThread(threadOf("self"), 0x200, 0, 0);
    if (pMsg->uMsg == 0x201)
        msgReplyThreadMessage(pMsg, 7);
    if (pMsg->uMsg == 0x200 || pMsg->uMsg == 0x201)
        for (;;)
            pause();
    return -1;
}

void runHanging(const std::string& strName) {
    msgUnregistMainThread(threadOf("first"));
    msgRegistMainThread(strName.c_str(), onHanging);
    msgDefaultThreadRun();
}

void waitForThread(const std::string& strName) {
    ctlDevice::waitUntil([&](const QOR_InspectHelper::shareView& share) {
        for (const auto& queue : share.queues)
            if (queue.strName == strName)
                return true;
        return false;
    });
}

TEST_F(Ctl, AThreadThatSendsToItselfIsNotAnEdge) {
    device.start("first", [] { runHanging("self"); });
    waitForThread("self");
    EXPECT_EQ("", run(0, {"post", "self", "0x202"}));
    ctlDevice::waitUntil([](const auto& share) {
        return !share.queues.empty() && share.queues[0].count(QOR_MsgQueueHelper::MT_READ) == 2;
    });
    expectShown("nobody waits for an answer\n", 0, {"graph"});
    expectShown(
        "NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n"
        "self <first> <first> device handling 0x202 for <time> 0 1 140\n",
        0, {"ps"});
}

TEST_F(Ctl, AnEarlyReplyIsNoEdgeAndTheThreadIsStillHandling) {
    device.start("first", [] { runHanging("server"); });
    waitForThread("server");
    EXPECT_EQ("7\n", run(0, {"send", "server", "0x201", "-t", "60000"}));
    expectShown("nobody waits for an answer\n", 0, {"graph"});
    expectShown(
        "NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n"
        "server <first> <first> device handling 0x201 for <time> 0 1 88\n",
        0, {"ps"});
    device.start("client", [] { msgSendMsgToThread(threadOf("server"), 0x100, 5, -6); });
    ctlDevice::waitForEdges(1, 0);
    expectShown("client -> server: 0x100 queued, <time>, no limit\n", 0, {"graph"});
}

// Fifty messages of priority 1, the one that the thread is handling, fifty of priority 0, and the extra data of one.
std::string queueOfTwoPriorities() {
    std::string strText = "# ID PRIO WPARAM LPARAM SENDER KIND STATUS SIZE\n";
    const auto add = [&strText](int iPlace, int i) {
        char sz[128];
        snprintf(sz, sizeof(sz), "%d 0x%x %d %d %d poster post queued %d\n", iPlace, 0x300u + static_cast<unsigned>(i),
                 i % 2, i, -i, i == 99 ? 5 : 0);
        strText += sz;
    };
    for (int i = 0; i < 50; ++i)
        add(i, 2 * i + 1);
    strText += "50 0x200 0 0 0 starter post handling 0\n";
    for (int i = 0; i < 50; ++i)
        add(51 + i, 2 * i);
    return strText + "\n#49\n0000 68 65 6c 6c 6f hello\n";
}

TEST_F(Ctl, AHungThreadShowsItsQueueOfTwoPriorities) {
    device.start("first", [] { runHanging("hung"); });
    waitForThread("hung");
    device.start("starter", [] { msgPostMsgToThread(threadOf("hung"), 0x200, 0, 0); });
    ctlDevice::waitUntil([](const auto& share) { return share.queues.back().count(QOR_MsgQueueHelper::MT_READ) == 1; });
    device.start("poster", [] {
        QOR_MsgQueueHelper::chThreadRemote remote("hung");
        for (int i = 0; i < 100; ++i) {
            auto* pMessage = remote.AllocThreadMessage(i % 2, false, i == 99 ? 5 : 0, "hello");
            pMessage->SetMessage(static_cast<unsigned>(0x300 + i), static_cast<unsigned>(i), -i);
            remote.EmitThreadMessage(*pMessage);
        }
    });
    ctlDevice::waitUntil([](const auto& share) {
        return share.queues.back().strName == "hung" &&
               share.queues.back().count(QOR_MsgQueueHelper::MT_EMITTED) == 100;
    });
    expectShown(queueOfTwoPriorities(), 0, {"queue", "hung"});
    expectShown(
        "NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n"
        "hung <first> <first> device handling 0x200 for <time> 100 1 5300\n"
        "poster <poster> <poster> device - 1 0 88\n"
        "starter <starter> <starter> device - 1 0 88\n",
        0, {"ps"});
    const json messages = json::parse(ctl({"queue", "hung", "--json"}).strOutput);
    ASSERT_EQ(101u, messages.size());
    EXPECT_EQ("68656c6c6f", messages[49]["hex"]);
    EXPECT_EQ(0x363, messages[49]["id"]);
    const std::string strDoctor = oneLine(run(0, {"doctor"}));
    EXPECT_NE(std::string::npos, strDoctor.find("look 100 messages (")) << strDoctor;
    EXPECT_NE(std::string::npos, strDoctor.find("handling message 0x200")) << strDoctor;
}

TEST_F(Ctl, AFullPoolIsExplainedByTheDoctorAlone) {
    device.start("sleeper", [] {});
    device.start("server", [] {
        char aData[1024] = {};
        for (int i = 0; i < 57; ++i)
            msgPostMsgToThreadEx(threadOf("sleeper"), 0x100, 0, 0, sizeof(aData), aData);
    });
    ctlDevice::waitUntil([](const auto& share) { return share.queues[0].messages.size() == 58; });
    const std::string strDoctor = oneLine(run(0, {"doctor"}));
    EXPECT_NE(std::string::npos, strDoctor.find("bytes are in use; most of it, 61")) << strDoctor;
    EXPECT_NE(std::string::npos, strDoctor.find("is the queue of \"sleeper\"")) << strDoctor;
}

TEST_F(Ctl, AThreadThatDiedInAHandlerIsAGhostAndNothingElse) {
    device.start("first", [] { runHanging("hung"); });
    waitForThread("hung");
    run(0, {"post", "hung", "0x200"});
    ctlDevice::waitUntil([](const auto& share) {
        return !share.queues.empty() && share.queues[0].count(QOR_MsgQueueHelper::MT_READ) == 1;
    });
    device.killAll();
    expectShown("NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\nhung <first> - - ghost 0 1 88\n", 0, {"ps"});
    EXPECT_EQ(0x200, json::parse(ctl({"ps", "--json"}).strOutput)[0]["handling"]);
}

TEST_F(Ctl, ADeviceWhoseProcessesWereKilledIsShownAndCleaned) {
    device.start("a", [] {});
    device.start("b", [] { msgPostMsgToThread(threadOf("b"), 0x100, 0, 0); });
    ctlDevice::waitUntil([](const auto& share) { return share.queues[0].messages.size() == 2; });
    device.killAll();
    expectShown(
        "NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n"
        "a <a> - - ghost 1 0 84\n"
        "b <b> - - ghost 2 0 136\n",
        0, {"ps"});
    expectShown("nobody waits for an answer\n", 0, {"graph"});
    expectShown(
        "look thread \"b\" (task <b>) ended without unregistering; its queue holds 136\n"
        "bytes\n"
        "The next thread that registers sweeps it, or \"qorctl clean\". Find out why\n"
        "its process died.\n"
        "look thread \"a\" (task <a>) ended without unregistering; its queue holds 84\n"
        "bytes\n"
        "The next thread that registers sweeps it, or \"qorctl clean\". Find out why\n"
        "its process died.\n"
        "look 2 wake-up events belong to no task\n"
        "\"qorctl clean\" removes them.\n",
        0, {"doctor"});
    EXPECT_EQ(
        "would remove queue b\nwould remove queue a\nwould remove event task_event_<a>\nwould remove event "
        "task_event_<b>\n",
        run(0, {"clean", "--dry-run"}));
    EXPECT_EQ("removed queue b\nremoved queue a\nremoved event task_event_<a>\nremoved event task_event_<b>\n",
              run(0, {"clean"}));
    EXPECT_EQ("NAME TASK PID PROGRAM STATE QUEUED HANDLED BYTES\n", run(0, {"ps"}));
    EXPECT_EQ("nothing to remove\n", run(0, {"clean"}));
}

TEST_F(Ctl, ASnapshotShowsTheSameAsTheDevice) {
    startRing({"a", "b", "c"});
    // Those who wait for answers look at the segment once a second, and may find it locked by one another.
    const auto withoutWaiters = [](const std::string& strText) {
        return std::regex_replace(strText, std::regex("qor_lock_waiters\\{segment=\"ipc_system_share\"\\} [012]\n"),
                                  "");
    };
    EXPECT_EQ("", run(0, {"snapshot", "/tmp/home/ring.snap"}));
    for (const std::vector<std::string>& listArgument :
         {std::vector<std::string>{"graph"}, {"ps"}, {"queue", "a"}, {"doctor"}, {"metrics"}, {"ps", "--json"}}) {
        std::vector<std::string> listFrom = listArgument;
        listFrom.insert(listFrom.begin(), {"--from", "/tmp/home/ring.snap"});
        EXPECT_EQ(withoutWaiters(device.normal(ctl(listArgument).strOutput)),
                  withoutWaiters(device.normal(ctl(listFrom).strOutput)))
            << listArgument[0];
    }
    device.killAll();
    EXPECT_NE(std::string::npos, run(4, {"graph", "--from", "/tmp/home/ring.snap"}).find("ring: a -> b -> c -> a"));
}

TEST_F(Ctl, LinesFitATerminalOfEightyColumns) {
    startRing({"a thread with a really long name of many words", "another one whose name is as long as that one is"});
    setenv("COLUMNS", "80", 1);
    for (const char* lpszCommand : {"ps", "segments", "named", "acc", "doctor"}) {
        std::istringstream in(ctl({lpszCommand}).strOutput);
        for (std::string strLine; std::getline(in, strLine);)
            EXPECT_LE(strLine.size(), 80u) << strLine;
    }
    EXPECT_NE(std::string::npos, ctl({"ps"}).strOutput.find("~ "));
    unsetenv("COLUMNS");
    EXPECT_EQ(std::string::npos, ctl({"ps"}).strOutput.find("~ "));
}

}  // namespace
