// SAs: what they are made of, where they lie, what the data path reports, and what deletion leaves.
#include "sm/SaRekey.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class SecurityAssociationsTest : public MachineTest {
 protected:
  SecurityAssociations& sas() const { return sm->securityAssociations(); }
};

TEST_F(SecurityAssociationsTest, ThePairIsKeyedByDirectionAndCarriesWhatIsConfigured) {
  const auto profile = host->ipsecConfig->ipsecProfile(profileName);
  profile->modeIs("transport");
  profile->flowEncapIs(true);
  profile->encapSrcPortRangeIs({7000, 7999});
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = addPath(peer, 5);
  pathStatus(key)->encapSrcPortIs(4501);
  pathStatus(key)->encapDstPortIs(4601);
  pathStatus(key)->pathIndexIs(33);
  pathStatus(key)->publicIpIs(address("198.51.100.1"));
  start();
  deliver(peer);
  const Ike::CryptoInfo& info = state(peer)->dhCryptoInfo({0, 0})->cryptoInfo();
  const uint32_t addresses = address("198.51.100.1").v4Addr() + key.dstAddr.v4Addr();
  const SecurityAssociationKey inKey{info.secondSpi + addresses, key.srcAddr, 50, 105, 2};
  const SecurityAssociationKey outKey{info.firstSpi + addresses, key.dstAddr, 50, 105, 2};
  EXPECT_THAT(path(key)->pathConnSaInfo().keys(), ElementsAre(inKey, outKey));
  for (const SecurityAssociationKey& saKey : {inKey, outKey}) {
    const auto& made = vrf()->tesselSa(saKey);
    EXPECT_EQ(made->mode(), 0);
    EXPECT_TRUE(made->flowEncap());
    EXPECT_EQ(made->encapSrcPortRange(), (Ike::EncapSrcPortRange{7000, 7999}));
    EXPECT_EQ(made->encapSrcPort(), 4501);
    EXPECT_EQ(made->encapDstPort(), 4601);
    EXPECT_EQ(made->pathIndex(), 33U);
    EXPECT_EQ(getConnectionKeyFromSa(*made), key);
  }
}

TEST_F(SecurityAssociationsTest, SpisCrossBetweenBothEnds) {
  start();
  const char* const none = "0.0.0.0";
  const struct {
    const char *eastPrivate, *eastPublic, *westPrivate, *westPublic;
    uint32_t eastOut;
  } rows[] = {{"10.0.0.1", none, "10.0.0.2", none, 0x13FF0004},  // Wraps.
              {"10.0.0.1", "198.51.100.1", "203.0.113.2", none, 0x9132D504},
              {"203.0.113.1", none, "10.0.0.2", "198.51.100.2", 0x9132D504},
              {"10.0.0.1", "198.51.100.1", "10.0.0.1", "198.51.100.2", 0x8C65C804},
              {"2001:db8::1", none, "2001:db8::2", none, 0xFFFF0001}};
  Ike::CryptoInfo ofEast, ofWest;
  ofEast.firstSpi = ofWest.secondSpi = 0xFFFF0001;
  ofEast.secondSpi = ofWest.firstSpi = 0x00001234;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.eastPublic) + " " + row.westPrivate + " " + row.westPublic);
    // Each end knows its own private address and the other's public one, if it has one.
    const char* const eastSeen = row.eastPublic != none ? row.eastPublic : row.eastPrivate;
    const char* const westSeen = row.westPublic != none ? row.westPublic : row.westPrivate;
    const ConnectionKey east{0, address(row.eastPrivate), address(westSeen), 1};
    const ConnectionKey west{0, address(row.westPrivate), address(eastSeen), 1};
    const auto eastSpis = sas().wireSpis(ofEast, east, address(row.eastPublic), true);
    const auto westSpis = sas().wireSpis(ofWest, west, address(row.westPublic), false);
    EXPECT_EQ(eastSpis.out, row.eastOut);
    EXPECT_EQ(eastSpis.out, westSpis.in);
    EXPECT_EQ(eastSpis.in, westSpis.out);
    EXPECT_NE(eastSpis.in, eastSpis.out);
  }
  sm->testKnobForceSpiResponderValueIs(1);
  EXPECT_EQ(sas().wireSpis(ofEast, pathKey(1), {}, true).out, ofEast.firstSpi);
}

