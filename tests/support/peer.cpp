#include "support/peer.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <filesystem>
#include <fstream>

namespace qorTest {

peerBuild findPeerBuild(const std::string& strDirectory) {
    peerBuild build;
    std::ifstream in(strDirectory + "/tests/peers/command");
    std::getline(in, build.strProcessor);
    for (std::string strWord; std::getline(in, strWord);)
        build.listWord.push_back(strWord);
    if (build.listWord.empty() || access(build.listWord.back().c_str(), X_OK) != 0) {
        fprintf(stderr, "There is no peer in %s: build its target qor-peer\n", strDirectory.c_str());
        exit(96);
    }
    return build;
}

peer::peer(const peerBuild& build, const char* lpszName)
    : m_strName(build.strProcessor + " " + lpszName), m_fdError(memfd_create("errors", MFD_CLOEXEC)) {
    int fdIn[2], fdOut[2];
    if (m_fdError == -1 || pipe2(fdIn, O_CLOEXEC) != 0 || pipe2(fdOut, O_CLOEXEC) != 0)
        abort();
    signal(SIGPIPE, SIG_IGN);  // a peer that is gone shows in its missing answer
    m_pProcess.reset(new childProcess(m_strName.c_str(), [&] { return run(build, fdIn, fdOut); }));
    close(fdIn[0]);
    close(fdOut[1]);
    m_fdCommand = fdIn[1];
    m_fdAnswer = fdOut[0];
}

// In the child.
int peer::run(const peerBuild& build, const int (&fdIn)[2], const int (&fdOut)[2]) const {
    signal(SIGPIPE, SIG_DFL);
    dup2(fdIn[0], STDIN_FILENO);
    dup2(fdOut[1], STDOUT_FILENO);
    dup2(m_fdError, STDERR_FILENO);
    setenv("trace", "2:system", 1);
    std::vector<std::string> listWord = build.listWord;
    listWord.push_back(m_strName);
    std::vector<char*> listArgument;
    for (std::string& strWord : listWord)
        listArgument.push_back(&strWord[0]);
    listArgument.push_back(NULL);
    execvp(listArgument[0], listArgument.data());
    perror(listArgument[0]);
    return 127;
}

peer::~peer() {
    closeAll();
    close(m_fdError);
}

void peer::closeAll() {
    if (m_fdCommand != -1)
        close(m_fdCommand);
    if (m_fdAnswer != -1)
        close(m_fdAnswer);
    m_fdCommand = m_fdAnswer = -1;
}

void peer::start(const std::string& strCommand) {
    const std::string strLine = strCommand + "\n";
    if (write(m_fdCommand, strLine.data(), strLine.size()) != static_cast<ssize_t>(strLine.size()))
        m_strPending = "no answer\n";
}

std::string peer::finish() {
    size_t nEnd;
    while ((nEnd = m_strPending.find('\n')) == std::string::npos) {
        char sz[4096];
        const ssize_t nRead = read(m_fdAnswer, sz, sizeof(sz));
        if (nRead == -1 && errno == EINTR)
            continue;
        if (nRead <= 0)
            return m_strName + " is gone: " + errors();
        m_strPending.append(sz, static_cast<size_t>(nRead));
    }
    const std::string strAnswer = m_strPending.substr(0, nEnd);
    m_strPending.erase(0, nEnd + 1);
    return strAnswer;
}

std::string peer::ask(const std::string& strCommand) {
    start(strCommand);
    return finish();
}

void peer::kill() { m_pProcess.reset(); }

int peer::end() {
    close(m_fdCommand);
    m_fdCommand = -1;
    const int nStatus = m_pProcess->wait();
    m_pProcess.reset();
    return nStatus;
}

std::string peer::errors() const {
    std::string strText;
    char sz[4096];
    for (ssize_t nRead; (nRead = pread(m_fdError, sz, sizeof(sz), static_cast<off_t>(strText.size()))) > 0;)
        strText.append(sz, static_cast<size_t>(nRead));
    return strText;
}

namespace {

// The ids in a table of the kernel: the second column.
std::vector<int> listObjects(const char* lpszTable) {
    std::ifstream in(lpszTable);
    std::string strLine;
    std::getline(in, strLine);
    std::vector<int> listId;
    while (std::getline(in, strLine)) {
        int nKey = 0, nId = 0;
        if (sscanf(strLine.c_str(), "%d %d", &nKey, &nId) == 2)
            listId.push_back(nId);
    }
    return listId;
}

}  // namespace

void clearDevice() {
    for (int nId : listObjects("/proc/sysvipc/shm"))
        shmctl(nId, IPC_RMID, NULL);
    for (int nId : listObjects("/proc/sysvipc/sem"))
        semctl(nId, 0, IPC_RMID);
    std::vector<std::filesystem::path> listFile = {"/tmp/home/ipc_system_storage",
                                                   "/tmp/home/ipc_system_storage.journal"};
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
        if (entry.path().filename().string().rfind("qor_", 0) == 0)
            listFile.push_back(entry.path());
    for (const auto& path : listFile)
        std::filesystem::remove(path);
}

}  // namespace qorTest
