// The commands of qorctl one by one: what they print, what they change, how they end.
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <grp.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>

#include "gtest/gtest.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/TraceHelper/Trace.h"
#include "qor/flat.h"
#include "support/ctl.h"
#include "support/exchange.h"
#include "support/peer.h"
#include "support/scale.h"

using namespace qorTest;
using nlohmann::json;

namespace {

// A thread "main" that answers 0x100 with wParam + 1 and the number of extra bytes.
int onMain(simpMSG* pMsg) {
    return pMsg->uMsg == 0x100 ? static_cast<int>(pMsg->wParam) + 1 + 100 * msgGetMessageExtraSize(pMsg) : -1;
}

void fillDevice() {
    accCreateAccumulater("ticket", 98, 1, 100);
    nameHelperLock();
    memcpy(nameGetSystemObject("block", 20, NULL), "twenty bytes of text", 20);
    nameHelperUnlock();
    const HREGISTRY hSection = registryOpen("/tmp/home/net.ini", "Net");
    registrySetString(hSection, "port", "5060");
    registrySetString(hSection, "host", "panel");
    regMonitorSection(hSection);
    QOR_StringHelper::chReferenceStringT<char> strLine("[TRC+0123:0x0001] 00000001.000 error: first");
    QOR_StringHelper::chReferenceStringT<char> strOther("[TRC+0456:0x0001] 00000002.000 second");
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->TraceToSystemTrace(strLine);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->TraceToSystemTrace(strOther);
}

void expectNoSegment() {
    std::ifstream in("/proc/sysvipc/shm");
    std::string strLine;
    std::getline(in, strLine);
    EXPECT_FALSE(std::getline(in, strLine)) << strLine;
}

class CtlCommand : public testing::Test {
protected:
    void SetUp() override {
        prctl(PR_SET_NAME, "tester");
        unlink("/tmp/home/net.ini");
        meeting full;
        device.start("first", [&full] {
            msgUnregistMainThread(msgGetThreadByName("first"));
            msgRegistMainThread("main", onMain);
            fillDevice();
            full.say();
            msgDefaultThreadRun();
        });
        full.hear();
    }
    void TearDown() override {
        device.killAll();
        clearDevice();
    }
    std::string run(int nStatus, const std::vector<std::string>& listArgument, const std::string& strInput = "") {
        const ctlResult result = ctl(listArgument, strInput);
        EXPECT_EQ(nStatus, result.nStatus) << result.strOutput << result.strError;
        strError = result.strError;
        return device.normal(result.strOutput);
    }

