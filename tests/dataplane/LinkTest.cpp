// Links: what arrives when, what is lost and why, address translation.
#include <algorithm>

#include "lab/net/Link.h"
#include "tests/crypto/Vectors.h"
#include "tests/dataplane/TestSas.h"

namespace tessel::lab {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;

class LinkTest : public ::testing::Test {
 protected:
  LinkTest() {
    link_.attach(LinkEnd::a, a_, [this](Bytes packet) { toA_.push_back(std::move(packet)); });
    link_.attach(LinkEnd::b, b_, [this](Bytes packet) { toB_.push_back(std::move(packet)); });
  }
  void run(double span) { time_->runFor(Duration(span)); }

  Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  Ptr<VirtualTimeScheduler> a_ = makePtr<VirtualTimeScheduler>(time_, "a");
  Ptr<VirtualTimeScheduler> b_ = makePtr<VirtualTimeScheduler>(time_, "b");
  Link link_{{.latency = Duration(0.5)}, 7};
  std::vector<Bytes> toA_;
  std::vector<Bytes> toB_;
};

TEST_F(LinkTest, DelaysCutsAndCounts) {
  link_.send(LinkEnd::a, {1});
  run(0.4);
  EXPECT_THAT(toB_, IsEmpty());
  EXPECT_EQ(link_.counts(LinkEnd::a).inFlight, 1U);
  link_.cutIs(LinkEnd::a, true);  // One way: b still reaches a.
  link_.send(LinkEnd::a, {2});
  link_.send(LinkEnd::b, {3});
  run(0.1);
  EXPECT_THAT(toB_, ElementsAre(Bytes{1})) << "a cut takes nothing that is under way";
  run(0.4);
  EXPECT_THAT(toA_, ElementsAre(Bytes{3}));
  link_.cutIs(true);
  link_.send(LinkEnd::b, {4});
  link_.cutIs(false);
  link_.detach(LinkEnd::b);
  link_.send(LinkEnd::a, {5});
  run(1);
  EXPECT_EQ(toB_.size() + toA_.size(), 2U);
  const LinkCounts fromA = {.sent = 3, .delivered = 1, .lostBy = {0, 0, 1, 1}};
  const LinkCounts fromB = {.sent = 2, .delivered = 1, .lostBy = {0, 0, 1, 0}};
  EXPECT_TRUE(link_.counts(LinkEnd::a) == fromA);
  EXPECT_TRUE(link_.counts(LinkEnd::b) == fromB);
}

TEST_F(LinkTest, OutlivesNeitherItsReceiverNorItsPackets) {
  link_.send(LinkEnd::a, {1});
  // The receiver's agent restarts with another scheduler; what is under way reaches it.
  const auto restarted = makePtr<VirtualTimeScheduler>(time_, "b again");
  b_ = nullptr;
  link_.attach(LinkEnd::b, restarted, [this](Bytes) { link_.detach(LinkEnd::b); });
  {
    Link brief({}, 1);
    brief.attach(LinkEnd::b, restarted, [](const Bytes&) { FAIL() << "its link is gone"; });
    brief.send(LinkEnd::a, {9});
  }
  run(1);
  EXPECT_EQ(link_.counts(LinkEnd::a).delivered, 1U);
}

TEST_F(LinkTest, JitterKeepsTheOrderAndReorderingDoesNot) {
  const auto arriveInOrder = [this](const LinkSettings& settings) {
    toB_.clear();
    link_.settingsIs(settings);
    for (uint8_t i = 0; i < 200; ++i) {
      link_.send(LinkEnd::a, {i});
      run(0.001);
    }
    run(5);
    EXPECT_EQ(toB_.size(), 200U);
    return std::ranges::is_sorted(toB_, {}, [](const Bytes& packet) { return packet[0]; });
  };
  EXPECT_TRUE(arriveInOrder({.jitter = Duration(0.1)}));
  EXPECT_FALSE(arriveInOrder({.reorderRate = 0.1, .reorderDelay = Duration(0.1)}));
}

// Each kind of fault at a rate of 0.2: it happens about that often, alone, and is counted.
TEST_F(LinkTest, FaultsHappenAtTheirRates) {
  constexpr size_t kPackets = 5000;
  using Count = uint64_t (*)(const LinkCounts&);
  const std::tuple<const char*, LinkSettings, Count> rows[] = {
      {"loss", {.lossRate = 0.2}, [](const LinkCounts& c) { return c.lost(LinkLoss::loss); }},
      {"burst",  // Of 4 packets on average, between them 16.
       {.burstStartRate = 0.0625, .burstEndRate = 0.25},
       [](const LinkCounts& c) { return c.lost(LinkLoss::burst); }},
      {"reorder", {.reorderRate = 0.2}, [](const LinkCounts& c) { return c.reordered; }},
      {"duplicate", {.duplicateRate = 0.2}, [](const LinkCounts& c) { return c.duplicated; }},
      {"flip", {.bitFlipRate = 0.2}, [](const LinkCounts& c) { return c.altered; }},
      {"replay", {.replayRate = 0.2}, [](const LinkCounts& c) { return c.replayed; }}};
  for (const auto& [name, settings, count] : rows) {
    SCOPED_TRACE(name);
    Link link(settings, 3);
    size_t altered = 0;
    link.attach(LinkEnd::b, b_,
                [&](const Bytes& packet) { altered += packet[0] != packet[1] ? 1 : 0; });
    for (size_t i = 0; i < kPackets; ++i) {
      link.send(LinkEnd::a, Bytes(2, static_cast<uint8_t>(i)));
    }
    run(10);
    const LinkCounts& counts = link.counts(LinkEnd::a);
    EXPECT_THAT(static_cast<double>(count(counts)) / kPackets, AllOf(Ge(0.17), Le(0.23)));
    EXPECT_EQ(counts.delivered + counts.lost(), kPackets + counts.duplicated + counts.replayed);
    EXPECT_EQ(altered, counts.altered) << "each has one bit inverted, seen as such";
    EXPECT_EQ(
        counts.lost() + counts.duplicated + counts.replayed + counts.altered + counts.reordered,
        count(counts))
        << "no other fault";
  }
}

TEST_F(LinkTest, TranslatorsChangeAddressesAndKeepChecksumsRight) {
  const std::array<IpGenAddr, 3> rows[] = {
      {address("10.0.0.5"), address("203.0.113.9"), address("198.51.100.1")},
      {address("fd00::5"), address("2001:db8:ffff::9"), address("2001:db8::1")}};
  for (const auto& [own, outside, far] : rows) {
    SCOPED_TRACE(own.stringValue());
    toA_.clear();
    toB_.clear();
    link_.translationIs(LinkEnd::a, Link::Translation{own, outside});
    link_.send(LinkEnd::a, innerPacketBytes({.ends = {own, far, 4501, 4601}, .sequence = 1}));
    link_.send(LinkEnd::b, innerPacketBytes({.ends = {far, outside, 4601, 4501}, .sequence = 2}));
    link_.send(LinkEnd::b, innerPacketBytes({.ends = {far, far, 4601, 4501}, .sequence = 3}));
    run(1);
    ASSERT_EQ(toB_.size() + toA_.size(), 3U);
    // Reading verifies the checksums.
    const auto out = readInnerPacket(toB_[0]);
    const auto in = readInnerPacket(toA_[0]);
    const auto foreign = readInnerPacket(toA_[1]);
    ASSERT_TRUE(out && in && foreign);
    EXPECT_EQ(out->ends, (UdpEnds{outside, far, 4501, 4601}));
    EXPECT_EQ(in->ends, (UdpEnds{far, own, 4601, 4501}));
    EXPECT_EQ(foreign->ends.dst, far) << "not its public address: left alone";
  }
}

TEST(UdpPacket, ReadsWholePacketsOnly) {
  // Both checksums worked out by hand.
  const Bytes known =
      tessel::test::fromHex("4500002200004000401126c70a0100010a02000103e807d0000e92d074657373656c");
  const UdpEnds ends = {address("10.1.0.1"), address("10.2.0.1"), 1000, 2000};
  Bytes written = known;
  std::fill_n(written.begin(), 28, uint8_t{0xEE});
  writeUdpHeaders(written, ends, UdpChecksum::computed);
  EXPECT_EQ(written, known);
  EXPECT_EQ(readUdpPacket(known).value().ends, ends);
  written.push_back(0);
  EXPECT_FALSE(readUdpPacket(written));
  for (size_t i = 0; i < known.size() * 8; ++i) {  // Every bit is under one of the checksums.
    Bytes altered = known;
    altered[i / 8] ^= static_cast<uint8_t>(1U << (i % 8));
    EXPECT_FALSE(readUdpPacket(altered)) << "bit " << i;
  }
  Bytes ipv6(52);
  for (uint32_t port = 0; port <= 0xFFFF; ++port) {  // One of the checksums comes out as 0.
    const UdpEnds each = {address("::1"), address("::2"), static_cast<uint16_t>(port), 2};
    writeUdpHeaders(ipv6, each, UdpChecksum::none);
    ASSERT_TRUE(readUdpPacket(ipv6)) << "port " << port;
  }
  EXPECT_THROW(writeUdpHeaders(written, {ends.src, address("::1"), 1, 2}, UdpChecksum::none),
               std::invalid_argument);
  Bytes huge(0x10000);
  EXPECT_THROW(writeUdpHeaders(huge, ends, UdpChecksum::none), std::invalid_argument);
}

}  // namespace
}  // namespace tessel::lab
