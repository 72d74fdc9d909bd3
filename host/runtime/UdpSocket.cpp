#include "host/runtime/UdpSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tessel {
namespace {

constexpr size_t kLongestDatagram = 65535;

/// An address and a port as the system takes them.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_storage);

  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

SocketAddress socketAddress(const IpGenAddr& ip, uint16_t port) {
  SocketAddress result;
  if (ip.family() == AddressFamily::ipv4) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(ip.v4Addr());
    std::memcpy(&result.storage, &v4, sizeof v4);
    result.size = sizeof v4;
  } else {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    std::ranges::copy(ip.v6Addr(), v6.sin6_addr.s6_addr);
    std::memcpy(&result.storage, &v6, sizeof v6);
    result.size = sizeof v6;
  }
  return result;
}

/// "UDP 192.0.2.1 port 4500".
std::string nameOf(const IpGenAddr& ip, uint16_t port) {
  return "UDP " + ip.stringValue() + " port " + std::to_string(port);
}

/// Puts the error of the last call into words.
std::system_error systemError(const IpGenAddr& ip, uint16_t port) {
  const int error = errno;  // Before making the text changes it.
  return {error, std::generic_category(), nameOf(ip, port)};
}

int openSocket(const IpGenAddr& own, uint16_t port) {
  if (own.family() == AddressFamily::none) {
    throw std::invalid_argument(nameOf(own, port) + ": has no address family");
  }
  const int family = own.family() == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  const int descriptor = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    throw systemError(own, port);
  }
  return descriptor;
}

/// Binds the socket; returns the port that it got, or nothing when the system refuses.
std::optional<uint16_t> bound(int descriptor, const IpGenAddr& own, uint16_t port) {
  const int only = 1;  // An IPv6 socket leaves the IPv4 addresses to others.
  if (own.family() == AddressFamily::ipv6 &&
      setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only) != 0) {
    return std::nullopt;
  }
  SocketAddress here = socketAddress(own, port);
  if (bind(descriptor, here.get(), here.size) != 0 ||
      getsockname(descriptor, here.get(), &here.size) != 0) {
    return std::nullopt;
  }
  // Both kinds of addresses have the port in the same place.
  sockaddr_in6 v6{};
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  std::memcpy(&v6, &here.storage, sizeof v6);
  return ntohs(v6.sin6_port);
}

/// Once more when the first attempt only learns that an earlier datagram was refused (RFC 1122,
/// 4.1.3.3): that one is lost, this one need not be.
template <class Attempt>
ssize_t attempted(Attempt attempt) {
  const ssize_t size = attempt();
  return size < 0 && errno == ECONNREFUSED ? attempt() : size;
}

}  // namespace

UdpSocket::UdpSocket(const IpGenAddr& own, uint16_t port)
    : own_(own), descriptor_(openSocket(own, port)), buffer_(kLongestDatagram) {
  const std::optional<uint16_t> got = bound(descriptor_, own, port);
  if (!got) {
    const std::system_error error = systemError(own, port);
    close(descriptor_);
    throw error;
  }
  port_ = *got;
}

UdpSocket::~UdpSocket() {
  close(descriptor_);
}

void UdpSocket::peerIs(const IpGenAddr& peer, uint16_t port) {
  if (peer.family() != own_.family()) {
    throw std::invalid_argument(nameOf(peer, port) + ": is of another address family than " +
                                own_.stringValue());
  }
  SocketAddress there = socketAddress(peer, port);
  if (connect(descriptor_, there.get(), there.size) != 0) {
    throw systemError(peer, port);
  }
  while (receive()) {
    // Others may have sent it.
  }
}

bool UdpSocket::send(BytesView datagram) {
  return attempted([&] { return ::send(descriptor_, datagram.data(), datagram.size(), 0); }) >= 0;
}

std::optional<std::span<uint8_t>> UdpSocket::receive() {
  const ssize_t size =
      attempted([this] { return recv(descriptor_, buffer_.data(), buffer_.size(), 0); });
  if (size < 0) {
    return std::nullopt;
  }
  return std::span(buffer_).first(static_cast<size_t>(size));
}

}  // namespace tessel