TEST_F(SecurityAssociationsTest, SoftLimitsLieBelowTheHardOnes) {
  const struct {
    uint64_t (*soft)(uint64_t hard);
    uint64_t hard, from, to;
  } rows[] = {{getTimedSoftRekey, 3600, 2160, 2880},
              {getTimedSoftRekey, 4499, 2701, 3600},
              {getTimedSoftRekey, 4500, 2700, 3600},
              {getTimedSoftRekey, 86400, 84600, 85500},
              {getTimedSoftRekey, 0, 0, 0},
              {getSoftRekey, 1000000, 725000, 750000},
              {getSoftRekey, 3, 3, 3},
              {getSoftRekey, 0, 0, 0},
              {getSoftRekey, 1ULL << 40U, 797159673856, 824633720832},
              {getSoftRekey, UINT64_MAX, 13373932853444975000U, 13835058055282163712U}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.hard);
    std::vector<uint64_t> draws(80);
    std::ranges::generate(draws, [&] { return row.soft(row.hard); });
    const auto [lowest, highest] = std::ranges::minmax(draws);
    EXPECT_GE(lowest, row.from);
    EXPECT_LE(highest, row.to);
    // Drawn from the whole range: 80 draws come close to both ends.
    EXPECT_LE(lowest - row.from, (row.to - row.from) / 4);
    EXPECT_LE(row.to - highest, (row.to - row.from) / 4);
  }

  // Bytes, then packets, then time: one draw each.
  const ConnectionKey key = establish(makePeer(2));
  const auto association = host->ipsecConfig->securityAssoc(profileName);
  association->packetLimitIs(1000000);
  association->byteLimitIs(4000000000);
  srandom(99);
  touchMerge(key);  // Rebuilds the path with new SAs.
  const auto limits = vrf()->lifetimeCfg(sa(key, SaType::steadyIn)->sakey());
  EXPECT_EQ(limits->hardByteLimit(), 4000000000U);
  EXPECT_EQ(limits->hardPacketLimit(), 1000000U);
  EXPECT_EQ(limits->hardAddExpire(), 3600U);
  srandom(99);
  EXPECT_EQ(limits->softByteLimit(), getSoftRekey(4000000000));
  EXPECT_EQ(limits->softPacketLimit(), getSoftRekey(1000000));
  EXPECT_EQ(limits->softAddExpire(), getTimedSoftRekey(3600));
}

TEST_F(SecurityAssociationsTest, CountersAreTakenOverWhenTheyAreSound) {
  const ConnectionKey key = establish(makePeer(2));
  const SecurityAssociationKey saKey = sa(key, SaType::steadyIn)->sakey();
  const auto saInfo = path(key)->pathConnSaInfo(saKey);
  auto& entry = host->ipsecCounterTable->saCounterEntryIs(saKey);
  const struct {
    uint32_t word;  // Its first four bits are the type, which is out of range above 2.
    int type;
    uint64_t packets;
    bool corrupt, sound;
  } rows[] = {{0x2ABCDEF0, 2, 5, false, true},         {0x00000000, 0, 0, false, true},
              {0x30000000, 0, 7, false, false},        {0x1FFFFFFF, 1, 8, false, true},
              {0xFFFFFFFF, 0, 9, false, false},        {0x1ABCDEF0, 0, 6, true, false},
              {0x0000FFFF, 0, UINT64_MAX, false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.word);
    saInfo->pktsIs(1);
    saInfo->pktsPresentIs(true);
    saInfo->peerNonceIs(0);
    saInfo->peerNonceTypeIs(NonceType::none);
    entry.nonceWord = row.word;
    entry.pkts = row.packets;
    host->ipsecCounterTable->saCounterEntryCorruptIs(saKey, row.corrupt);
    sas().setSaInfoEntry(saKey);
    EXPECT_EQ(saInfo->peerNonce(), row.sound ? row.word : 0U);
    EXPECT_EQ(static_cast<int>(saInfo->peerNonceType()), row.type);
    EXPECT_EQ(saInfo->pkts(), row.sound ? row.packets : 1U);
    EXPECT_EQ(saInfo->pktsPresent(), !row.sound || row.packets != 0);
    EXPECT_EQ(saInfo->addTime(), seconds(static_cast<double>(entry.addTime)));
  }
  EXPECT_EQ(host->ipsecCounterTable->corruptionsDetected(), 1U);
}

