// UdpSocket: datagrams between the same port of two IPv4 addresses.
#pragma once

#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/model/Bytes.h"
#include "host/model/IpGenAddr.h"

class UdpSocket {
 public:
  UdpSocket(const tessel::IpGenAddr& own, const tessel::IpGenAddr& peer, uint16_t port)
      : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const sockaddr_in here = address(own, port);
    const sockaddr_in there = address(peer, port);
    if (descriptor_ < 0 ||
        bind(descriptor_, reinterpret_cast<const sockaddr*>(&here), sizeof here) != 0 ||
        connect(descriptor_, reinterpret_cast<const sockaddr*>(&there), sizeof there) != 0) {
      throw std::system_error(errno, std::generic_category(), "UDP port " + std::to_string(port));
    }
  }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  ~UdpSocket() { close(descriptor_); }

  int descriptor() const { return descriptor_; }
  /// What cannot be sent is lost, as it may be on its way.
  void send(tessel::BytesView datagram) {
    [[maybe_unused]] const ssize_t sent = ::send(descriptor_, datagram.data(), datagram.size(), 0);
  }
  /// The next datagram; empty when there is none.
  tessel::Bytes receive() {
    tessel::Bytes datagram(2048);
    const ssize_t size = recv(descriptor_, datagram.data(), datagram.size(), 0);
    datagram.resize(size < 0 ? 0 : static_cast<size_t>(size));
    return datagram;
  }

 private:
  static sockaddr_in address(const tessel::IpGenAddr& ip, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(ip.v4Addr());
    return result;
  }

  const int descriptor_;
};
