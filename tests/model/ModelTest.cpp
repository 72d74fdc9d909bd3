// The state model: values, their order and text, and what entities promise beyond holding values.
#include <algorithm>

#include "host/crypto/HmacPRFunc.h"
#include "host/model/AgentTables.h"
#include "host/model/Counters.h"
#include "host/model/Events.h"
#include "host/model/IkeStatus.h"
#include "host/model/Path.h"
#include "host/runtime/VirtualTime.h"

namespace tessel {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

IpGenAddr address(const std::string& text) {
  return IpGenAddr::parse(text).value();
}

TEST(IpGenAddr, ReadsWritesAndOrdersBothFamilies) {
  const struct {
    const char* text;
    const char* written;
    uint32_t v4;
    bool unspecified = false;
  } rows[] = {// In ascending order.
              {"0.0.0.0", "0.0.0.0", 0, true},
              {"10.0.0.1", "10.0.0.1", 0x0A000001},
              {"10.0.1.0", "10.0.1.0", 0x0A000100},
              {"192.0.2.255", "192.0.2.255", 0xC00002FF},
              {"::", "::", 0, true},
              {"2001:0DB8::0:1", "2001:db8::1", 0},
              {"2001:db8::1:0", "2001:db8::1:0", 0}};
  IpGenAddr before;
  EXPECT_TRUE(before.isUnspecified());
  EXPECT_EQ(before.stringValue(), "unspecified");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const IpGenAddr read = address(row.text);
    EXPECT_EQ(read.stringValue(), row.written);
    EXPECT_EQ(read.v4Addr(), row.v4);
    EXPECT_EQ(read.isUnspecified(), row.unspecified);
    EXPECT_LT(before, read);
    EXPECT_EQ(read, read.family() == AddressFamily::ipv4 ? IpGenAddr::fromV4(row.v4)
                                                         : IpGenAddr::fromV6(read.v6Addr()));
    before = read;
  }
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "256.0.0.1", "1.2.3.4 ", "2001:db8", "host"}) {
    EXPECT_FALSE(IpGenAddr::parse(text)) << text;
  }
}

TEST(PathStatusDir, FindsThePathsOfAPeerAsAWalkOverAllWould) {
  const auto directory = makePtr<Path::PathStatusDir>();
  const IpGenAddr west = address("192.0.2.2");
  const IpGenAddr north = address("192.0.2.3");
  const auto key = [](ConnectionId id) { return ConnectionKey{0, {}, {}, id}; };
  const auto status = [&](ConnectionId id) { return directory->ipsecPathStatus(key(id)); };
  const auto towards = [&](const IpGenAddr& peer) {
    std::vector<ConnectionId> found;
    directory->forEachTowards(
        peer, [&](const Path::PathStatus& each) { found.push_back(each.connectionKey().connId); });
    return found;
  };
  for (ConnectionId id = 1; id <= 4; ++id) {
    directory->ipsecPathStatusIs(key(id))->remoteIpIs(id == 2 ? north : west);
  }
  EXPECT_THAT(towards(west), ElementsAre(1, 3, 4));
  status(2)->remoteIpIs(west);
  status(3)->remoteIpIs(north);
  EXPECT_THAT(towards(west), ElementsAre(1, 2, 4)) << "the order is that of the directory";
  EXPECT_THAT(towards(north), ElementsAre(3));

  // One that is held after its removal is no member, one that comes back goes last.
  const auto held = status(1);
  directory->ipsecPathStatusDel(key(1));
  directory->ipsecPathStatusIs(key(1))->remoteIpIs(west);
  EXPECT_THAT(towards(west), ElementsAre(2, 4, 1));

  // What the visit takes away is not visited any more.
  std::vector<ConnectionId> visited;
  directory->forEachTowards(west, [&](const Path::PathStatus& each) {
    visited.push_back(each.connectionKey().connId);
    directory->ipsecPathStatusDel(key(4));
    status(1)->remoteIpIs(north);
  });
  EXPECT_THAT(visited, ElementsAre(2));
  EXPECT_THAT(towards(north), ElementsAre(3, 1));
}

TEST(Enumerations, DhGroupsAreTheIanaNumbersOrUnsupported) {
  const std::vector<uint32_t> supported = {1, 2, 5, 14, 15, 16, 17, 19, 20, 21, 24};
  for (uint32_t number = 0; number < 256; ++number) {
    const bool known = std::ranges::find(supported, number) != supported.end();
    EXPECT_EQ(getDhGroupNum(static_cast<IpsecDhGroup>(number)), known ? number : 0U) << number;
  }
}