    ctlDevice device;
    std::string strError;
};

TEST_F(CtlCommand, ASendPrintsTheAnswer) {
    EXPECT_EQ("8\n", run(0, {"send", "main", "0x100", "7"}));
    EXPECT_EQ("{\n\"result\": 8\n}\n", run(0, {"send", "main", "256", "7", "-1", "--json"}));
    EXPECT_EQ("11\n", run(0, {"send", "main", "0256", "010"}));
    EXPECT_EQ("201\n", run(0, {"send", "main", "0x100", "-d", "00ff"}));
    EXPECT_EQ("501\n", run(0, {"send", "main", "0x100", "-d", "-"}, "hello"));
    std::ofstream("/tmp/home/data") << "abc";
    EXPECT_EQ("301\n", run(0, {"send", "main", "0x100", "-d", "@/tmp/home/data"}));
    EXPECT_EQ("", run(1, {"send", "nobody", "0x100"}));
    EXPECT_EQ("qorctl: there is no living thread \"nobody\"\n", strError);
    EXPECT_EQ("", run(0, {"post", "main", "0x100", "1", "-2"}));
}

TEST_F(CtlCommand, ASendThatIsNotAnsweredEndsWithStatusFive) {
    device.start("deaf", [] {});
    EXPECT_EQ("", run(5, {"send", "deaf", "0x100", "-t", "1"}));
    EXPECT_EQ("qorctl: no answer in time\n", strError);
}

TEST_F(CtlCommand, WrongArgumentsEndWithStatusTwo) {
    for (const std::vector<std::string>& listArgument : std::vector<std::vector<std::string>>{
             {},
             {"nothing"},
             {"--unknown", "ps"},
             {"queue"},
             {"post", "main"},
             {"post", "main", "1x"},
             {"post", "main", "0x100000000"},
             {"post", "main", "1", "-d", "0"},
             {"post", "main", "1", "-d", "0g"},
             {"graph", "--format=png"},
             {"--color=blue", "ps"},
             {"trace", "--grep", "("},
             {"reg"},
             {"reg", "get", "a"},
             {"reg", "get", "", "Net", "port"},
             {"reg", "set", "", "Net", "port", "1"},
             {"reg", "watch", ""},
             {"--exact=x", "ps"},
             {"--exact=-1", "ps"},
             {"--exact=4294967295", "ps"},
             {"acc", "step", "ticket", "0"},
             {"acc", "step", "ticket", "99"},
             {"wait-for", ""},
             {"--from", "/dev/null", "clean"},
             {"--from", "/dev/null", "post", "main", "1"},
             {"--from", "/dev/null", "send", "main", "1", "-t", "1"},
             {"--from", "/dev/null", "wait-for", "main", "-t", "1"},
             {"--from", "/dev/null", "acc", "step", "ticket"},
             {"--from", "/dev/null", "trace", "--take"},
             {"--from", "/dev/null", "reg", "set", "/tmp/home/net.ini", "a", "b", "c"},
             {"--from", "/dev/null", "reg", "flush"},
             {"--from", "/dev/null", "reg", "watch", "/tmp/home/net.ini"}})
        run(2, listArgument);
    std::string strData(1025, 'x');
    run(2, {"post", "main", "1", "-d", "-"}, strData);
    EXPECT_EQ("qorctl: a message carries at most 1024 bytes\n", strError);
}

TEST_F(CtlCommand, EachCommandHasHelpWithAnExample) {
    EXPECT_NE(std::string::npos, run(0, {"--help"}).find("Status: 0 good"));
    EXPECT_EQ(0u, run(0, {"--version"}).find("qorctl 2."));
    for (const char* lpszCommand : {"ps", "top", "report", "queue", "graph", "segments", "named", "acc", "reg", "trace",
                                    "post", "send", "wait-for", "snapshot", "doctor", "metrics", "clean"}) {
        const std::string strText = run(0, {lpszCommand, "--help"});
        EXPECT_NE(std::string::npos, strText.find(std::string("Examples:\nqorctl "))) << strText;
    }
}

TEST_F(CtlCommand, ManPageAndCompletionsKnowEachCommand) {
    const auto textOf = [](const std::string& strFile) {
        std::stringstream content;
        content << std::ifstream(QOR_SOURCE_DIR "/" + strFile).rdbuf();
        return content.str();
    };
    const std::string strHelp = ctl({"--help"}).strOutput;
    const std::string strPage = textOf("docs/qorctl.1.scd");
    const std::string strBash = textOf("tools/qorctl/completion/qorctl.bash");
    const std::string strZsh = textOf("tools/qorctl/completion/_qorctl");
    std::istringstream in(strHelp.substr(strHelp.find("Subcommands:\n")));
    std::string strLine, strCommand;
    std::getline(in, strLine);
    int nCommands = 0;
    for (; std::getline(in, strLine) && strLine.find("  ") == 0; ++nCommands) {
        std::istringstream(strLine) >> strCommand;
        EXPECT_TRUE(std::regex_search(strPage, std::regex("\n\\*" + strCommand + "[ *]"))) << strCommand;
        EXPECT_TRUE(std::regex_search(strBash, std::regex("commands=\".*\\b" + strCommand + "\\b"))) << strCommand;
        EXPECT_NE(std::string::npos, strZsh.find("'" + strCommand + ":")) << strCommand;
    }
    EXPECT_EQ(17, nCommands);
}

TEST_F(CtlCommand, WaitForWaitsUntilAllAreThere) {
    EXPECT_EQ("", run(0, {"wait-for", "main"}));
    EXPECT_EQ("", run(5, {"wait-for", "main", "late", "-t", "30"}));
    EXPECT_EQ("qorctl: there is no thread \"late\"\n", strError);
    childProcess waiting("wait-for", [] { return ctl({"wait-for", "main", "late", "-t", "80000"}).nStatus; });
    device.start("late", [] {});
    EXPECT_EQ(0, waiting.wait());
}

TEST_F(CtlCommand, CountersAndBlocksAreShown) {
    EXPECT_EQ("NAME VALUE MIN MAX\nticket 98 1 100\n", run(0, {"acc"}));
    EXPECT_EQ("3\n", run(0, {"acc", "step", "ticket", "5"}));
    EXPECT_EQ("4\n", run(0, {"acc", "step", "ticket"}));
    EXPECT_EQ("ticket 4 1 100\n", run(0, {"acc", "--no-header"}));
    run(1, {"acc", "step", "unknown"});
    EXPECT_EQ(1u, json::parse(run(0, {"acc", "--json"})).size());
    EXPECT_EQ(0u,
              run(0, {"named", "block"}).find("0000 74 77 65 6e 74 79 20 62 79 74 65 73 20 6f 66 20 twenty bytes of"));
    run(1, {"named", "unknown"});
}

TEST_F(CtlCommand, TopShowsTheThreadsAgainAndAgain) {
    const std::string strText = run(0, {"top", "-n", "2", "-i", "1"});
    EXPECT_EQ(0u, strText.find("1 threads, 0 wait for answers, pool ")) << strText;
    EXPECT_NE(std::string::npos, strText.find("\nNAME TASK PROGRAM STATE QUEUED +/S MSG/S BYTES\nmain <first> device "))
        << strText;
    std::istringstream in(ctl({"top", "-n", "2", "-i", "1", "--json"}).strOutput);
    int nLooks = 0;
    for (std::string strLine; std::getline(in, strLine); ++nLooks)
        EXPECT_EQ("main", json::parse(strLine)[0]["name"]);
    EXPECT_EQ(2, nLooks);
}

TEST_F(CtlCommand, TopKnowsNoRateOfAThreadThatRegistersAgain) {
    meeting handled, again, registered;
    device.start("often", [&] {
        for (int i = 0; i < 2; ++i) {
            msgPostMsgToThread(msgGetThreadByName("often"), 0x100, 0, 0);
            msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
        }
        handled.say();
        again.hear();
        msgUnregistMainThread(msgGetThreadByName("often"));
        msgRegistMainThread("often", onMain);
        registered.say();
        pause();
    });
    handled.hear();
    int afd[2];
    ASSERT_EQ(0, pipe(afd));
    childProcess looking("top", [&] { return execCtl({"top", "--json", "-i", "20"}, afd[1]); });
    close(afd[1]);
    FILE* const pFile = fdopen(afd[0], "r");
    char* lpszLine = nullptr;
    size_t nSize = 0;
    ASSERT_GT(getline(&lpszLine, &nSize, pFile), 0);
    again.say();
    registered.hear();
    for (json row; row.is_null() || row["handled"] != 0;) {
        ASSERT_GT(getline(&lpszLine, &nSize, pFile), 0);
        for (const json& one : json::parse(lpszLine))
            if (one["name"] == "often")
                row = one;
        EXPECT_TRUE(row.is_null() || row["handledRate"].is_null() || row["handledRate"] < 1000) << row;
    }
    free(lpszLine);
    fclose(pFile);
}

TEST_F(CtlCommand, AReportIsOnePageThatNeedsNoNetwork) {
    device.startSender("a<b>&", "deaf", 0x123);
    device.startSender("sixteen letters,\xC3\xA4\xC3\xB6\xC3\xBC", "deaf", 0x124);
    device.start("deaf", [] {});
    device.go();
    ctlDevice::waitForEdges(2, 0);
    const auto pageWith = [this](std::vector<std::string> listArgument) {
        listArgument.insert(listArgument.begin(), {"report", "/tmp/home/device.html"});
        EXPECT_EQ("", run(0, listArgument));
        std::stringstream content;
        content << std::ifstream("/tmp/home/device.html").rdbuf();
        return content.str();
    };
    const std::string strPage = pageWith({});
    EXPECT_EQ(0u, strPage.find("<!DOCTYPE html>"));
    for (const char* lpszText :
         {"a&lt;b&gt;&amp;", ">deaf</text>", "<title>0x123</title>", ">0x123</text>", ">sixteen letters,...</text>",
          "ipc_system_share", "error: first", "send-blocked on deaf", "<h2>Findings</h2>", "</html>"})
        EXPECT_NE(std::string::npos, strPage.find(lpszText)) << lpszText;
    for (const char* lpszText : {"src=", "href=", "a<b>", "port=5060"})
        EXPECT_EQ(std::string::npos, strPage.find(lpszText)) << lpszText;
    EXPECT_NE(std::string::npos, pageWith({"--registry"}).find("port=5060"));
    run(1, {"report", "/nowhere/device.html"});
}

// Takes seconds.
TEST_F(CtlCommand, ABrowserTakesTheReport) {
    if (!isLong() || shell("command -v chromium").nStatus != 0)
        GTEST_SKIP() << "only in the long form, where chromium is installed";
    device.startSender("a<b>&", "deaf", 0x123);
    device.start("deaf", [] {});
    device.go();
    ctlDevice::waitForEdges(1, 0);
    run(0, {"report", "/tmp/home/device.html"});
    const ctlResult result = shell(
        "chromium --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --user-data-dir=/tmp/home/browser "
        "--dump-dom file:///tmp/home/device.html");
    for (const char* lpszText : {"a&lt;b&gt;&amp;</text>", ">deaf</text>", "<title>0x123</title></line>",
                                 "send-blocked on deaf", "<h2>Findings</h2>", "error: first"})
        EXPECT_NE(std::string::npos, result.strOutput.find(lpszText)) << lpszText << "\n" << result.strError;
}

TEST_F(CtlCommand, SegmentsShowTheirPoolsAndLocks) {
    const json segments = json::parse(run(0, {"segments", "--json"}));
    std::map<std::string, json> mapSegment;
    for (const json& segment : segments)
        mapSegment[segment["name"]] = segment;
    ASSERT_EQ(5u, mapSegment.size());
    for (const auto& entry : mapSegment) {
        EXPECT_EQ("sound", entry.second["reading"]) << entry.first;
        EXPECT_EQ("free", entry.second["lock"]) << entry.first;
        EXPECT_EQ(0, entry.second["leaked"]) << entry.first;
        EXPECT_EQ(true, entry.second["keyFile"]) << entry.first;
    }
    EXPECT_EQ(65536, mapSegment["ipc_system_share"]["size"]);
    EXPECT_EQ(1006, mapSegment["ipc_system_share"]["type"]);
    const std::string strText = run(0, {"segments"});
    EXPECT_EQ(0u, strText.find("SEGMENT KEY ID SIZE ATTACHED OWNER MODE TYPE\nipc_system_share 0x")) << strText;
    EXPECT_NE(std::string::npos, strText.find("\n\nPOOL USED FREE LARGEST LEAKED CELLS LOCK\nipc_system_share "));
}

TEST_F(CtlCommand, TheRegistryIsShownAndChanged) {
    const std::string strFile = "/tmp/home/net.ini";
    EXPECT_EQ("DOCUMENT SECTIONS KEYS UNSAVED\n" + strFile + " 1 2 2\n", run(0, {"reg", "ls"}));
    EXPECT_EQ("SECTION KEYS UNSAVED UNFLUSHED MONITORS\nNet 2 2 yes main\n", run(0, {"reg", "ls", strFile}));
    EXPECT_EQ("KEY UNSAVED VALUE\nport 1 5060\nhost 1 panel\n", run(0, {"reg", "ls", strFile, "net"}));
    EXPECT_EQ("5060\n", run(0, {"reg", "get", strFile, "Net", "PORT"}));
    EXPECT_EQ("", run(1, {"reg", "get", strFile, "Net", "unknown"}));
    EXPECT_EQ("", run(1, {"reg", "get", "/tmp/home/other.ini", "Net", "port"}));
    EXPECT_EQ("", run(1, {"reg", "get", strFile, "", "port"}));
    EXPECT_EQ("", run(1, {"reg", "get", strFile, "Net", ""}));
    EXPECT_EQ("", run(0, {"reg", "set", strFile, "Net", "port", "5061"}));
    EXPECT_EQ("; " + strFile + "\n[Net]\nport=5061 ; unsaved\nhost=panel ; unsaved\n", run(0, {"reg", "dump"}));
    EXPECT_NE(0, access(strFile.c_str(), F_OK));
    EXPECT_EQ("", run(0, {"reg", "flush", strFile}));
    std::stringstream content;
    content << std::ifstream(strFile).rdbuf();
    EXPECT_EQ("[ Net ]\nport = 5061\nhost = panel\n", content.str());
    EXPECT_EQ("5061", json::parse(run(0, {"reg", "dump", "--json"}))[0]["sections"]["Net"]["port"]);
    EXPECT_EQ("", run(2, {"reg", "set", strFile, "Net", "port", "two\nlines"}));
    EXPECT_EQ("", run(0, {"reg", "set", strFile, "", "port", "5063"}));
    EXPECT_EQ("5063\n", run(0, {"reg", "get", strFile, "", "port"}));
}

TEST_F(CtlCommand, AWatchPrintsWhatFlushesTell) {
    int afd[2];
    ASSERT_EQ(0, pipe(afd));
    childProcess watching("reg watch", [&afd] {
        return execCtl({"reg", "watch", "/tmp/home/net.ini", "Net"}, afd[1]);
    });
    close(afd[1]);
    for (std::string strText; strText.find(", qorctl:") == std::string::npos;)
        strText = run(0, {"reg", "ls", "/tmp/home/net.ini"});
    run(0, {"reg", "set", "/tmp/home/net.ini", "Net", "port", "5062"});
    run(0, {"reg", "flush"});
    std::string strLine;
    for (char ch; read(afd[0], &ch, 1) == 1 && ch != '\n';)
        strLine += ch;
    close(afd[0]);
    EXPECT_EQ("[Net] port=5062", strLine);
}

TEST_F(CtlCommand, TraceLinesStayUnlessTheyAreTaken) {
    const std::string strFirst = "[TRC+0123:0x0001] 00000001.000 error: first\n";
    const std::string strSecond = "[TRC+0456:0x0001] 00000002.000 second\n";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(strFirst + strSecond, run(0, {"trace"}));
    EXPECT_EQ(strSecond, run(0, {"trace", "-n", "1"}));
    EXPECT_EQ(strFirst, run(0, {"trace", "--grep", "err(or|no)"}));
    EXPECT_EQ(strSecond, run(0, {"trace", "--pid", "456"}));
    EXPECT_EQ("second", json::parse(run(0, {"trace", "--pid", "456", "--json"}))["line"].get<std::string>().substr(31));
    EXPECT_EQ(strFirst + strSecond, run(0, {"trace", "--take"}));
    EXPECT_EQ("", run(0, {"trace"}));
    EXPECT_NE(std::string::npos, strError.find("trace=2:system"));
}

TEST_F(CtlCommand, TraceLinesKnownToBeAboveALevelAreLeftOut) {
    device.start("tracer", [] {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToSystemTrace();
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(3);
        msgSendMsgToThread(msgGetThreadByName("main"), 0x100, 1, 0);
        QOR_TraceHelper::qorTrace(3, "the tracer's own");
    });
    std::string strText;
    while ((strText = run(0, {"trace"})).find("the tracer's own") == std::string::npos) {
    }
    for (const char* lpszLine : {" Send message 0x100 to ", " Send message 0x100 return\n"})
        EXPECT_NE(std::string::npos, strText.find(lpszLine)) << strText;
    EXPECT_EQ(strText, run(0, {"trace", "--level", "3"}));
    strText = run(0, {"trace", "--level", "2"});
    EXPECT_EQ(std::string::npos, strText.find("message 0x")) << strText;
    EXPECT_NE(std::string::npos, strText.find("the tracer's own")) << strText;  // nobody knows its level
    EXPECT_NE(std::string::npos, strText.find("error: first")) << strText;
    run(2, {"trace", "--level", "-1"});
}

// What a completion offers at the end of a line.
std::string completedByBash(const std::string& strLine) {
    return shell("PATH=" + makeCtlDirectory() +
                 ":$PATH bash -c '. " QOR_SOURCE_DIR "/tools/qorctl/completion/qorctl.bash; COMP_WORDS=(" + strLine +
                 "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _qorctl; printf \"%s\\n\" \"${COMPREPLY[@]}\"'")
        .strOutput;
}

TEST_F(CtlCommand, BashCompletesCommandsThreadsAndOptions) {
    device.start("a name", [] {});
    EXPECT_EQ("graph\n", completedByBash("qorctl gr"));
    EXPECT_EQ("queue\n", completedByBash("qorctl --json que"));
    EXPECT_EQ("a name\nmain\n", completedByBash("qorctl queue \"\""));
    EXPECT_EQ("main\n", completedByBash("qorctl send ma"));
    EXPECT_EQ("text\n", completedByBash("qorctl graph --format t"));
    EXPECT_EQ("--level\n", completedByBash("qorctl trace --le"));
    EXPECT_EQ("--all\n", completedByBash("qorctl clean --a"));
    EXPECT_EQ("watch\n", completedByBash("qorctl reg w"));
}

// What zsh's completion functions are given: for the command, or for the arguments of one.
std::string completedByZsh(const std::string& strState, const std::string& strWords) {
    return shell("PATH=" + makeCtlDirectory() +
                 ":$PATH zsh -f -c '"
                 "_arguments() { print -rl -- \"$@\"; [[ $1 == -C ]] && state=" +
                 strState +
                 "; local spec; for spec in \"$@\"; do [[ $spec == *:_qorctl_threads ]] && _qorctl_threads; done; "
                 "return 0; }\n"
                 "_describe() { print -rl -- \"${(@P)2}\" }\n"
                 "compadd() { print -rl -- \"${(@P)2}\" }\n"
                 "_files() { print files }\n"
                 "words=(" +
                 strWords + "); fpath=(" QOR_SOURCE_DIR "/tools/qorctl/completion); autoload -Uz _qorctl; _qorctl'")
        .strOutput;
}

TEST_F(CtlCommand, ZshCompletesCommandsThreadsAndOptions) {
    if (shell("command -v zsh").nStatus != 0)
        GTEST_SKIP() << "zsh is not installed";
    device.start("a name", [] {});
    const std::string strCommands = completedByZsh("command", "");
    EXPECT_NE(std::string::npos, strCommands.find("\ngraph:who waits for whose answer\n")) << strCommands;
    EXPECT_NE(std::string::npos, strCommands.find("\n(-q --quiet)--quiet[nothing on standard error]\n")) << strCommands;
    for (const char* lpszCommand : {"queue", "post", "send", "wait-for"}) {
        const std::string strThreads = completedByZsh("argument", lpszCommand);
        EXPECT_NE(std::string::npos, strThreads.find("\na name\nmain\n")) << strThreads;
    }
    EXPECT_NE(std::string::npos, completedByZsh("argument", "trace").find("\n--level:level\n"));
    EXPECT_NE(std::string::npos, completedByZsh("argument", "graph").find(":form:(text dot mermaid json)\n"));
    EXPECT_NE(std::string::npos, completedByZsh("argument", "snapshot").find("\nfiles\n"));
}

TEST_F(CtlCommand, AQueueThatGrowsIsFoundByTheDoctor) {
    device.start("deaf", [] {});
    EXPECT_EQ(std::string::npos, oneLine(run(0, {"doctor"})).find("grows"));
    device.start("poster", [] {
        for (int i = 0; i < 1000; ++i) {
            msgPostMsgToThread(msgGetThreadByName("deaf"), 0x100, 0, 0);
            usleep(20000);
        }
    });
    const std::string strInterval = isSlow() ? "500" : "50";
    std::string strText;
    while ((strText = oneLine(run(0, {"doctor", "-i", strInterval}))).find("grows") == std::string::npos) {
    }
    EXPECT_TRUE(std::regex_search(strText, std::regex("look the queue of thread \"deaf\" grows: [0-9]+, [0-9]+, [0-9]+ "
                                                      "messages in looks [0-9]+ ms apart More is posted to it")))
        << strText;
}

// Grammar of the text format: families in one piece, each with its type; samples that belong to one; an end.
TEST_F(CtlCommand, MetricsAreOpenMetricsText) {
    const std::string strText = ctl({"metrics"}).strOutput;
    const std::regex type("# TYPE ([a-z_]+) (gauge|counter)"), help("# HELP ([a-z_]+) .+");
    const std::regex sample(R"(([a-z_]+)(\{[a-z]+="([^"\\]|\\["\\n])*"\})? -?[0-9]+)");
    std::set<std::string> setFamily;
    std::string strFamily, strLine;
    std::istringstream in(strText);
    std::smatch match;
    bool bEnd = false;
    while (std::getline(in, strLine)) {
        EXPECT_FALSE(bEnd);
        if (strLine == "# EOF") {
            bEnd = true;
        } else if (std::regex_match(strLine, match, type)) {
            strFamily = match[1];
            EXPECT_TRUE(setFamily.insert(strFamily).second) << strLine;
        } else if (std::regex_match(strLine, match, help) || std::regex_match(strLine, match, sample)) {
            EXPECT_TRUE(match[1] == strFamily || match[1] == strFamily + "_total") << strLine;
        } else {
            ADD_FAILURE() << strLine;
        }
    }
    EXPECT_TRUE(bEnd);
    EXPECT_NE(std::string::npos, strText.find("\nqor_threads 1\n"));
    // The start message may still be there.
    EXPECT_TRUE(std::regex_search(strText, std::regex("\nqor_queue_messages\\{thread=\"main\"\\} [01]\n")));
    EXPECT_NE(std::string::npos, strText.find("\nqor_accumulator{name=\"ticket\"} 98\n"));
}

// The same with another's parser.
TEST_F(CtlCommand, AParserOfOpenMetricsTakesTheMetrics) {
    if (shell("/usr/bin/python3 -c 'import prometheus_client'").nStatus != 0)
        GTEST_SKIP() << "python3-prometheus-client is not installed";
    device.start("a \"quoted\" name \\ of\nlines", [] {});
    std::ofstream("/tmp/home/metrics") << ctl({"metrics"}).strOutput;
    const ctlResult result = shell(
        "/usr/bin/python3 -c '\n"
        "from prometheus_client.openmetrics.parser import text_string_to_metric_families as parse\n"
        "for family in parse(open(\"/tmp/home/metrics\").read()):\n"
        "    for sample in family.samples: print(family.name, family.type, sample.labels.get(\"thread\"))'");
    EXPECT_EQ(0, result.nStatus) << result.strError;
    EXPECT_NE(std::string::npos, result.strOutput.find("qor_threads gauge None\n")) << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("qor_queue_messages gauge a \"quoted\" name \\ of\\x0alines\n"))
        << result.strOutput;
}

