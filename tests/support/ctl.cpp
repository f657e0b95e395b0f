#include "support/ctl.h"

#include <ctype.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <regex>

#include "qor/flat.h"
#include "support/isolation.h"
#include "support/peer.h"

namespace qorTest {

namespace {

std::string contentOf(int fd) {
    std::string strText;
    char sz[4096];
    for (ssize_t nRead; (nRead = pread(fd, sz, sizeof(sz), static_cast<off_t>(strText.size()))) > 0;)
        strText.append(sz, static_cast<size_t>(nRead));
    close(fd);
    return strText;
}

int onMessage(simpMSG*) { return -1; }

bool isDigit(char ch) { return ch >= '0' && ch <= '9'; }

// Whether the digits from a place on go on a hexadecimal number.
bool isInHex(const std::string& strText, size_t i) {
    while (i > 0 && isxdigit(static_cast<unsigned char>(strText[i - 1])))
        --i;
    return i > 1 && strText[i - 1] == 'x' && strText[i - 2] == '0';
}

// Every place where the number stands by itself.
void replaceNumber(std::string& strText, const std::string& strNumber, const std::string& strWith) {
    for (size_t i = 0; (i = strText.find(strNumber, i)) != std::string::npos;) {
        const size_t nEnd = i + strNumber.size();
        const bool bPart = (i > 0 && isDigit(strText[i - 1])) || (nEnd < strText.size() && isDigit(strText[nEnd]));
        if (bPart || isInHex(strText, i)) {
            i = nEnd;
            continue;
        }
        strText.replace(i, strNumber.size(), strWith);
        i += strWith.size();
    }
}

}  // namespace

namespace {

std::vector<std::string> ownProgram() {
    std::vector<std::string> listWord = wordsOfProgram();
    listWord.back() = QOR_CTL_PROGRAM;
    return listWord;
}

int execWords(std::vector<std::string> listWord, const std::vector<std::string>& listArgument, int fdOut) {
    listWord.insert(listWord.end(), listArgument.begin(), listArgument.end());
    std::vector<char*> listPointer;
    for (std::string& strWord : listWord)
        listPointer.push_back(&strWord[0]);
    listPointer.push_back(NULL);
    dup2(fdOut, STDOUT_FILENO);
    execvp(listPointer[0], listPointer.data());
    return 127;
}

}  // namespace

std::vector<ctlWords> ctlTools() {
    std::vector<ctlWords> listTool = {ownProgram()};
    const char* const lpszPeers = getenv("QOR_PEERS");
    std::string strPeers = lpszPeers != nullptr ? lpszPeers : "";
    while (!strPeers.empty()) {
        const size_t nEnd = std::min(strPeers.find(':'), strPeers.size());
        const std::string strDirectory = strPeers.substr(0, nEnd);
        strPeers.erase(0, nEnd + 1);
        ctlWords tool = findPeerBuild(strDirectory).listWord;
        tool.back() = strDirectory + "/tools/qorctl/qorctl";
        if (access(tool.back().c_str(), X_OK) == 0)
            listTool.push_back(tool);
    }
    return listTool;
}

int execCtl(const std::vector<std::string>& listArgument, int fdOut) {
    return execWords(ownProgram(), listArgument, fdOut);
}

ctlResult ctl(const std::vector<std::string>& listArgument, const std::string& strInput) {
    return ctlOf(ownProgram(), listArgument, strInput);
}

namespace {

// What a child process prints that becomes another program by fnExec(standard output).
ctlResult collect(const std::string& strInput, const std::function<int(int)>& fnExec) {
    const int fdIn = memfd_create("in", MFD_CLOEXEC), fdOut = memfd_create("out", MFD_CLOEXEC),
              fdError = memfd_create("error", MFD_CLOEXEC);
    if (write(fdIn, strInput.data(), strInput.size()) != static_cast<ssize_t>(strInput.size()) ||
        lseek(fdIn, 0, SEEK_SET) != 0)
        abort();
    childProcess run("qorctl", [&] {
        dup2(fdIn, STDIN_FILENO);
        dup2(fdError, STDERR_FILENO);
        return fnExec(fdOut);
    });
    ctlResult result;
    result.nStatus = run.wait();
    result.strOutput = contentOf(fdOut);
    result.strError = contentOf(fdError);
    close(fdIn);
    return result;
}

}  // namespace

ctlResult ctlOf(const std::vector<std::string>& listProgram, const std::vector<std::string>& listArgument,
                const std::string& strInput) {
    return collect(strInput, [&](int fdOut) { return execWords(listProgram, listArgument, fdOut); });
}

ctlResult ctlWithin(int nSeconds, const std::vector<std::string>& listArgument) {
    return collect("", [&](int fdOut) {
        const rlim_t nLimit = static_cast<rlim_t>(nSeconds);
        const rlimit limit = {nLimit, nLimit + 1};
        setrlimit(RLIMIT_CPU, &limit);
        return execWords(ownProgram(), listArgument, fdOut);
    });
}

ctlResult shell(const std::string& strCommand) {
    return collect("", [&](int fdOut) { return execWords({"/bin/sh", "-c"}, {strCommand}, fdOut); });
}

std::string makeCtlDirectory() {
    const std::string strDirectory = "/tmp/home/bin", strFile = strDirectory + "/qorctl";
    std::string strText = "#!/bin/sh\nexec";
    for (const std::string& strWord : ownProgram())
        strText += " '" + strWord + "'";
    mkdir(strDirectory.c_str(), 0755);
    std::ofstream(strFile) << strText << " \"$@\"\n";
    chmod(strFile.c_str(), 0755);
    return strDirectory;
}

void ctlDevice::start(const std::string& strName, const std::function<void()>& fnRun) {
    meeting ready;
    m_listProcess.emplace_back(new childProcess(strName.c_str(), [&] {
        setenv("trace", "0", 1);
        prctl(PR_SET_NAME, "device");
        msgRegistMainThread(strName.c_str(), onMessage);
        ready.say();
        fnRun();
        for (;;)
            pause();
        return 0;
    }));
    ready.hear();
    m_listTask.emplace_back(strName, m_listProcess.back()->id());
}

void ctlDevice::startSender(const std::string& strName, const std::string& strTo, unsigned int uMsg, int nTimeout) {
    m_listGo.emplace_back(new meeting);
    const std::shared_ptr<meeting> pGo = m_listGo.back();
    start(strName, [=] {
        pGo->hear();
        msgSendMsgToThreadTimeoutEx(msgGetThreadByName(strTo.c_str()), uMsg, 1, 2, 0, NULL, nTimeout);
    });
}

void ctlDevice::go() {
    for (const auto& pGo : m_listGo)
        pGo->say();
    m_listGo.clear();
}

void ctlDevice::killAll() {
    for (const auto& pProcess : m_listProcess)
        pProcess->kill();
    m_listProcess.clear();
}

void ctlDevice::waitUntil(const std::function<bool(const QOR_InspectHelper::shareView&)>& fnHolds) {
    QOR_InspectHelper::deviceImage device;
    do {
        usleep(1000);
        takeImage(device, QOR_InspectHelper::takeOptions());
    } while (!fnHolds(readShare(device.segment(QOR_InspectHelper::segmentShare))));
}

void ctlDevice::waitForEdges(size_t nEdges, size_t nTaken) {
    for (;;) {
        QOR_InspectHelper::deviceImage device;
        takeImage(device, QOR_InspectHelper::takeOptions());
        const auto edges = findEdges(readShare(device.segment(QOR_InspectHelper::segmentShare)), device);
        const auto nHave = std::count_if(edges.begin(), edges.end(), [](const auto& edge) { return edge.bTaken; });
        const bool bNoted = std::all_of(edges.begin(), edges.end(), [](const auto& edge) { return edge.wait.bKnown; });
        if (edges.size() == nEdges && static_cast<size_t>(nHave) == nTaken && bNoted)
            return;
        usleep(1000);
    }
}

std::string ctlDevice::normal(const std::string& strText) const {
    std::string str = std::regex_replace(strText, std::regex("\\b[0-9]+(\\.[0-9] s| min| h)\\b"), "<time>");
    str = std::regex_replace(str, std::regex("Ms\": [0-9]+"), "Ms\": <time>");
    for (const auto& task : m_listTask)
        replaceNumber(str, std::to_string(task.second), "<" + task.first + ">");
    const auto it = std::unique(str.begin(), str.end(), [](char a, char b) { return a == ' ' && b == ' '; });
    str.erase(it, str.end());
    for (size_t i = 0; (i = str.find("\n ", i)) != std::string::npos;)
        str.erase(i + 1, 1);
    return str.substr(!str.empty() && str[0] == ' ' ? 1 : 0);
}

std::string oneLine(std::string strText) {
    std::replace(strText.begin(), strText.end(), '\n', ' ');
    return strText;
}

int ctlDevice::taskOf(const std::string& strName) const {
    for (const auto& task : m_listTask)
        if (task.first == strName)
            return task.second;
    return 0;
}

}  // namespace qorTest