TEST(Enumerations, NumbersWithoutMeaningAreRefusedOrUnknown) {
  EXPECT_EQ(static_cast<uint32_t>(NonceTypeInstance(2)), 2U);
  for (const uint32_t number : {3U, 256U, 0xFFFFFFFFU}) {
    EXPECT_THROW(NonceTypeInstance(number), std::out_of_range);
  }
}

/// What the numbers from 0 on print as; the one behind the last is unknown.
template <class Enumeration>
void expectTexts(const std::vector<std::string>& roles) {
  for (size_t number = 0; number <= roles.size(); ++number) {
    const std::string role = number < roles.size() ? roles[number] : "unknown";
    EXPECT_EQ(stringValue(static_cast<Enumeration>(number)),
              role + "(" + std::to_string(number) + ")");
  }
  EXPECT_EQ(stringValue(static_cast<Enumeration>(255)), "unknown(255)");
}

TEST(Enumerations, PrintRoleAndNumber) {
  expectTexts<SaType>({"none", "steady-in", "steady-out", "steady-pair", "sa-rekey-in",
                       "sa-rekey-out", "dh-rekey-in", "dh-rekey-out", "retired-in", "retired-out"});
  expectTexts<SmState>(
      {"idle", "dh-rekeying", "initiator", "responder", "both-initiated", "no-role"});
  expectTexts<DhRekeyState>(
      {"not-rekeying", "initiated", "in-sa-installed", "in-progress", "out-sa-installing"});
  expectTexts<SaRekeyState>(
      {"steady", "peer-nonce-received", "installed", "in-use", "nonce-failed"});
  expectTexts<PeerConnStatus>({"ready", "down"});
  expectTexts<PeerDownReason>({"none", "dh-group-mismatch", "dh-key-length-mismatch",
                               "nonce-length-mismatch", "encryption-algorithm-mismatch",
                               "integrity-algorithm-mismatch", "key-derivation-failed"});
  expectTexts<IpsecEspAlgorithm>({"none", "aes-128-cbc", "aes-128-gcm-8", "aes-128-gcm-16",
                                  "aes-256-gcm-16", "aes-256-cbc", "null", "aes-192-cbc"});
  expectTexts<IpsecHmacAlgorithm>({"md5", "sha1", "sha256", "sha384", "sha512", "none", "unused"});
  expectTexts<HashAlgorithm>({"md5", "sha1", "sha256", "sha384", "sha512"});
  expectTexts<NonceType>({"none", "initiator", "responder"});
  expectTexts<IpsecEncapProtocol>({"none", "udp"});
  expectTexts<Path::UnderlayState>({"down", "connecting", "connected", "established"});
  // Those whose numbers are not dense, and the ends of the one that has a table in docs/states.md.
  const std::pair<std::string, const char*> rows[] = {
      {stringValue(DynamicPathState::none), "none(0)"},
      {stringValue(DynamicPathState::active), "active(3)"},
      {stringValue(DynamicPathState::dhLatestOutSaInstalling), "dh-latest-out-sa-installing(16)"},
      {stringValue(DynamicPathState::saBothInitiated), "sa-both-initiated(29)"},
      {stringValue(DynamicPathState::rebuild), "rebuild(31)"},
      {stringValue(DynamicPathState{32}), "unknown(32)"},
      {stringValue(IpsecDhGroup::none), "none(0)"},
      {stringValue(IpsecDhGroup::modp1536), "modp-1536(5)"},
      {stringValue(IpsecDhGroup::modp6144), "modp-6144(17)"},
      {stringValue(IpsecDhGroup::ecp521), "ecp-521(21)"},
      {stringValue(IpsecDhGroup::modp2048s256), "modp-2048-256(24)"},
      {stringValue(IpsecDhGroup{18}), "unknown(18)"},
      {stringValue(IpsecDhGroup{25}), "unknown(25)"},
      {stringValue(AddressFamily::none), "none(0)"},
      {stringValue(AddressFamily::ipv4), "ipv4(2)"},
      {stringValue(AddressFamily::ipv6), "ipv6(10)"},
      {stringValue(AddressFamily{3}), "unknown(3)"},
      {stringValue(Ike::ConnectionState::down), "down(0)"},
      {stringValue(Ike::ConnectionState::established), "established(3)"},
      {stringValue(Ike::ConnectionState::connected), "connected(7)"},
      {stringValue(Ike::ConnectionState{5}), "unknown(5)"}};
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(text, expected);
  }
}

