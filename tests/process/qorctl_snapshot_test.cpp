// Snapshots across ABIs: the tool of each build looks at one device, and reads the snapshots of the others. The builds
// are this one and those that the environment variable QOR_PEERS names (build directories with colons between).
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>

#include "gtest/gtest.h"
#include "support/ctl.h"
#include "support/isolation.h"
#include "support/peer.h"

using namespace qorTest;

namespace {

typedef std::vector<std::string> words;

// A build that only gives a peer has no tool.
std::vector<words> listTools() {
    words own = wordsOfProgram();
    own.back() = QOR_CTL_PROGRAM;
    std::vector<words> listTool = {own};
    const char* const lpszPeers = getenv("QOR_PEERS");
    std::string strPeers = lpszPeers != nullptr ? lpszPeers : "";
    while (!strPeers.empty()) {
        const size_t nEnd = std::min(strPeers.find(':'), strPeers.size());
        const std::string strDirectory = strPeers.substr(0, nEnd);
        strPeers.erase(0, nEnd + 1);
        words tool = findPeerBuild(strDirectory).listWord;
        tool.back() = strDirectory + "/tools/qorctl/qorctl";
        if (access(tool.back().c_str(), X_OK) == 0)
            listTool.push_back(tool);
    }
    return listTool;
}

TEST(CtlSnapshot, EachBuildReadsTheSnapshotsOfEveryOther) {
    ctlDevice device;
    for (int i = 0; i < 3; ++i)
        device.startSender(std::string(1, static_cast<char>('a' + i)),
                           std::string(1, static_cast<char>('a' + (i + 1) % 3)), 0x100);
    device.go();
    ctlDevice::waitForEdges(3, 0);
    const std::vector<words> listTool = listTools();
    std::vector<std::string> listFile;
    for (size_t i = 0; i < listTool.size(); ++i) {
        listFile.push_back("/tmp/home/" + std::to_string(i) + ".snap");
        EXPECT_EQ(0, ctlOf(listTool[i], {"snapshot", listFile.back()}).nStatus) << listTool[i].back();
    }
    device.killAll();
    for (const words& tool : listTool)
        for (const std::string& strFile : listFile) {
            const ctlResult graph = ctlOf(tool, {"--from", strFile, "graph"});
            EXPECT_EQ(4, graph.nStatus) << graph.strError;
            EXPECT_EQ(
                "a -> b: 0x100 queued\nb -> c: 0x100 queued\nc -> a: 0x100 queued\n"
                "ring: a -> b -> c -> a: cycle, a deadlock unless one of them has a time-out\n",
                graph.strOutput);
            for (const char* lpszCommand : {"ps", "segments", "doctor", "metrics"})
                EXPECT_EQ(ctlOf(listTool[0], {"--from", strFile, lpszCommand}).strOutput,
                          ctlOf(tool, {"--from", strFile, lpszCommand}).strOutput)
                    << lpszCommand;
        }
}

}  // namespace
