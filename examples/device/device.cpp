// Posting, asking and broadcasting, with a tally; and printing lines.
#include "device.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

namespace device {

uint32_t uRun = 0;
int nPanelTime = 6000;

namespace {

// All threads of a process count.
struct {
    std::atomic<uint32_t> m_uMessage{0};
    std::atomic<uint32_t> m_uSend{0};
    std::atomic<uint32_t> m_uTimer{0};
    std::atomic<uint32_t> m_uBroadcast{0};
    std::atomic<uint32_t> m_uTimeout{0};
    std::atomic<uint32_t> m_uPacket{0};
} g_count;

}  // namespace

void say(const char* lpszWho, const char* lpszFormat, ...) {
    char szLine[600];
    const int nWho = snprintf(szLine, sizeof(szLine), "%-10s | ", lpszWho);
    va_list args;
    va_start(args, lpszFormat);
    vsnprintf(szLine + nWho, sizeof(szLine) - nWho - 1, lpszFormat, args);
    va_end(args);
    const size_t nLength = strlen(szLine);
    szLine[nLength] = '\n';
    // The demo goes on when nobody reads its output any more.
    if (write(STDOUT_FILENO, szLine, nLength + 1) < 0)
        return;
}

double now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::milli>(time).count();
}

void news::tell(char ch) const {
    // If the launcher is gone, nobody needs it.
    if (write(m_fd, &ch, 1) < 0)
        return;
}

bool post(const char* lpszName, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
          const void* pExtraData) {
    HTHREAD hThread = msgGetThreadByName(lpszName);
    if (!msgPostMsgToThreadEx(hThread, uMsg, wParam, lParam, nExtraSize, pExtraData))
        return false;
    ++g_count.m_uMessage;
    return true;
}

bool ask(const char* lpszName, unsigned int uMsg, unsigned int wParam, int nTimeout, int* pnReply) {
    HTHREAD hThread = msgGetThreadByName(lpszName);
    if (hThread == nullptr)
        return false;
    int bReplied = 0;
    const int nReply = msgSendMsgToThreadRaw(hThread, uMsg, wParam, 0, 0, nullptr, nTimeout, &bReplied);
    if (countSend(bReplied) && pnReply != nullptr)
        *pnReply = nReply;
    return bReplied != 0;
}

bool askData(const char* lpszName, unsigned int uMsg, int nTimeout, void* pData, int nSize) {
    HTHREAD hThread = msgGetThreadByName(lpszName);
    if (hThread == nullptr)
        return false;
    int bReplied = 0, nLength = 0;
    msgSendMsgToThreadReply(hThread, uMsg, 0, 0, 0, nullptr, nTimeout, &bReplied, pData, nSize, &nLength);
    return countSend(bReplied) && nLength == nSize;
}

void broadcast(unsigned int uMsg, unsigned int wParam, int lParam) {
    msgBroadpostThreadMsg(uMsg, wParam, lParam);
    ++g_count.m_uBroadcast;
}

bool countSend(int bReplied) {
    ++g_count.m_uSend;
    g_count.m_uTimeout += bReplied == 0;
    return bReplied != 0;
}

void countTimer() { ++g_count.m_uTimer; }

void countPacket() { ++g_count.m_uPacket; }

tally getTally() {
    return {g_count.m_uMessage,   g_count.m_uSend,    g_count.m_uTimer,
            g_count.m_uBroadcast, g_count.m_uTimeout, g_count.m_uPacket};
}

int reportTally() { return postRecord(nameController, MSG_TALLY, getTally()); }

int runThread(const char* lpszName, msgCallbackEx pCallback, const news& objNews) {
    HTHREAD hThread = msgRegistMainThread(lpszName, pCallback);
    objNews.ready();
    const int nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    return nExit;
}

}  // namespace device