TEST(Keys, PrintAsTheFieldWritesThem) {
  const IpGenAddr four = address("192.0.2.1"), six = address("2001:db8::1");
  const std::pair<std::string, const char*> rows[] = {
      {stringValue(four), "192.0.2.1"},
      {stringValue(six), "2001:db8::1"},
      {stringValue(IpGenAddr()), "unspecified"},
      {stringValue(ConnectionKey{0, four, six, 7}), "vrf 0 192.0.2.1 -> 2001:db8::1"},
      {stringValue(MergeResolutionKey{3, six, four}), "vrf 3 2001:db8::1 -> 192.0.2.1"},
      {stringValue(SecurityAssociationKey{0xBADCAFE, six, 50, 7, 2}),
       "spi 0x0badcafe daddr 2001:db8::1 proto 50 reqid 7"},
      {spiText(0), "0x00000000"},
      {spiText(UINT32_MAX), "0xffffffff"},
      {stringValue(DhKeyPair{0, UINT64_MAX}), "( 0 , 18446744073709551615 )"},
      {stringValue(Ike::EncapSrcPortRange{49152, 65535}), "49152-65535"},
      {stringValue(seconds(1.5)), "1.5 s"},
      {stringValue(Duration::never()), "never"}};
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(text, expected);
  }
}

TEST(Timing, ADhRekeyWaitsFromTheFirstPeerOn) {
  const auto time = makePtr<VirtualTime>();
  const auto status = makePtr<Ike::Status>(makePtr<Ike::Timing>(*time));
  time->runUntil(seconds(1000));
  EXPECT_FALSE(status->isDhRekeyReady());
  status->setDhRekeyDelayTime();
  time->runUntil(seconds(1119.5));
  EXPECT_FALSE(status->isDhRekeyReady());
  time->runUntil(seconds(1120));
  EXPECT_TRUE(status->isDhRekeyReady());
}

class Retention : public ::testing::Test {
 protected:
  Retention() { events_->follow(sas_); }

  static SecurityAssociationKey key(uint32_t spi) { return {spi, address("10.0.0.1"), 50, 1, 2}; }
  static ConnectionKey path(ConnectionId id) {
    return {0, address("10.0.0.1"), address("10.0.0.2"), id};
  }
  /// An SA of a path comes, as the machine brings it: entered first, then recorded.
  void add(uint32_t spi, ConnectionId id = 1) {
    sas_->cpSaIs(key(spi), path(id));
    sas_->saIs(makePtr<Ike::SecurityAssociation>(key(spi)));
    record(spi);
  }
  /// And goes: taken out first, then recorded.
  void del(uint32_t spi) {
    sas_->saDel(key(spi));
    sas_->cpSaDel(key(spi));
    record(spi);
  }
  void record(uint32_t spi) {
    events_->pathNameMappingIs("blue")->saEventsIs(events_->saEventsIs(key(spi)));
  }
  std::vector<uint32_t> kept() const {
    std::vector<uint32_t> spis;
    for (const auto& [saKey, log] : events_->saEvents()) {
      spis.push_back(saKey.spi);
    }
    EXPECT_EQ((*events_->pathNameMapping().find("blue"))->saEvents().keys(),
              events_->saEvents().keys());
    return spis;
  }

  const Ptr<IpsecCommon::TesselV1> sas_ = makePtr<IpsecCommon::TesselV1>();
  const Ptr<RecordEvents> events_ = makePtr<RecordEvents>();
};

TEST_F(Retention, KeepsTheLogsOfTwoGoneSasPerPath) {
  for (uint32_t spi = 1; spi <= 6; ++spi) {
    add(spi);
  }
  add(100, 2);
  add(101, 2);
  del(2);
  del(100);
  del(1);
  EXPECT_THAT(kept(), ElementsAre(1, 2, 3, 4, 5, 6, 100, 101));
  del(4);  // The oldest of the path's gone ones goes; the other path's stay.
  del(101);
  EXPECT_THAT(kept(), ElementsAre(1, 3, 4, 5, 6, 100, 101));
}

TEST_F(Retention, AnSaThatComesBackKeepsItsLogAndCountsAsPresent) {
  add(1);
  add(2);
  add(3);
  del(1);
  const Ptr<SaEventEntry> log = events_->saEventsIs(key(1));
  add(1);
  EXPECT_EQ(events_->saEventsIs(key(1)), log);
  del(2);
  del(3);
  EXPECT_THAT(kept(), UnorderedElementsAre(1, 2, 3));  // 1 is present, 2 and 3 are gone.
  del(1);
  EXPECT_THAT(kept(), UnorderedElementsAre(1, 3));
}

TEST_F(Retention, OnlyTheLastOneIsKeptWhenNoneAreAskedFor) {
  events_->maxGoneSaLogsIs(0);
  for (uint32_t spi = 1; spi <= 5; ++spi) {
    add(spi);
    del(spi);
  }
  EXPECT_THAT(kept(), ElementsAre(5));  // Its farewell is recorded after it is gone.
}

}  // namespace
}  // namespace tessel
