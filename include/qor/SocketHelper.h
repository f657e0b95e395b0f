/// @file
/// IPv4 sockets: addresses, datagrams, connections with an input buffer, length-framed packets.
///
/// @code
/// using namespace QOR_SocketHelper;
/// chSocketPacketTCP socket;
/// QOR_ArrayHelper::chObjArray<unsigned char, false, 256> arrAnswer;
/// if (socket.CreateSocket() && socket.ConnectTo("10.0.0.1", 8000, 3000) && socket.SendOnePacket("status", 6) &&
///     socket.ReceiveOnePacket(arrAnswer, 1000)) {
///     // the answer's bytes are in arrAnswer
/// }
/// @endcode
///
/// Connections are never blocking: an operation waits for as long as its time-out says, in milliseconds, where -1 is
/// without limit, and a smaller number is as 0. Sending has no time-out, except TrySendOnePacket(): it waits until the
/// peer takes the bytes or the connection is lost. A signal does not end a wait. Descriptors are closed on exec. Waits
/// go through a descriptor set: a socket whose descriptor is beyond 1023 is a fatal assertion, except for the functions
/// that say otherwise. Nothing raises SIGPIPE.
///
/// Peers that are not trusted are served by chSocketPacketServer (PacketServer.h), or by the functions of Tcp.h that
/// return a packetResult.
///
/// A socket object belongs to one thread; nothing here locks.
#ifndef QOR_SOCKETHELPER_H
#define QOR_SOCKETHELPER_H

#include "qor/SocketHelper/Address.h"
#include "qor/SocketHelper/PacketServer.h"
#include "qor/SocketHelper/Socket.h"
#include "qor/SocketHelper/System.h"
#include "qor/SocketHelper/Tcp.h"

#endif
