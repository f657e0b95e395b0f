/// @file
/// IPv4 addresses with a port.
///
/// @code
/// QOR_SocketHelper::chSocketAddr addr;
/// if (addr.CreateSocketAddr("10.0.0.1:80"))
///     show(addr.GetIPv4(FALSE), addr.GetPort());
/// @endcode
///
/// Read on in Socket.h.
#ifndef QOR_SOCKETHELPER_ADDRESS_H
#define QOR_SOCKETHELPER_ADDRESS_H

#include <netinet/in.h>

#include "qor/StringHelper.h"
#include "qor/Types.h"

/// IPv4 sockets.
namespace QOR_SocketHelper {

/// An address and a port, in the form that the system takes. A plain value.
class QOR_API chSocketAddr : public sockaddr_in {
public:
    /// Address 0.0.0.0, port 0.
    chSocketAddr();
    /// See CreateSocketAddr().
    chSocketAddr(in_addr addr, int nPort);
    /// See CreateSocketAddr().
    chSocketAddr(const char* lpszIPv4, int nPort);
    /// See CreateSocketAddr().
    explicit chSocketAddr(const char* lpszText);

    /// Stores both; the address is in network order.
    /// @return 1, or 0 when the address is 255.255.255.255 or the port not 1 to 65535.
    BOOL CreateSocketAddr(in_addr addr, int nPort);
    /// Stores the address of a dotted text, and the port. A text that is no address stores 255.255.255.255.
    /// @return as above. Fatal: null.
    BOOL CreateSocketAddr(const char* lpszIPv4, int nPort);
    /// Stores address and port of a text such as 10.0.0.1:80, 10.0.0.1@80 or 10.0.0.1#80; what follows the port's
    /// digits is not looked at.
    /// @return as above; 0 also without a separator, and then 0.0.0.0 and port 0 are stored.
    BOOL CreateSocketAddr(const char* lpszText);

    /// The dotted address; with bWithPort as "10.0.0.1:80".
    QOR_StringHelper::chReferenceStringT<char> GetIPv4(BOOL bWithPort) const;
    /// The port.
    int GetPort() const;
    /// Whether family, port and address are the same.
    bool operator==(const chSocketAddr& addr) const;
    /// Whether one of them differs.
    bool operator!=(const chSocketAddr& addr) const { return !(*this == addr); }
};

static_assert(sizeof(chSocketAddr) == 16, "the system takes it as it is");

/// Whether a text begins with four numbers of 0 to 255 with dots between them, and holds only digits and dots.
/// Fatal: null.
QOR_API BOOL sockIsValidIPv4(const char* lpszIPv4);

}  // namespace QOR_SocketHelper

#endif
