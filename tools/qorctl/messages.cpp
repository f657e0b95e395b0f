// post, send and wait-for.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <memory>

#include "device.h"
#include "qor/MsgQueueHelper/Message.h"
#include "qor/flat.h"
#include "table.h"

namespace qorctl {

namespace {

struct messageArguments {
    std::string strName;
    std::string strId;
    std::string strW = "0";
    std::string strL = "0";
    std::string strData;
};

// Decimal, or hexadecimal after 0x; negative numbers for what they are in 32 bits.
bool parseNumber(const std::string& strText, uint32_t& u) {
    char* pEnd = nullptr;
    errno = 0;
    const long long n = strtoll(strText.c_str(), &pEnd, strText.find_first_of("xX") != std::string::npos ? 16 : 10);
    u = static_cast<uint32_t>(n);
    return errno == 0 && !strText.empty() && *pEnd == 0 && n >= INT32_MIN && n <= static_cast<long long>(UINT32_MAX);
}

std::string checkNumber(const std::string& strText) {
    uint32_t u = 0;
    return parseNumber(strText, u) ? std::string() : "\"" + strText + "\" is no number of 32 bits";
}

uint32_t numberOf(const std::string& strText) {
    uint32_t u = 0;
    parseNumber(strText, u);
    return u;
}

// One byte more than fits shows that there are too many.
bool readData(FILE* pFile, std::vector<uint8_t>& bytes) {
    bytes.resize(QOR_MsgQueueHelper::maxExtraSize + 1);
    bytes.resize(fread(bytes.data(), 1, bytes.size(), pFile));
    return ferror(pFile) == 0;
}

bool parseHex(const std::string& strText, std::vector<uint8_t>& bytes) {
    if (strText.size() % 2 != 0 || strText.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    for (size_t i = 0; i < strText.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(strtoul(strText.substr(i, 2).c_str(), nullptr, 16)));
    return true;
}

// The extra data that -d means.
bool findData(program& prog, const std::string& strData, std::vector<uint8_t>& bytes) {
    if (strData == "-") {
        if (!readData(stdin, bytes))
            return prog.fail(exitNotFound, std::string("standard input: ") + strerror(errno)), false;
    } else if (!strData.empty() && strData[0] == '@') {
        const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(strData.c_str() + 1, "rbe"), fclose);
        if (file == nullptr || !readData(file.get(), bytes))
            return prog.fail(exitNotFound, strData.substr(1) + ": " + strerror(errno)), false;
    } else if (!parseHex(strData, bytes)) {
        return prog.fail(exitUsage, "\"" + strData + "\" is not pairs of hexadecimal digits, @FILE or -"), false;
    }
    if (bytes.size() > static_cast<size_t>(QOR_MsgQueueHelper::maxExtraSize))
        return prog.fail(exitUsage, "a message carries at most 1024 bytes"), false;
    return true;
}

// Looked up by reading first: a device on which nothing has run gets no segments from being asked.
HTHREAD findThread(program& prog, const std::string& strName) {
    device dev;
    if (!dev.open(prog, segmentShare))
        return NULL;
    const HTHREAD hThread = dev.findQueue(strName) != nullptr ? msgGetThreadByName(strName.c_str()) : NULL;
    if (hThread == NULL)
        prog.fail(exitNotFound, "there is no living thread \"" + strName + "\"");
    return hThread;
}

void runPost(program& prog, const messageArguments& arguments) {
    std::vector<uint8_t> bytes;
    if (!prog.isLive() || !findData(prog, arguments.strData, bytes))
        return;
    const HTHREAD hThread = findThread(prog, arguments.strName);
    if (hThread == NULL)
        return;
    if (!msgPostMsgToThreadEx(hThread, numberOf(arguments.strId), numberOf(arguments.strW),
                              static_cast<int>(numberOf(arguments.strL)), static_cast<int>(bytes.size()),
                              bytes.empty() ? NULL : bytes.data()))
        prog.fail(exitNotFound, "the message was not posted: the thread has ended, or the id is never posted");
}

void runSend(program& prog, const messageArguments& arguments) {
    std::vector<uint8_t> bytes;
    if (!prog.isLive() || !findData(prog, arguments.strData, bytes))
        return;
    const HTHREAD hThread = findThread(prog, arguments.strName);
    if (hThread == NULL)
        return;
    int bReplied = 0;
    const int nAnswer = msgSendMsgToThreadRaw(
        hThread, numberOf(arguments.strId), numberOf(arguments.strW), static_cast<int>(numberOf(arguments.strL)),
        static_cast<int>(bytes.size()), bytes.empty() ? NULL : bytes.data(), prog.nTimeoutMs, &bReplied);
    if (bReplied == 0) {
        if (msgGetThreadByName(arguments.strName.c_str()) == NULL)
            prog.fail(exitNotFound, "the thread has ended without an answer");
        else
            prog.fail(exitTimeout, "no answer in time");
    } else if (prog.bJson) {
        printJson({{"result", nAnswer}});
    } else {
        put(std::to_string(nAnswer) + "\n");
    }
}

// ---- wait-for

// The first name that no living thread has; empty when all are there.
std::string firstMissing(const std::vector<std::string>& names) {
    deviceImage image;
    takeImage(image, takeOptions());
    const shareView share = readShare(image.segment(segmentShare));
    for (const std::string& strName : names) {
        bool bThere = false;
        for (const queueView& queue : share.queues)
            bThere |= queue.strName == strName && image.isAlive(queue.idTask);
        if (!bThere)
            return strName;
    }
    return std::string();
}

void runWaitFor(program& prog, const std::vector<std::string>& names) {
    if (!prog.isLive())
        return;
    typedef std::chrono::steady_clock clock;
    const clock::time_point end = clock::now() + std::chrono::milliseconds(prog.nTimeoutMs);
    for (;;) {
        const std::string strMissing = firstMissing(names);
        if (strMissing.empty())
            return;
        if (prog.nTimeoutMs >= 0 && clock::now() >= end) {
            prog.fail(exitTimeout, "there is no thread \"" + strMissing + "\"");
            return;
        }
        pauseFor(20);
    }
}

void addMessageOptions(CLI::App* pCommand, messageArguments& arguments) {
    pCommand->add_option("NAME", arguments.strName, "The thread that gets it")->required();
    pCommand->add_option("ID", arguments.strId, "The message's id, decimal or 0x...")->required()->check(checkNumber);
    pCommand->add_option("W", arguments.strW, "The first parameter (0)")->check(checkNumber);
    pCommand->add_option("L", arguments.strL, "The second parameter (0)")->check(checkNumber);
    pCommand
        ->add_option("-d,--data", arguments.strData, "Extra data: hexadecimal digits, @FILE, or - for standard input")
        ->type_name("DATA");
}

}  // namespace

void addMessageCommands(CLI::App& app, program& prog) {
    static messageArguments s_arguments;
    static std::vector<std::string> s_names;
    CLI::App* pPost = addCommand(app, "post", "Post a message to a thread",
                                 "  qorctl post sampler 0x100 20\n  qorctl post panel 0x101 -d 68656c6c6f");
    addMessageOptions(pPost, s_arguments);
    pPost->callback([&prog] { runPost(prog, s_arguments); });
    CLI::App* pSend = addCommand(app, "send", "Send a message to a thread and print the answer",
                                 "  qorctl send sampler 0x100 20 -t 1000\n  echo hello | qorctl send panel 0x101 -d -");
    addMessageOptions(pSend, s_arguments);
    pSend->callback([&prog] { runSend(prog, s_arguments); });
    CLI::App* pWait = addCommand(app, "wait-for", "Wait until threads are registered",
                                 "  qorctl wait-for sampler panel -t 5000 || exit 1");
    pWait->add_option("NAME", s_names, "Threads")->required()->check([](const std::string& strName) {
        return strName.empty() ? std::string("a thread has a name") : std::string();
    });
    pWait->callback([&prog] { runWaitFor(prog, s_names); });
}

}  // namespace qorctl
