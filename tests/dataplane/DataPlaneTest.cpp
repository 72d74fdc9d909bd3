// The data plane's rules, with SAs handed over by hand: when an SA carries packets, which one
// sends, what is found, counted, continued, reported.
#include <bit>
#include <set>

#include "host/agent/Esp.h"
#include "lab/net/Link.h"
#include "tests/dataplane/TestSas.h"

namespace tessel::lab {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

const TestPath kEastPath = {address("203.0.113.1"), address("203.0.113.2"), 4501, 4601};
const TestPath kWestPath = {address("203.0.113.2"), address("203.0.113.1"), 4601, 4501};
const TestSuite kNullSuite = {"cipher_null", 0, 0, "md5", 128, 0};

/// Writes down what a data plane tells, one line per event.
class EventLog final : public DataPlaneObserver {
 public:
  void handleSaHandedOver(const SaReport& sa) override { add("handed over", sa); }
  void handleSaInstalled(const SaReport& sa) override { add("installed", sa); }
  void handleSaNotInstalled(const SaReport& sa) override { add(sa.refusal, sa); }
  void handleSaRemoved(const SaReport& sa) override { add("removed", sa); }
  void handleNonceSent(const SaReport& sa, uint32_t word) override {
    add(spiText(word) + " sent", sa);
  }
  void handleNonceReceived(const SaReport& sa, uint32_t word) override {
    add(spiText(word) + " received", sa);
  }
  void handleHardLimit(const HardLimitFinding& finding) override {
    lines.push_back(std::string("limit of ") + hardLimitName(finding.limit) + " " +
                    std::to_string(finding.allowed) + " at " + stringValue(finding.at));
  }

  std::vector<std::string> take() { return std::exchange(lines, {}); }

  std::vector<std::string> lines;

