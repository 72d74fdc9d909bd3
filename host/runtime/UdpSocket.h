// UdpSocket: datagrams to and from one address, without waiting. For a loop such as `PollClock`'s.
//
//   UdpSocket socket(own, 4500);
//   socket.peerIs(peer, 4500);
//   clock.readableIs(socket.descriptor(), [&] { take(socket.receive()); });
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/IpGenAddr.h"

namespace tessel {

/// A UDP socket (RFC 768) over IPv4 or IPv6, as its address is. Ports are in host byte order. ESP
/// in UDP (RFC 3948) travels over one as it stands. Not safe for use from several threads at once.
class TESSEL_API UdpSocket {
 public:
  /// Bound to an address of this machine, the all-zero address of a family for any, and to a port,
  /// 0 for a free one. Throws std::invalid_argument for an address without a family, and
  /// std::system_error, which names address and port, when the system refuses.
  UdpSocket(const IpGenAddr& own, uint16_t port);
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  /// From now on it sends there, and receives from there alone; in place of an earlier peer. What
  /// has come until then is dropped. Throws std::invalid_argument for an address of another family,
  /// and std::system_error, which names address and port, when the system refuses.
  void peerIs(const IpGenAddr& peer, uint16_t port);

  /// The port that it is bound to.
  uint16_t port() const { return port_; }
  /// For `PollClock::readableIs`; stays the socket's.
  int descriptor() const { return descriptor_; }

  /// Sends a datagram of at most 65507 bytes (IPv6: 65527). False when the system did not take it:
  /// it is too long, there is no peer or no way to it, or the queue is full. One that was taken can
  /// be lost on its way all the same.
  bool send(BytesView datagram);

  /// The next datagram, whole, in a buffer of the socket's: valid, and to be changed at will, until
  /// the next call. It may be empty. Nothing when there is none.
  std::optional<std::span<uint8_t>> receive();

 private:
  const IpGenAddr own_;
  const int descriptor_;
  uint16_t port_ = 0;  // Host byte order.
  Bytes buffer_;
};

}  // namespace tessel
