// Snapshots across ABIs: the tool of each build looks at one device, and reads the snapshots of the others. The builds
// are this one and those that the environment variable QOR_PEERS names (build directories with colons between).
#include "gtest/gtest.h"
#include "support/ctl.h"

using namespace qorTest;

namespace {

TEST(CtlSnapshot, EachBuildReadsTheSnapshotsOfEveryOther) {
    ctlDevice device;
    for (int i = 0; i < 3; ++i)
        device.startSender(std::string(1, static_cast<char>('a' + i)),
                           std::string(1, static_cast<char>('a' + (i + 1) % 3)), 0x100);
    device.go();
    ctlDevice::waitForEdges(3, 0);
    const std::vector<ctlWords> listTool = ctlTools();
    std::vector<std::string> listFile;
    for (size_t i = 0; i < listTool.size(); ++i) {
        listFile.push_back("/tmp/home/" + std::to_string(i) + ".snap");
        EXPECT_EQ(0, ctlOf(listTool[i], {"snapshot", listFile.back()}).nStatus) << listTool[i].back();
    }
    device.killAll();
    for (const ctlWords& tool : listTool)
        for (const std::string& strFile : listFile) {
            const ctlResult graph = ctlOf(tool, {"--from", strFile, "graph"});
            EXPECT_EQ(4, graph.nStatus) << graph.strError;
            EXPECT_EQ(
                "a -> b: 0x100 queued, <time>, no limit\nb -> c: 0x100 queued, <time>, no limit\n"
                "c -> a: 0x100 queued, <time>, no limit\nring: a -> b -> c -> a: DEADLOCK\n",
                device.normal(graph.strOutput));
            for (const char* lpszCommand : {"ps", "segments", "doctor", "metrics"})
                EXPECT_EQ(ctlOf(listTool[0], {"--from", strFile, lpszCommand}).strOutput,
                          ctlOf(tool, {"--from", strFile, lpszCommand}).strOutput)
                    << lpszCommand;
        }
}

}  // namespace
