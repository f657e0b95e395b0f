// Peers: processes of this build and of others, driven by lines over pipes, on one private device.
//
// A peer is the program qor-peer of a build. It does one command a line; the commands stand in tests/peers.
// It ends with the object, and by itself when its input ends; a command that hangs ends it with its name on
// standard error.
#ifndef QOR_TESTS_SUPPORT_PEER_H
#define QOR_TESTS_SUPPORT_PEER_H

#include <memory>
#include <string>
#include <vector>

#include "support/child.h"

namespace qorTest {

// How the peer of one build is started.
struct peerBuild {
    std::string strProcessor;
    std::vector<std::string> listWord;
};

// The peer of a build directory. Where there is none, the program ends with a line that says so.
peerBuild findPeerBuild(const std::string& strDirectory);

class peer {
public:
    peer(const peerBuild& build, const char* lpszName);
    peer(const peer&) = delete;
    ~peer();

    // Gives a command; finish() waits for its answer. ask() does both.
    void start(const std::string& strCommand);
    std::string finish();
    std::string ask(const std::string& strCommand);

    // Kills it, and returns when it is gone.
    void kill();
    // Ends the input and waits: the exit status; minus the signal that ended it.
    int end();
    // What it has said on standard error.
    std::string errors() const;
    const std::string& name() const { return m_strName; }

private:
    int run(const peerBuild& build, const int (&fdIn)[2], const int (&fdOut)[2]) const;
    void closeAll();

    std::string m_strName;
    std::string m_strPending;
    int m_fdError;
    int m_fdCommand = -1;
    int m_fdAnswer = -1;
    std::unique_ptr<childProcess> m_pProcess;
};

// Removes every System V object, key file and counter of the private device: the next process finds it as
// after a start.
void clearDevice();

}  // namespace qorTest

#endif
