// Datagrams between sockets of this machine: there and back through the loop, in whole, from the
// peer alone, and what the system refuses.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/runtime/PollClock.h"
#include "host/runtime/UdpSocket.h"

namespace tessel {
namespace {

class UdpSocketTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    try {
      UdpSocket(loopback_, 0);
    } catch (const std::system_error& error) {
      const int code = error.code().value();
      if (code != EADDRNOTAVAIL && code != EAFNOSUPPORT) {
        throw;
      }
      GTEST_SKIP() << error.what();  // A machine without IPv6.
    }
  }

  /// Waits until `socket` can be read, and reads it.
  std::optional<Bytes> next(UdpSocket& socket) {
    std::optional<Bytes> got;
    clock_.readableIs(socket.descriptor(), [&] {
      if (const auto datagram = socket.receive()) {
        got.emplace(datagram->begin(), datagram->end());
      }
      time_->stop();
    });
    time_->run();
    clock_.readableDel(socket.descriptor());
    return got;
  }

  const IpGenAddr loopback_ = IpGenAddr::parse(GetParam()).value();
  std::unique_ptr<PollClock> owned_ = std::make_unique<PollClock>();
  PollClock& clock_ = *owned_;
  const Ptr<RealTime> time_ = makePtr<RealTime>(std::move(owned_));
};

INSTANTIATE_TEST_SUITE_P(Loopback, UdpSocketTest, testing::Values("127.0.0.1", "::1"),
                         [](const auto& each) { return each.index == 0 ? "Ipv4" : "Ipv6"; });

TEST_P(UdpSocketTest, CarriesWholeDatagramsBothWays) {
  UdpSocket east(loopback_, 0);
  UdpSocket west(loopback_, 0);
  ASSERT_NE(east.port(), 0);
  ASSERT_NE(east.port(), west.port());
  east.peerIs(loopback_, west.port());
  west.peerIs(loopback_, east.port());
  EXPECT_FALSE(east.receive()) << "nothing was sent, and nobody waits";
  const Bytes longest(loopback_.family() == AddressFamily::ipv4 ? 65507 : 65527, 0x5A);
  for (const Bytes& datagram : {Bytes{1, 2, 3}, Bytes(), longest}) {
    ASSERT_TRUE(east.send(datagram));
    EXPECT_EQ(next(west), datagram);
    ASSERT_TRUE(west.send(datagram));
    EXPECT_EQ(next(east), datagram);
  }
  EXPECT_FALSE(east.send(Bytes(longest.size() + 1)));
  EXPECT_FALSE(west.receive());
}

TEST_P(UdpSocketTest, HearsItsPeerAlone) {
  UdpSocket socket(loopback_, 0);
  UdpSocket peer(loopback_, 0);
  UdpSocket stranger(loopback_, 0);
  EXPECT_FALSE(socket.send(Bytes{1})) << "it has no peer";
  peer.peerIs(loopback_, socket.port());
  stranger.peerIs(loopback_, socket.port());
  ASSERT_TRUE(stranger.send(Bytes{1}));  // It is there before the peer is known.
  socket.peerIs(loopback_, peer.port());
  stranger.send(Bytes{2});
  ASSERT_TRUE(peer.send(Bytes{3}));
  EXPECT_EQ(next(socket), Bytes{3});
  EXPECT_FALSE(socket.receive());
}

TEST_P(UdpSocketTest, ARefusedDatagramTakesNoOtherWithIt) {
  UdpSocket east(loopback_, 0);
  UdpSocket west(loopback_, 0);
  const UdpSocket other(loopback_, 0);
  east.peerIs(loopback_, west.port());
  west.peerIs(loopback_, other.port());
  ASSERT_TRUE(east.send(Bytes{1}));  // Refused by the other end, as the next call learns.
  west.peerIs(loopback_, east.port());
  ASSERT_TRUE(east.send(Bytes{2}));
  EXPECT_EQ(next(west), Bytes{2});
  ASSERT_TRUE(west.send(Bytes{3}));
  EXPECT_EQ(next(east), Bytes{3});
  EXPECT_FALSE(west.receive());
}

TEST_P(UdpSocketTest, RefusalsNameAddressAndPort) {
  const UdpSocket holder(loopback_, 0);
  const std::string name =
      "UDP " + loopback_.stringValue() + " port " + std::to_string(holder.port());
  EXPECT_THAT([&] { UdpSocket(loopback_, holder.port()); },
              testing::Throws<std::system_error>(testing::AllOf(
                  testing::Property(&std::system_error::what, testing::HasSubstr(name)),
                  testing::Property(&std::system_error::code,
                                    std::error_code(EADDRINUSE, std::generic_category())))));
  EXPECT_THROW(UdpSocket(IpGenAddr(), 4500), std::invalid_argument);
  const IpGenAddr other = IpGenAddr(
      loopback_.family() == AddressFamily::ipv4 ? AddressFamily::ipv6 : AddressFamily::ipv4);
  UdpSocket socket(loopback_, 0);
  EXPECT_THROW(socket.peerIs(other, 4500), std::invalid_argument);
}

}  // namespace
}  // namespace tessel
