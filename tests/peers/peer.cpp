// qor-peer: one process of a test with several ABIs. It is linked with the library of its own build and does
// what the lines on its standard input say, one command a line; each gets one line as its answer on standard
// output. At the end of the input it unregisters and ends with status 0.
//
// The commands stand in peer_message.cpp (threads, messages, timers) and peer_segment.cpp (locks, events,
// named blocks, counters, trace, layout).
#include "peer.h"

#include <stdio.h>

#include <iostream>

#include "support/child.h"

using namespace qorTest;

namespace {

std::string answerTo(const std::string& strLine) {
    std::istringstream in(strLine);
    const std::string strCommand = word(in);
    for (const peerCommands* pCommands : {&messageCommands(), &segmentCommands()}) {
        const auto it = pCommands->find(strCommand);
        if (it != pCommands->end())
            return it->second(in);
    }
    return "unknown command " + strCommand;
}

}  // namespace

int main(int argc, char** argv) {
    const char* const lpszName = argc > 1 ? argv[1] : "peer";
    for (std::string strLine; std::getline(std::cin, strLine);) {
        watch(lpszName);  // a command that hangs ends this process with its name
        const std::string strAnswer = answerTo(strLine);
        printf("%s\n", strAnswer.c_str());
        fflush(stdout);
    }
    answerTo("unregister");
    return 0;
}