TEST_F(SecurityAssociationsTest, EachRequestCreatesItsSasAndDeletionLeavesNothingInAnyTable) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer, 1);
  const ConnectionKey other = establish(peer, 2);
  const DhKeyPair pair{0, 0}, next{1, 0};
  const auto create = [&](SaType type, const DhKeyPair& of, uint32_t reqid = 0) {
    sas().doCreateIpsecControllerSAs(key, of, profileName, reqid, type);
  };
  using enum SaType;
  // What one does not ask for, and what there is no crypto for yet.
  for (const SaType type : {none, steadyIn, steadyOut, saRekeyIn, saRekeyOut, retiredIn, retiredOut,
                            static_cast<SaType>(10)}) {
    create(type, pair);
  }
  create(dhRekeyIn, next);
  EXPECT_EQ(path(key)->pathConnSaInfo().size(), 2U);

  Ike::CryptoInfo crypto = state(peer)->dhCryptoInfo(pair)->cryptoInfo();
  ++crypto.firstSpi;
  ++crypto.secondSpi;
  crypto.firstEncryptionKey = SecretBytes(36);
  path(key)->saCryptoInfoIs(pair)->cryptoInfoIs(crypto);
  crypto.firstSpi += 5;
  crypto.secondSpi += 5;
  state(peer)->dhCryptoInfoIs(next)->cryptoInfoIs(crypto);
  create(saRekeyIn, pair);
  create(saRekeyOut, pair);
  create(dhRekeyIn, next);
  create(dhRekeyOut, next, 4711);
  EXPECT_EQ(path(key)->pathConnSaInfo().size(), 6U);
  for (const SaType type : {steadyIn, steadyOut, saRekeyIn, saRekeyOut, dhRekeyIn, dhRekeyOut}) {
    ASSERT_TRUE(sa(key, type)) << stringValue(type);
  }
  EXPECT_EQ(sa(key, saRekeyIn)->cryptoKey(), SecretBytes(36));  // From the path's own crypto.
  EXPECT_EQ(path(key)->reqid(), 4711U);
  EXPECT_EQ(path(key)->curOutSaDhKeyPair(), next);
  expectTablesAgree();

  // The number that the SPI happens to be names another VRF, which exists and has no such SA.
  host->ipsecStatus->vrfStatusIs("red");
  for (const auto& [saKey, saInfo] : path(key)->pathConnSaInfo()) {
    host->vrfIdStatus->idToNameIs(saKey.spi, "red");
  }
  const auto deleted = path(key);
  (void)events.take();
  sas().doDeleteIpsecControllerSAs(deleted);
  EXPECT_TRUE(deleted->pathConnSaInfo().empty());
  expectTablesAgree();
  EXPECT_THAT(events.take(), Contains("sa deleteSA").Times(6));
  EXPECT_TRUE(sa(other, steadyOut));

  sas().doDeletePeerSAs(peer.address);
  expectNoPathLeft();
  EXPECT_TRUE(state(peer));
}

TEST_F(SecurityAssociationsTest, OldGenerationsAreRetiredMoreThanOneBehind) {
  FakePeer peer = makePeer(2);
  start();
  deliver(peer);
  constexpr uint64_t max = UINT64_MAX;
  const auto crypto = state(peer);
  const auto list = sm->peerKeys().localPeerKeyInfoListIs(peer.address);
  const struct {
    uint64_t published;
    std::vector<uint64_t> counters;
    uint64_t generationsFrom, cryptoFrom;  // The lowest counters that are left.
  } rows[] = {{5, {1, 2, 3, 4, 5, 6}, 4, 4},
              {1, {0, 1}, 0, 0},
              {0, {0, 1, max}, 0, 0},
              {3, {1, 2, 3}, 2, 2},
              {2, {0, 1, 2}, 1, 0},  // The machine still stores its own generation 0.
              {max, {1, max - 2, max - 1, max}, max - 1, max - 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.published);
    host->ipsecLocalKeyDir->rekeyCounterIs(row.published);
    peer.record.rekeyCounter = row.published;
    publish(peer);
    crypto->dhCryptoInfoDelAll();
    for (const uint64_t counter : row.counters) {
      crypto->dhCryptoInfoIs({counter, row.published});
      list->peerKeyInfoIs(counter);
    }
    sas().deleteOldCryptoInfos();
    for (const uint64_t counter : row.counters) {
      EXPECT_EQ(list->peerKeyInfo().has(counter), counter >= row.generationsFrom);
      EXPECT_EQ(crypto->dhCryptoInfoHas({counter, row.published}), counter >= row.cryptoFrom);
      list->peerKeyInfoDel(counter);
    }
  }
  // Without a record it is not known what is old.
  withdraw(peer);
  list->peerKeyInfoIs(1);
  sas().deleteOldCryptoInfos();
  EXPECT_TRUE(list->peerKeyInfo(1));
}

}  // namespace
}  // namespace tessel::Ipsec
