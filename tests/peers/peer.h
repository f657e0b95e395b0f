// The parts of qor-peer: what it keeps between two commands, and its tables of commands.
#ifndef QOR_TESTS_PEERS_PEER_H
#define QOR_TESTS_PEERS_PEER_H

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qor/MsgQueueHelper.h"

namespace qorTest {

// Takes its arguments from the command line and gives the answer, one line.
typedef std::string (*peerCommand)(std::istringstream& in);
typedef std::map<std::string, peerCommand> peerCommands;

const peerCommands& messageCommands();
const peerCommands& segmentCommands();

inline QOR_MsgQueueHelper::uCSystemShareHelper& share() {
    return *QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
}

// The next word of a command line as a number, decimal or with 0x.
inline long long number(std::istringstream& in) {
    std::string strWord;
    in >> strWord;
    return strtoll(strWord.c_str(), NULL, 0);
}

inline std::string word(std::istringstream& in) {
    std::string strWord;
    in >> strWord;
    return strWord;
}

}  // namespace qorTest

#endif