TEST_F(CtlCommand, AllIsRemovedWhenNobodyIsAttached) {
    run(4, {"clean", "--all"});
    EXPECT_NE(std::string::npos, strError.find("nothing is removed"));
    device.killAll();
    EXPECT_NE(std::string::npos, run(0, {"clean", "--all"}).find("removed segment ipc_system_share\n"));
    EXPECT_EQ("", run(3, {"ps"}));
    EXPECT_EQ(0, access("/tmp/home/ipc_system_storage", F_OK));
}

// An object of a device that is kept to a group has the mode 0660.
TEST_F(CtlCommand, ADeviceOfAGroupIsRemovedWhenNobodyIsAttached) {
    device.killAll();
    clearDevice();
    ASSERT_EQ(0, setenv("qor_group", getgrgid(getgid())->gr_name, 1));
    device.start("main", [] {});
    ASSERT_EQ(0, unsetenv("qor_group"));
    run(4, {"clean", "--all"});
    EXPECT_EQ(0, access("/tmp/qor_ipc_system_share", F_OK));
    device.killAll();
    EXPECT_NE(std::string::npos, run(0, {"clean", "--all"}).find("removed segment ipc_system_share\n"));
    expectNoSegment();
}

// The key file of an event is the last to be removed, under its lock.
TEST_F(CtlCommand, AKeyFileThatIsLeftOfAnEventIsRemovedUnlessItIsLocked) {
    const std::string strFile = "/tmp/qor_task_event_99999999";
    const int fd = open(strFile.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ("", run(1, {"clean"}));
    EXPECT_EQ("qorctl: event task_event_99999999: Device or resource busy\n", strError);
    EXPECT_EQ(0, access(strFile.c_str(), F_OK));
    close(fd);
    EXPECT_EQ("removed event task_event_99999999\n", run(0, {"clean"}));
    EXPECT_NE(0, access(strFile.c_str(), F_OK));
}

// A process that starts holds the lock of the key file while it attaches the segment.
TEST_F(CtlCommand, NothingIsRemovedThatAProcessIsAboutToAttach) {
    device.killAll();
    const int fd = open("/tmp/qor_ipc_system_share", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    run(1, {"clean", "--all"});
    EXPECT_NE(std::string::npos, strError.find("segment ipc_system_share: Device or resource busy")) << strError;
    EXPECT_EQ(0, access("/tmp/qor_ipc_system_share", F_OK));
    close(fd);
    EXPECT_NE(std::string::npos, run(0, {"clean", "--all"}).find("removed segment ipc_system_share\n"));
}

// It takes the segment's lock first.
TEST_F(CtlCommand, NothingIsRemovedWhoseLockAProcessHasTakenToAttach) {
    device.killAll();
    meeting taken;
    childProcess starting("starting", [&taken] {
        QOR_BaseHelper::chMutex mutex;
        mutex.OpenMutex("ipc_system_share");
        mutex.Lock(-1);
        taken.say();
        return pause();
    });
    taken.hear();
    run(1, {"clean", "--all"});
    EXPECT_NE(std::string::npos, strError.find("segment ipc_system_share: Device or resource busy")) << strError;
    EXPECT_EQ(0, access("/tmp/qor_ipc_system_share", F_OK));
    starting.kill();
    starting.wait();
    EXPECT_NE(std::string::npos, run(0, {"clean", "--all"}).find("removed segment ipc_system_share\n"));
}

TEST_F(CtlCommand, NothingIsRemovedWhileAProcessUsesTheCountersAlone) {
    device.killAll();
    meeting stepped;
    childProcess counting("counting", [&stepped] {
        accExcuteAccumulater("ticket", 1);
        stepped.say();
        return pause();
    });
    stepped.hear();
    run(4, {"clean", "--all"});
    EXPECT_EQ("qorctl: segment ipc_system_storage is attached 1 times: nothing is removed\n", strError);
    counting.kill();
    counting.wait();
    EXPECT_NE(std::string::npos, run(0, {"clean", "--all"}).find("removed semaphore ipc_system_storage\n"));
}

TEST_F(CtlCommand, ASegmentWithoutKeyFileIsRemovedWithItsJournal) {
    device.killAll();
    ASSERT_EQ(0, unlink("/tmp/qor_ipc_system_share"));
    const std::string strText = run(0, {"clean", "--all"});
    EXPECT_TRUE(std::regex_search(strText, std::regex("removed journal [0-9]+ without key file\n"
                                                      "removed segment [0-9]+ without key file\n")))
        << strText;
    expectNoSegment();
}

TEST_F(CtlCommand, ColoursAreUsedOnlyWhereTheyAreWanted) {
    device.startSender("waiting", "main", 0x100);
    device.killAll();
    EXPECT_EQ(std::string::npos, run(0, {"ps"}).find('\033'));
    EXPECT_EQ(std::string::npos, run(0, {"ps", "--color=never"}).find('\033'));
    EXPECT_NE(std::string::npos, run(0, {"ps", "--color=always"}).find("\033[33mmain"));
}

TEST_F(CtlCommand, AReaderThatGoesEndsAStreamQuietly) {
    int afd[2];
    ASSERT_EQ(0, pipe(afd));
    close(afd[0]);
    childProcess looking("ps", [&afd] { return execCtl({"ps"}, afd[1]); });
    close(afd[1]);
    EXPECT_EQ(0, looking.wait());
}

TEST_F(CtlCommand, OutputThatCannotBeWrittenEndsWithStatusOne) {
    const int fdFull = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_NE(-1, fdFull);
    for (const char* lpszCommand : {"ps", "metrics"}) {
        childProcess looking("full", [&] { return execCtl({lpszCommand, "-q"}, fdFull); });
        EXPECT_EQ(1, looking.wait()) << lpszCommand;
    }
    close(fdFull);
}

enum terminalUse { controlling, notControlling, background };

// top on a terminal of its own. To be made in a new process, which begins a session: its terminal is hung up when it
// ends.
class topOnTerminal {
public:
    explicit topOnTerminal(terminalUse use)
        : m_fdMaster(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), m_fdTerminal(openTerminal(use)) {
        int afd[2];
        if (pipe(afd) != 0)
            abort();
        m_pTop = std::make_unique<childProcess>("top", [&] {
            if (use != notControlling)
                setpgid(0, 0);
            signal(SIGTTOU, SIG_IGN);
            if (use == controlling && tcsetpgrp(m_fdTerminal, getpid()) != 0)
                return 9;
            signal(SIGTTOU, SIG_DFL);
            dup2(m_fdTerminal, STDIN_FILENO);
            close(afd[0]);
            return execCtl({"top", "-i", "1"}, afd[1]);
        });
        close(afd[1]);
        m_fdOutput = afd[0];
    }

    // Waits for output, of which the first comes when the terminal is set. False at its end.
    bool look() const {
        char aText[4096];
        return read(m_fdOutput, aText, sizeof(aText)) > 0;
    }
    bool echoes() const {
        termios state = {};
        return tcgetattr(m_fdTerminal, &state) == 0 && (state.c_lflag & (ECHO | ICANON)) == (ECHO | ICANON);
    }
    bool press(char ch) const { return write(m_fdMaster, &ch, 1) == 1; }
    void closeOutput() const { close(m_fdOutput); }
    childProcess& process() const { return *m_pTop; }

private:
    int openTerminal(terminalUse use) const {
        if (m_fdMaster == -1 || grantpt(m_fdMaster) != 0 || unlockpt(m_fdMaster) != 0 || setsid() == -1)
            abort();
        return open(ptsname(m_fdMaster), O_RDWR | O_CLOEXEC | (use == notControlling ? O_NOCTTY : 0));
    }

    const int m_fdMaster, m_fdTerminal;
    int m_fdOutput = -1;
    std::unique_ptr<childProcess> m_pTop;
};

// Ends top by a signal, or for 0 by closing what it writes to. Answers 0 when the terminal then is as it was.
int endTop(int nSignal) {
    const topOnTerminal top(controlling);
    if (!top.look() || top.echoes())
        return 2;
    if (nSignal != 0)
        top.process().signal(nSignal);
    else
        top.closeOutput();
    if (top.process().wait() != -nSignal)
        return 3;
    return top.echoes() ? 0 : 4;
}

TEST_F(CtlCommand, TopLeavesTheTerminalAsItWas) {
    for (const int nSignal : {0, SIGINT, SIGTERM, SIGHUP}) {
        childProcess session("session", [nSignal] { return endTop(nSignal); });
        EXPECT_EQ(0, session.wait()) << nSignal;
    }
}

// As on a console without job control.
TEST_F(CtlCommand, TopLeavesATerminalThatControlsNobodyAsItWas) {
    childProcess session("session", [] {
        const topOnTerminal top(notControlling);
        if (!top.look() || top.echoes() || !top.press('q'))
            return 2;
        while (top.look()) {
        }
        return top.process().wait() == 0 && top.echoes() ? 0 : 3;
    });
    EXPECT_EQ(0, session.wait());
}

TEST_F(CtlCommand, TopThatIsStoppedGivesTheTerminalBackMeanwhile) {
    childProcess session("session", [] {
        const topOnTerminal top(controlling);
        if (!top.look() || top.echoes())
            return 2;
        top.process().signal(SIGTSTP);
        int nStatus = 0;
        if (waitpid(top.process().id(), &nStatus, WUNTRACED) == -1 || !WIFSTOPPED(nStatus) || !top.echoes())
            return 3;
        top.process().signal(SIGCONT);
        while (top.echoes())
            if (!top.look())
                return 4;
        top.process().signal(SIGTERM);
        return top.process().wait() == -SIGTERM && top.echoes() ? 0 : 5;
    });
    EXPECT_EQ(0, session.wait());
}

TEST_F(CtlCommand, TopInTheBackgroundGoesOnAndLeavesTheTerminalAlone) {
    childProcess session("session", [] {
        const topOnTerminal top(background);
        for (int i = 0; i < 3; ++i)
            if (!top.look() || !top.echoes())
                return 2;
        top.process().signal(SIGTERM);
        return top.process().wait() == -SIGTERM && top.echoes() ? 0 : 3;
    });
    EXPECT_EQ(0, session.wait());
}

// A C1 control character, a surrogate, an overlong form, and a character.
TEST_F(CtlCommand, NamesDoNotReachTheTerminalAsControls) {
    device.start(
        "\xC2\x9B"
        "31m\xED\xA0\x80\xE0\x80\x80\xC3\xA4",
        [] {});
    const std::string strShown = "\\xc2\\x9b31m\\xed\\xa0\\x80\\xe0\\x80\\x80\xC3\xA4";
    EXPECT_NE(std::string::npos, run(0, {"ps"}).find(strShown));
    EXPECT_NE(std::string::npos, run(0, {"metrics"}).find("thread=\"\\" + strShown.substr(0, 4) + "\\\\x9b31m"));
    using namespace QOR_InspectHelper;
    deviceImage image;
    takeImage(image, takeOptions());
    for (const queueView& queue : readShare(image.segment(segmentShare)).queues)
        image.segment(segmentShare).bytes[queue.uHandle] = 1;  // its first link leads nowhere
    std::string strReason;
    ASSERT_TRUE(saveSnapshot(image, "/tmp/home/damaged.snap", strReason)) << strReason;
    run(4, {"--from", "/tmp/home/damaged.snap", "ps"});
    EXPECT_EQ(std::string::npos, strError.find("\xC2\x9B")) << strError;
    EXPECT_NE(std::string::npos, strError.find(": damaged")) << strError;
}

TEST_F(CtlCommand, ALongTraceLineIsSearched) {
    const std::string strLine =
        "[TRC+0789:0x0001] 00000003.000 PostProxyMessage message 0x1 " + std::string(60000, 'x');
    meeting traced;
    device.start("tracer", [&] {
        QOR_StringHelper::chReferenceStringT<char> strLong(strLine.c_str());
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->TraceToSystemTrace(strLong);
        traced.say();
        msgDefaultThreadRun();
    });
    traced.hear();
    EXPECT_EQ(3, json::parse(run(0, {"trace", "-n", "1", "--json"}))["level"]);
    EXPECT_EQ(std::string::npos, run(0, {"trace", "--level", "2"}).find("789"));
    EXPECT_EQ(strLine + "\n", run(0, {"trace", "--grep", "Proxy.*x$"}));
    EXPECT_EQ("", run(0, {"trace", "--grep", "Proxy.*y"}));
}

TEST_F(CtlCommand, ALimitIsReportedFromNinetyPercentOn) {
    using namespace QOR_InspectHelper;
    deviceImage image;
    takeImage(image, takeOptions());
    image.limits.nSegmentMax = 8;
    image.limits.nSegmentUsed = 7;
    image.limits.nSemaphoreMax = 128;
    image.limits.nSemaphoreUsed = 116;
    std::string strReason;
    ASSERT_TRUE(saveSnapshot(image, "/tmp/home/limits.snap", strReason)) << strReason;
    const std::string strText = run(0, {"--from", "/tmp/home/limits.snap", "doctor"});
    EXPECT_EQ(std::string::npos, strText.find("7 of 8 segments")) << strText;
    EXPECT_NE(std::string::npos, strText.find("116 of 128 semaphore sets are in use")) << strText;
}

// As of a device that is kept to a group, or of another user's home directory.
TEST_F(CtlCommand, WhatThisUserMayNotReadIsNotDamaged) {
    using namespace QOR_InspectHelper;
    deviceImage image;
    takeImage(image, takeOptions());
    for (const segmentKind kind : {segmentShare, segmentStorage}) {
        image.segment(kind).strError = "Permission denied";
        image.segment(kind).bytes.clear();
    }
    image.segment(segmentStorage).bKeyFile = false;
    std::string strReason;
    ASSERT_TRUE(saveSnapshot(image, "/tmp/home/unread.snap", strReason)) << strReason;
    run(1, {"--from", "/tmp/home/unread.snap", "ps"});
    EXPECT_EQ("qorctl: ipc_system_share: Permission denied\n", strError);
    const std::string strText = run(0, {"--from", "/tmp/home/unread.snap", "doctor"});
    EXPECT_EQ(0u, strText.find("look ipc_system_share: Permission denied\nLook as root")) << strText;
    for (const char* lpszText : {"clean --all", "key file"})
        EXPECT_EQ(std::string::npos, strText.find(lpszText)) << strText;
    const std::string strMetrics = run(0, {"--from", "/tmp/home/unread.snap", "metrics"});
    EXPECT_EQ(std::string::npos, strMetrics.find("qor_segment_damaged{segment=\"ipc_system_share\"}"));
    image.segment(segmentNamed).bytes.resize(image.segment(segmentNamed).bytes.size() / 2);
    ASSERT_TRUE(saveSnapshot(image, "/tmp/home/both.snap", strReason)) << strReason;
    run(4, {"--from", "/tmp/home/both.snap", "segments"});
}

// ---- a busy device

// What a row of ps or top says about one of the exchangers is possible: a thread has its first message and one of its
// partner at most.
void expectPossible(const json& row) {
    EXPECT_EQ(true, row["alive"]) << row;
    EXPECT_EQ(row["task"], row["process"]) << row;
    EXPECT_LE(row["queued"].is_null() ? 0 : row["queued"].get<int>(), 2) << row;
    EXPECT_LE(row["bytes"].is_null() ? 0 : row["bytes"].get<int>(), 300) << row;
    const std::string strOn = row["on"].is_null() ? "" : row["on"].get<std::string>();
    const char chPartner = static_cast<char>(row["name"].get<std::string>()[1] ^ 1);
    EXPECT_TRUE(strOn.empty() || strOn == std::string("t") + chPartner) << row;
    EXPECT_TRUE(row["handling"].is_null() || row["handling"] == 0x8001 || row["handling"] == 0x100) << row;
}

void expectAllEight(const json& rows) {
    std::string strNames;
    for (const json& row : rows) {
        strNames += row["name"].get<std::string>() + " ";
        expectPossible(row);
    }
    EXPECT_EQ("t0 t1 t2 t3 t4 t5 t6 t7 ", strNames);
}

TEST(CtlBusy, NoLineOfPsAndTopIsWrong) {
    const int nLooks = scaled(20);
    {
        const exchangers eight(8);
        int afd[2];
        ASSERT_EQ(0, pipe(afd));
        childProcess looking("top", [&] {
            return execCtl({"top", "--json", "-n", std::to_string(nLooks), "-i", "50"}, afd[1]);
        });
        close(afd[1]);
        for (int i = 0; i < nLooks; ++i) {
            const ctlResult result = ctl({"ps", "--json"});
            EXPECT_EQ(0, result.nStatus) << result.strError;
            expectAllEight(json::parse(result.strOutput));
        }
        FILE* pFile = fdopen(afd[0], "r");
        char* lpszLine = nullptr;
        size_t nSize = 0;
        int nLines = 0;
        for (; getline(&lpszLine, &nSize, pFile) > 0; ++nLines)
            expectAllEight(json::parse(lpszLine));
        free(lpszLine);
        fclose(pFile);
        EXPECT_EQ(nLooks, nLines);
        EXPECT_EQ(0, looking.wait());
    }
    clearDevice();
}

// ---- hostile bytes

// Every command that looks at the device, once.
const std::vector<std::vector<std::string>> listLook = {{"ps"},
                                                        {"top", "-n", "1"},
                                                        {"queue", "main"},
                                                        {"graph"},
                                                        {"graph", "--format=dot"},
                                                        {"segments"},
                                                        {"named"},
                                                        {"acc"},
                                                        {"reg", "ls"},
                                                        {"reg", "dump"},
                                                        {"reg", "get", "/tmp/home/net.ini", "Net", "port"},
                                                        {"trace", "--level", "2"},
                                                        {"doctor"},
                                                        {"metrics"},
                                                        {"snapshot", "/tmp/home/copy.snap"},
                                                        {"report", "/tmp/home/any.html"}};

// Each looking command on a snapshot whose segments hold any bytes ends within a second of processor time with one of
// three statuses.
TEST_F(CtlCommand, AnyBytesInTheSegmentsGiveAStatus) {
    using namespace QOR_InspectHelper;
    deviceImage device;
    takeImage(device, takeOptions());
    uint32_t uState = seed(12345);
    const int nRounds = scaled(4);
    for (int i = 0; i < nRounds; ++i) {
        for (segmentImage& image : device.segments)
            for (size_t n = i % 2 == 0 ? 8 : 0; n < image.bytes.size(); ++n)
                image.bytes[n] = static_cast<uint8_t>((uState = uState * 1664525 + 1013904223) >> 24);
        std::string strReason;
        ASSERT_TRUE(saveSnapshot(device, "/tmp/home/any.snap", strReason)) << strReason;
        for (std::vector<std::string> listArgument : listLook) {
            listArgument.insert(listArgument.begin(), {"--from", "/tmp/home/any.snap"});
            const int nStatus = ctlWithin(isSlow() ? 30 : 1, listArgument).nStatus;
            EXPECT_TRUE(nStatus == 0 || nStatus == 3 || nStatus == 4) << listArgument[2] << " " << nStatus;
        }
    }
    std::ofstream("/tmp/home/bad.snap") << "QORSNAP1 and no more";
    EXPECT_EQ("", run(4, {"--from", "/tmp/home/bad.snap", "ps"}));
    EXPECT_EQ("qorctl: /tmp/home/bad.snap: a damaged or cut off snapshot\n", strError);
}

}  // namespace
