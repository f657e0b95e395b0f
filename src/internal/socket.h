// What the socket classes need of the platform besides the exported sock* functions, and how they wait.
#ifndef QOR_INTERNAL_SOCKET_H
#define QOR_INTERNAL_SOCKET_H

#include <vector>

#include "qor/BaseHelper/Tick.h"
#include "qor/SocketHelper/Address.h"

namespace QOR_SocketHelper {

// The address of a text of four numbers; INADDR_NONE for any other text.
in_addr parseAddress(const char* lpszIPv4);
// The text of an address: four numbers with dots.
QOR_StringHelper::chReferenceStringT<char> dottedText(const in_addr& addr);
// A descriptor that is closed on exec, or -1.
int openSocket(int nDomain, int nType, int nProtocol);
BOOL bindSocket(int hSocket, const chSocketAddr& addr);
BOOL reuseAddress(int hSocket);
// The port that a socket is bound to, or 0.
int boundPort(int hSocket);
// Sends the first piece, which may be empty, and the second one with one call. The bytes sent, -1 on error.
int sendPieces(int hSocket, const void* pHead, int nHead, const void* pBody, int nBody);
// Ends a connection in both directions at once. The descriptor stays open.
void endBothDirections(int hSocket);
// Accepts a connection that waits; its descriptor does not block and is closed on exec. -1 on error.
int acceptWaiting(int hListen, chSocketAddr& addr);

// A descriptor that waitForSockets() waits for: what for, and what was found.
struct watchedSocket {
    int hSocket;
    bool bRead;
    bool bWrite;
    bool bReadable;  // there is input, or the connection has ended or failed
    bool bWritable;
};
// Waits with poll(), which takes any descriptor. The number of those that are ready, 0 on time-out, -1 on error, also
// when a signal interrupts.
int waitForSockets(std::vector<watchedSocket>& listWatched, int nTimeout);

// Whether the last call failed only because it would have had to wait.
bool wouldBlock();
// Whether the last accept failed because of the one connection that it took, not because of the socket.
bool isPeerGone();

// A time-out that several waits share. The time counts from the first wait: input that has arrived costs no reading of
// the clock, which takes the lock of the named blocks.
class waitLimit {
public:
    // A descriptor set has no room for a descriptor above 1023; a wait for any descriptor uses poll(). It belongs to
    // an operation whose result tells what happened: a peer that is not trusted cannot fill a log with warnings.
    enum waitKind { smallDescriptor, anyDescriptor };

    explicit waitLimit(int nTimeout, waitKind eKind = smallDescriptor)
        : m_nTimeout(nTimeout < -1 ? 0 : nTimeout), m_eKind(eKind), m_timeout(-1) {}

    int leftMillisecond() {
        if (m_nTimeout <= 0)
            return m_nTimeout;
        if (m_bStarted)
            return m_timeout.GetLeftMillisecond();
        m_timeout.setTimeout(m_nTimeout);
        m_bStarted = true;
        return m_nTimeout;
    }

    // Whether a wait with a time-out has begun.
    bool isStarted() const { return m_bStarted; }

    bool isForAnyDescriptor() const { return m_eKind == anyDescriptor; }

private:
    int m_nTimeout;
    waitKind m_eKind;
    bool m_bStarted = false;
    QOR_BaseHelper::chTimeout m_timeout;
};

// An address to bind: as CreateSocketAddr(), but port 0 is valid.
BOOL makeAddressToBind(chSocketAddr& addr, const char* lpszIPv4, int nPort);
// Warns with the text of the last error in place of the format's "%s"; the error stays the last one.
void warnLastError(const char* lpszFormat) __attribute__((format(printf, 1, 0)));

// Wait, also when signals interrupt, and return what select() does: 1, 0 on time-out, -1 on error.
int waitReadable(int hSocket, waitLimit& limit);
int waitWritable(int hSocket, waitLimit& limit);

}  // namespace QOR_SocketHelper

#endif