 private:
  void add(const std::string& what, const SaReport& sa) {
    lines.push_back(what + " " + std::to_string(sa.key.spi));
  }
};

class DataPlaneTest : public testing::Test {
 protected:
  DataPlaneTest() {
    east_.plane->observerAdd(eastLog_);
    west_.plane->observerAdd(westLog_);
  }
  void run(double span) { time_->runFor(Duration(span)); }
  /// A pair of SAs from east to west, installed at both ends.
  void connect(uint32_t spi, const TestSuite& suite = {}, uint8_t keyVariant = 1) {
    west_.handOver(kWestPath, SaType::steadyIn, spi, suite, keyVariant);
    east_.handOver(kEastPath, SaType::steadyOut, spi, suite, keyVariant);
    run(0.02);
    eastLog_.take();
    westLog_.take();
  }
  /// A packet from east to west; returns the drop reason's name, or "" when it was delivered.
  std::string pass() { return west_.receive(east_.seal(kEastPath)); }
  /// The ESP header of the next packet from east.
  EspHeader nextEsp() { return espOf(east_.seal(kEastPath)); }
  static EspHeader espOf(const Bytes& packet) {
    return readEspHeader(BytesView(packet).subspan(28)).value();
  }

  Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  EventLog eastLog_;
  EventLog westLog_;
  TestRouter east_{time_, "east"};
  TestRouter west_{time_, "west"};
};

TEST_F(DataPlaneTest, AnSaCarriesPacketsFromItsInstallationToItsDeletion) {
  run(100.7);
  const auto out = east_.handOver(kEastPath, SaType::steadyOut, 5);
  const auto in = west_.handOver(kWestPath, SaType::steadyIn, 5);
  const auto early = east_.handOver(kEastPath, SaType::saRekeyOut, 6);
  run(0.019);
  EXPECT_EQ(east_.send(kEastPath), "no_outbound");
  EXPECT_EQ(east_.counters->saCounterEntries(), 0U);
  east_.table->saDel(early->sakey());  // Never installed.
  run(0.001);
  const Bytes packet = east_.seal(kEastPath, 7);
  EXPECT_EQ(west_.receive(packet), "");
  EXPECT_EQ(west_.delivered.at(0).first, kWestPath.key());
  EXPECT_EQ(west_.delivered.at(0).second->sequence, 7U);
  // Whole UTC seconds of the installation: the date at 100.72 s.
  const uint64_t addTime = static_cast<uint64_t>(VirtualTime::defaultUtcStart().seconds()) + 100;
  using Entry = IpsecCounters::IpsecSACounterEntry;
  EXPECT_EQ(east_.counters->saCounterEntry(out->sakey()), (Entry{0, addTime, 1, 128}));
  EXPECT_EQ(west_.counters->saCounterEntry(in->sakey()), (Entry{0, addTime, 1, 128}));
  EXPECT_EQ(east_.counters->sessionCounterEntry(1).pktsOut, 1U);
  EXPECT_EQ(west_.counters->sessionCounterEntry(1).pktsIn, 1U);
  west_.table->saDel(in->sakey());
  east_.table->saDel(out->sakey());
  EXPECT_EQ(west_.receive(packet), "no_sa");
  EXPECT_EQ(east_.send(kEastPath), "no_outbound");
  EXPECT_EQ(east_.counters->saCounterEntries() + east_.counters->sessionCounterEntries(), 0U);
  EXPECT_THAT(eastLog_.lines, ElementsAre("handed over 5", "handed over 6", "removed 6",
                                          "installed 5", "removed 5"));
}

TEST_F(DataPlaneTest, SendsOnTheInstalledOutSaThatWasHandedOverLast) {
  // 3 is handed over last and installed first; 4 is never installed, 5 fails.
  const InstallPlan plans[] = {
      {Duration(3)}, {Duration(2)}, {Duration(1)}, {Duration::never()}, {Duration(0), true}};
  east_.plane->installPlanIs([&](const SaReport& sa) { return plans[sa.key.spi - 1]; });
  const SaType types[] = {SaType::steadyOut, SaType::dhRekeyOut, SaType::saRekeyOut,
                          SaType::steadyOut, SaType::steadyOut};
  std::vector<Ptr<Ike::SecurityAssociation>> sas;
  for (uint32_t spi = 1; spi <= 5; ++spi) {
    sas.push_back(east_.handOver(kEastPath, types[spi - 1], spi));
  }
  for (int i = 0; i < 3; ++i) {
    run(1);
    EXPECT_EQ(nextEsp().spi, 3U);
  }
  sas[2]->saTypeIs(SaType::retiredOut);  // Older only when something newer is there.
  east_.handOver(kEastPath, east_.makeSa(kEastPath, SaType::steadyOut, 1));
  EXPECT_EQ(nextEsp().spi, 3U) << "a repeated hand-over keeps its place";
  east_.table->saDel(sas[2]->sakey());
  EXPECT_EQ(nextEsp().spi, 2U);
  east_.table->saDel(sas[1]->sakey());
  EXPECT_EQ(nextEsp().spi, 1U);
  EXPECT_EQ(east_.plane->sa(sas[3]->sakey())->state, SaInstallState::pending);
  EXPECT_EQ(east_.plane->sa(sas[4]->sakey())->state, SaInstallState::failed);
  EXPECT_EQ(east_.counters->saCounterEntries(), 1U);
}

TEST_F(DataPlaneTest, ARepeatedHandOverUpdatesAndResetsNothing) {
  connect(5);
  const Bytes first = east_.seal(kEastPath);
  EXPECT_EQ(west_.receive(first), "");
  const auto before = west_.counters->saCounterEntry(west_.plane->sas()[0].key);
  run(10);
  // New entities under the same keys, with other ports; then other keys written in place.
  TestPath eastPath = kEastPath;
  TestPath westPath = kWestPath;
  eastPath.remotePort = westPath.localPort = 4999;
  const auto out = east_.handOver(eastPath, SaType::steadyOut, 5);
  const auto in = west_.handOver(westPath, SaType::steadyIn, 5);
  const Bytes second = east_.seal(kEastPath);
  EXPECT_EQ(espOf(second).sequence, 2U);
  EXPECT_EQ(west_.receive(second), "");
  EXPECT_EQ(west_.receive(first), "no_sa") << "to the old port";
  const auto after = west_.counters->saCounterEntry(in->sakey());
  EXPECT_EQ(after.addTime, before.addTime);
  EXPECT_EQ(after.pkts, before.pkts + 1);
  suiteIs(*out, {}, 2);
  EXPECT_EQ(pass(), "bad_icv");
  suiteIs(*in, {}, 2);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(west_.receive(second), "bad_icv") << "under the old key";
  out->cryptoAlgoIs("");
  EXPECT_EQ(east_.send(kEastPath), "bad_sa");
  EXPECT_EQ(east_.counters->saCounterEntries(), 0U);
}

TEST_F(DataPlaneTest, AnSaMadeAgainGoesOnWhereItStopped) {
  connect(5);
  EXPECT_EQ(pass(), "");
  const Bytes old = east_.seal(kEastPath);
  EXPECT_EQ(west_.receive(old), "");
  const auto outKey = east_.plane->sas()[0].key;
  const auto inKey = west_.plane->sas()[0].key;

  // Many SA rekeys later the path is rebuilt on one side, then on the other.
  east_.table->saDel(outKey);
  for (uint32_t spi = 100; spi < 140; ++spi) {
    const auto rekeyed = east_.handOver(kEastPath, SaType::saRekeyOut, spi, {}, 9);
    run(0.02);
    east_.table->saDel(rekeyed->sakey());
  }
  east_.handOver(kEastPath, SaType::steadyOut, 5);
  run(0.02);
  const Bytes next = east_.seal(kEastPath);
  EXPECT_EQ(espOf(next).sequence, 3U);
  EXPECT_EQ(west_.receive(next), "");
  west_.table->saDel(inKey);
  west_.handOver(kWestPath, SaType::steadyIn, 5);
  run(0.02);
  EXPECT_EQ(west_.receive(old), "replayed");
  EXPECT_EQ(pass(), "");

  // The same SPI with another key is another SA: everything starts anew at both ends.
  east_.table->saDel(outKey);
  west_.table->saDel(inKey);
  connect(5, {}, 2);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(east_.plane->sas()[0].sequence, 1U);

  // A new data plane takes over the table and knows nothing of before.
  east_.start();
  run(0.02);
  EXPECT_EQ(nextEsp().sequence, 1U);
}

TEST_F(DataPlaneTest, PathsBetweenTheSameAddressesDifferByTheirPorts) {
  // Same addresses, SPI and key; 1 and 2 share east's port, 3 spreads its flows over ports.
  const std::pair<uint16_t, uint16_t> ports[] = {
      {4501, 4601}, {4501, 4602}, {4503, 4601}, {4504, 4604}};
  std::vector<TestPath> eastPaths;
  std::vector<TestPath> westPaths;
  for (uint32_t i = 0; i < 4; ++i) {
    const auto& [own, other] = ports[i];
    eastPaths.push_back({kEastPath.local, kEastPath.remote, own, other, i + 1, i + 1});
    westPaths.push_back({kWestPath.local, kWestPath.remote, other, own, i + 1, i + 1});
    east_.handOver(eastPaths[i], SaType::steadyOut, 5);
    west_.handOver(westPaths[i], SaType::steadyIn, 5)->flowEncapIs(i == 3);
  }
  run(0.02);
  for (size_t i = 0; i < 4; ++i) {
    const Bytes packet = east_.seal(eastPaths[i]);
    Bytes otherPort = packet;
    otherPort[20] ^= 0x10;  // Its source port.
    EXPECT_EQ(west_.receive(otherPort), i == 3 ? "" : "no_sa");
    EXPECT_EQ(west_.receive(packet), i == 3 ? "replayed" : "");
    EXPECT_EQ(west_.delivered.back().first, westPaths[i].key());
  }
  // A path that is gone does not fall to another one.
  west_.table->saDel(TestRouter::saKey(westPaths[0], SaType::steadyIn, 5));
  EXPECT_EQ(west_.receive(east_.seal(eastPaths[0])), "no_sa");
  EXPECT_EQ(west_.receive(east_.seal(eastPaths[2])), "");
}

TEST_F(DataPlaneTest, PathsToOneAddressWithOneSpiDifferByTheirSource) {
  const IpGenAddr west = address("2001:db8:2::1");
  std::vector<TestPath> eastPaths;
  std::vector<TestPath> westPaths;
  for (uint32_t i = 1; i <= 3; ++i) {
    const IpGenAddr east = address("2001:db8:1::" + std::to_string(i));
    eastPaths.push_back({east, west, 4500, 4500, i, i});
    westPaths.push_back({west, east, 4500, 4500, i, i});
    east_.handOver(eastPaths.back(), SaType::steadyOut, 5);
    west_.handOver(westPaths.back(), SaType::steadyIn, 5);
  }
  run(0.02);
  for (const size_t i : {2U, 0U, 1U}) {
    EXPECT_EQ(west_.receive(east_.seal(eastPaths[i])), "");
    EXPECT_EQ(west_.delivered.back().first, westPaths[i].key());
  }
  // From a source that no path has, as behind a translator: the first one takes it.
  Bytes packet = east_.seal(eastPaths[1]);
  ASSERT_TRUE(rewriteSource(packet, eastPaths[1].local, address("2001:db8:9::9")));
  EXPECT_EQ(west_.receive(packet), "");
  EXPECT_EQ(west_.delivered.back().first, westPaths[0].key());
}

TEST_F(DataPlaneTest, TheNonceWordRidesInEveryPacketWhileRekeyIsSet) {
  connect(5);
  const Ptr<Ike::SecurityAssociation> out = *east_.table->sa().find(east_.plane->sas()[0].key);
  const SecurityAssociationKey inKey = west_.plane->sas()[0].key;
  const auto word = [&] {
    EXPECT_EQ(pass(), "");
    return west_.counters->saCounterEntry(inKey).nonceWord;
  };
  using NetworkOrder = std::array<uint8_t, 4>;
  out->nonceIs(std::bit_cast<uint32_t>(NetworkOrder{0x1A, 0xBC, 0xDE, 0xF1}));
  EXPECT_EQ(word(), 0U) << "rekey is not set";
  out->rekeyIs(true);
  east_.seal(kEastPath);
  EXPECT_EQ(word(), 0x1ABCDEF1U) << "the first carrier was lost, the next one carries it too";
  ASSERT_TRUE(west_.delivered.back().second) << "the inner packet is untouched";
  out->nonceIs(std::bit_cast<uint32_t>(NetworkOrder{0x20, 0, 0, 7}));
  EXPECT_EQ(word(), 0x1ABCDEF1U) << "no edge, no new word";
  out->rekeyIs(false);
  EXPECT_EQ(word(), 0x1ABCDEF1U) << "the last word received";
  out->rekeyIs(true);
  EXPECT_EQ(word(), 0x20000007U);
  EXPECT_EQ(word(), 0x20000007U);
  EXPECT_THAT(eastLog_.lines, ElementsAre("0x1abcdef1 sent 5", "0x20000007 sent 5"));
  EXPECT_THAT(westLog_.lines, ElementsAre("0x1abcdef1 received 5", "0x20000007 received 5"));
  // An SA that is handed over with the flag set carries its word from the first packet on.
  const auto next = east_.makeSa(kEastPath, SaType::saRekeyOut, 6);
  next->nonceIs(out->nonce());
  next->rekeyIs(true);
  east_.handOver(kEastPath, next);
  west_.handOver(kWestPath, SaType::saRekeyIn, 6);
  run(0.02);
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(west_.plane->sas()[1].nonceWord, 0x20000007U);
}

/// Every byte of a packet altered, and every length cut off: dropped for the right reason, and the
/// packet itself still comes in afterwards.
TEST_F(DataPlaneTest, AlteredAndTruncatedPacketsAreDroppedByReason) {
  const std::tuple<const char*, const char*, size_t> rows[] = {{"203.0.113.1", "203.0.113.2", 20},
                                                               {"2001:db8::1", "2001:db8::2", 40}};
  for (const auto& [local, remote, ipHeader] : rows) {
    SCOPED_TRACE(local);
    const TestPath eastPath = {address(local), address(remote), 4501, 4601};
    const TestPath westPath = {address(remote), address(local), 4601, 4501};
    east_.handOver(eastPath, SaType::steadyOut, 5);
    west_.handOver(westPath, SaType::steadyIn, 5);
    run(0.02);
    const Bytes packet = east_.seal(eastPath);
    const bool ipv6 = ipHeader == 40;
    for (size_t i = 0; i < packet.size(); ++i) {
      EXPECT_EQ(west_.receive({packet.begin(), packet.begin() + static_cast<int>(i)}), "malformed")
          << "size " << i;
      if (ipv6 && ((i >= 1 && i <= 3) || i == 7)) {
        continue;  // Nothing protects the flow label and the hop limit.
      }
      Bytes altered = packet;
      altered[i] ^= 0x40;
      std::string reason = i < ipHeader + 12 ? "no_sa" : "bad_icv";  // Ports, SPI; then the rest.
      if (ipv6 || i < ipHeader || (i >= ipHeader + 4 && i < ipHeader + 8)) {
        reason = "malformed";  // Under a checksum, a length, or a checksum where there was none.
      }
      EXPECT_EQ(west_.receive(altered), reason) << "byte " << i;
    }
    EXPECT_EQ(west_.receive(packet), "");
    EXPECT_EQ(west_.receive(packet), "replayed");
  }
  // To another address, NAT keepalive, IKE.
  const Bytes packet = east_.seal(kEastPath);
  Bytes elsewhere = packet;
  ASSERT_TRUE(rewriteDestination(elsewhere, kEastPath.remote, address("203.0.113.7")));
  EXPECT_EQ(west_.receive(elsewhere), "no_sa");
  for (const Bytes& payload : {Bytes{0xFF}, Bytes(20)}) {
    Bytes other(28 + payload.size());
    std::ranges::copy(payload, other.begin() + 28);
    writeUdpHeaders(other, {kEastPath.local, kEastPath.remote, 4501, 4601}, UdpChecksum::none);
    EXPECT_EQ(west_.receive(other), "malformed");
  }
  EXPECT_EQ(west_.plane->statistics().received, 2U);
}

// Written by somebody who has the keys: what is inside must still be what the trailer says.
TEST_F(DataPlaneTest, AuthenticNonsenseIsMalformed) {
  const auto in = west_.handOver(kWestPath, SaType::steadyIn, 5, kNullSuite);
  run(0.02);
  uint8_t sequence = 0;
  const auto receive = [&](const Bytes& inner, const Bytes& rest) {
    Bytes esp = {0, 0, 0, 5, 0, 0, 0, ++sequence};
    esp.insert(esp.end(), inner.begin(), inner.end());
    esp.insert(esp.end(), rest.begin(), rest.end());
    HmacPRFunc hmac;
    Bytes icv(16);
    EXPECT_TRUE(hmac.initHmacPRFunc(HashAlgorithm::md5) && hmac.setKey(in->authKey()) &&
                hmac.compute({esp}, icv));
    esp.insert(esp.end(), icv.begin(), icv.begin() + 12);
    esp.insert(esp.begin(), 28, 0);
    writeUdpHeaders(esp, {kEastPath.local, kEastPath.remote, 4501, 4601}, UdpChecksum::none);
    return west_.receive(esp);
  };
  const Bytes inner = innerPacketBytes({.ends = {address("10.1.0.1"), address("10.2.0.1"), 1, 2}});
  EXPECT_EQ(receive(inner, {1, 2, 2, 4}), "");
  EXPECT_EQ(receive(inner, {'T', 'S', 'X', 'N', 9, 9, 9, 9, 1, 2, 2, 4}), "") << "foreign filler";
  EXPECT_EQ(west_.plane->sas()[0].nonceWord, 0U);
  EXPECT_EQ(receive(inner, {1, 3, 2, 4}), "malformed") << "padding is 1, 2, 3 ...";
  EXPECT_EQ(receive(inner, {1, 2, 200, 4}), "malformed") << "more padding than packet";
  EXPECT_EQ(receive(inner, {1, 2, 2, 41}), "malformed") << "IPv4 called IPv6";
  EXPECT_EQ(receive({inner.begin(), inner.end() - 4}, {1, 2, 2, 4}), "malformed");
  EXPECT_EQ(receive({}, {1, 2, 2, 4}), "malformed");
}

TEST_F(DataPlaneTest, OnlyAuthenticPacketsMoveTheWindow) {
  connect(5);
  const Bytes first = east_.seal(kEastPath);
  Bytes forged = first;
  forged[32] = 0x7F;  // Top of the sequence number: far ahead.
  EXPECT_EQ(west_.receive(forged), "bad_icv");
  EXPECT_EQ(west_.receive(first), "");
  for (int number = 2; number <= 64; ++number) {
    EXPECT_EQ(pass(), "");
  }
  EXPECT_EQ(west_.receive(first), "replayed");
  EXPECT_EQ(pass(), "");
  EXPECT_EQ(west_.receive(first), "too_old");
  const PathStatistics statistics = west_.plane->statistics(kWestPath.key());
  EXPECT_EQ(statistics.received, 65U);
  EXPECT_EQ(statistics.receiveDrops[DropReason::tooOld], 1U);
  EXPECT_EQ(statistics.receiveDrops.total(), 3U);
}

TEST_F(DataPlaneTest, RefusedSasAreCountedAndSoAreTheirPackets) {
  connect(5, kNullSuite);
  const Bytes packet = east_.seal(kEastPath);
  using Sa = Ike::SecurityAssociation;
  const std::pair<const char*, void (*)(Sa&)> rows[] = {
      {"cryptoAlgo \"\"", [](Sa& sa) { sa.cryptoAlgoIs(""); }},
      {"saType", [](Sa& sa) { sa.saTypeIs(SaType::none); }},
      {"mode 0", [](Sa& sa) { sa.modeIs(0); }},
      {"encapType", [](Sa& sa) { sa.encapTypeIs(IpsecEncapProtocol::none); }},
      {"saddr ::1", [](Sa& sa) { sa.saddrIs(address("::1")); }}};
  for (const auto& [why, change] : rows) {
    const auto sa = west_.makeSa(kWestPath, SaType::steadyOut, 70);
    change(*sa);
    west_.handOver(kWestPath, sa);
    run(0.02);
    EXPECT_THAT(westLog_.lines.back(), HasSubstr(why));
    west_.table->saDel(sa->sakey());
  }
  EXPECT_EQ(west_.plane->refusedSas(), std::size(rows));

  west_.table->saDel(west_.plane->sas()[0].key);
  const TestSuite noCipher = {"", 0, 0, "", 0, 0};
  west_.handOver(kWestPath, SaType::steadyIn, 5, noCipher);
  west_.handOver(kWestPath, SaType::steadyOut, 71, noCipher);
  EXPECT_EQ(west_.receive(packet), "no_sa") << "not even refused yet";
  run(0.02);
  EXPECT_EQ(west_.receive(packet), "bad_sa");
  EXPECT_EQ(west_.send(kWestPath), "bad_sa");
  west_.handOver(kWestPath, SaType::steadyOut, 71);
  run(0.02);
  EXPECT_EQ(west_.send(kWestPath), "") << "handed over again, and good";
}

TEST_F(DataPlaneTest, HardLimitsAreFindingsAndPacketsGoOn) {
  const auto limited = [&](uint32_t spi, uint64_t time, uint64_t packets, uint64_t bytes) {
    const auto sa = east_.makeSa(kEastPath, SaType::steadyOut, spi);
    const Ptr<Ike::LifetimeCfg> lifetime = east_.vrf->lifetimeCfgIs(sa->sakey());
    lifetime->hardAddExpireIs(time);
    lifetime->hardPacketLimitIs(packets);
    lifetime->hardByteLimitIs(bytes);
    east_.handOver(kEastPath, sa);
    run(0.5);
    eastLog_.take();
    return sa;
  };
  const auto first = limited(1, 60, 2, 3 * 128);
  for (const size_t findings : {0U, 0U, 1U, 2U, 2U}) {
    EXPECT_EQ(east_.send(kEastPath), "");
    EXPECT_EQ(eastLog_.lines.size(), findings);
  }
  run(600);
  EXPECT_THAT(eastLog_.take(),
              ElementsAre("limit of packets 2 at 0.5 s", "limit of bytes 384 at 0.5 s",
                          "limit of time 60 at 60.02 s"));
  // Deleted in time, without limits, refused in time.
  east_.table->saDel(limited(2, 1, 0, 0)->sakey());
  limited(3, 0, 0, 0);
  EXPECT_EQ(east_.send(kEastPath), "");
  limited(4, 60, 0, 0)->cryptoAlgoIs("");
  EXPECT_EQ(east_.send(kEastPath), "bad_sa");
  run(1000);
  EXPECT_EQ(east_.plane->hardLimitFindings().size(), 3U);
  EXPECT_EQ(east_.plane->refusedSas(), 1U);
}

TEST_F(DataPlaneTest, SequenceNumbersDoNotWrap) {
  const auto sa = east_.makeSa(kEastPath, SaType::steadyOut, 5);
  sa->seqIs(0xFFFFFFFDU);
  east_.handOver(kEastPath, sa);
  run(0.02);
  EXPECT_EQ(nextEsp().sequence, 0xFFFFFFFEU);
  EXPECT_EQ(nextEsp().sequence, 0xFFFFFFFFU);
  EXPECT_EQ(east_.send(kEastPath), "no_outbound");
  EXPECT_EQ(east_.plane->statistics(kEastPath.key()).sent, 2U);
}

TEST_F(DataPlaneTest, EveryPacketOverABadLinkIsAccountedFor) {
  Link link({.latency = Duration(0.02),
             .jitter = Duration(0.01),
             .lossRate = 0.05,
             .burstStartRate = 0.01,
             .reorderRate = 0.05,
             .reorderDelay = Duration(1),
             .duplicateRate = 0.05,
             .bitFlipRate = 0.05,
             .replayRate = 0.05},
            21);
  link.attach(LinkEnd::b, west_.scheduler, [&](Bytes packet) { west_.receive(packet); });
  connect(5);
  const LinkCounts& counts = link.counts(LinkEnd::a);
  for (uint64_t i = 0; i < 3000; ++i) {
    link.send(LinkEnd::a, east_.seal(kEastPath, i));
    run(i == 2999 ? 10 : 0.005);
    const PathStatistics received = west_.plane->statistics();
    ASSERT_EQ(east_.plane->statistics().sent, counts.sent);
    ASSERT_EQ(counts.delivered, received.received + received.receiveDrops.total());
    ASSERT_EQ(counts.sent + counts.duplicated + counts.replayed,
              counts.delivered + counts.lost() + counts.inFlight);
  }
  EXPECT_EQ(counts.inFlight, 0U);
  std::set<uint64_t> distinct;
  for (const auto& [path, inner] : west_.delivered) {
    distinct.insert(inner->sequence);
  }
  EXPECT_EQ(distinct.size(), west_.delivered.size()) << "something came in twice";
  EXPECT_EQ(distinct.size(), west_.plane->statistics().received);
  const DropCounts drops = west_.plane->statistics().receiveDrops;
  EXPECT_GT(drops[DropReason::replayed], 100U);
  EXPECT_GT(drops[DropReason::tooOld], 20U);
  EXPECT_EQ(drops[DropReason::badIcv] + drops[DropReason::malformed] + drops[DropReason::noSa],
            counts.altered);
}

}  // namespace
}  // namespace tessel::lab
