// The service manager: the protocol of sd_notify, which is one datagram with a line of text, to a local socket.
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

const char* environment(const char* lpszName) {
    const char* const lpsz = getenv(lpszName);
    return lpsz != nullptr ? lpsz : "";
}

// The address of NOTIFY_SOCKET, a path or, after '@', a name without a file; 0 when it is neither.
socklen_t managerAddress(sockaddr_un& address) {
    const char* const lpszSocket = environment("NOTIFY_SOCKET");
    const size_t nLength = strlen(lpszSocket);
    address = {};
    address.sun_family = AF_UNIX;
    if ((*lpszSocket != '/' && *lpszSocket != '@') || nLength >= sizeof(address.sun_path))
        return 0;
    memcpy(address.sun_path, lpszSocket, nLength);
    if (*lpszSocket == '@')
        address.sun_path[0] = 0;
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + nLength);
}

}  // namespace

uint32_t getWatchdogInterval() {
    const char* const lpszProcess = environment("WATCHDOG_PID");
    if (*environment("NOTIFY_SOCKET") == 0 || (*lpszProcess != 0 && atoll(lpszProcess) != getpid()))
        return 0;
    const unsigned long long uMicrosecond = strtoull(environment("WATCHDOG_USEC"), nullptr, 10);
    return uMicrosecond == 0 ? 0 : static_cast<uint32_t>(std::clamp(uMicrosecond / 1000, 1ull, 0x7FFFFFFFull));
}

bool tellManager(const char* lpszState, bool bWait) {
    sockaddr_un address;
    const socklen_t nAddress = managerAddress(address);
    errno = 0;
    if (nAddress == 0)
        return false;
    const QOR_Platform::openFile file(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (file.fd() == -1)
        return false;
    const int nFlags = MSG_NOSIGNAL | (bWait ? 0 : MSG_DONTWAIT);
    return QOR_Platform::retryOnEintr([&] {
               return sendto(file.fd(), lpszState, strlen(lpszState), nFlags,
                             reinterpret_cast<const sockaddr*>(&address), nAddress);
           }) != -1;
}

}  // namespace QOR_MsgQueueHelper
