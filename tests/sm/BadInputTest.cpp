// Bad input: whatever is wrong with what comes from outside, the machine says so, goes on for
// everybody else, and takes up what is right when it comes.
#include <openssl/bn.h>

#include "sm/CryptoParams.h"
#include "sm/SaRekey.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

using Record = Controller::PeerKeyInfo;

class BadInputTest : public MachineTest {
 protected:
  /// Path 2, of a peer whose record is good, and which is never to notice.
  void startWithBystander() {
    bystander_.emplace(makePeer(3));
    establish(*bystander_, 2);
    run(1);
    bystanderSa_ = sa(pathKey(2), SaType::steadyOut);
  }
  void expectBystanderUntouched() const {
    EXPECT_EQ(sa(pathKey(2), SaType::steadyOut), bystanderSa_);
    EXPECT_EQ(state(*bystander_)->peerConnStatus(), PeerConnStatus::ready);
    expectTablesAgree();
  }
  void settingsIs(const std::function<void(Ike::KeyControllerConfig&)>& change) {
    Ike::KeyControllerConfig settings = host->ipsecConfig->keyController();
    change(settings);
    host->ipsecConfig->keyControllerIs(settings);
  }
  /// That the path comes up, with traffic, in two minutes.
  void expectComesUp(const ConnectionKey& key) {
    for (int minute = 0; minute < 3; ++minute) {
      run(60);
      installSas();
      pass(key);
    }
    ASSERT_TRUE(path(key));
    EXPECT_EQ(path(key)->pathState(), DynamicPathState::active);
    expectTablesAgree();
  }

  std::optional<FakePeer> bystander_;
  Ptr<Ike::SecurityAssociation> bystanderSa_;
};

// Every field of a record, as the peer's first one and as one that follows a good one.
TEST_F(BadInputTest, PeerKeyRecords) {
  using enum PeerDownReason;
  const auto key = [](auto change) { return [change](Record& record) { change(record.dhKey); }; };
  const auto keyOf = [](IpsecDhGroup group) {
    return [group](Record& record) {
      IpsecDHGeneral dh(static_cast<DhGroupNum>(group));
      EXPECT_TRUE(dh.initIpsecDH() && dh.getMyPublicKey(&record.dhKey));
    };
  };
  const char* const badKey =
      "dhKey of the peer is no public key of group 19 , or our own; length :";
  const auto negative = [&](Record& record) {
    // The point of our own key with -y: the secret that it leads to is that of our own key.
    record.dhKey = host->ipsecLocalKeyDir->dhKey();
    const libcrypto::BigNum y(BN_bin2bn(record.dhKey.data() + 32, 32, nullptr));
    BIGNUM* prime = nullptr;
    BN_hex2bn(&prime, "FFFFFFFF00000001000000000000000000000000FFFFFFFFFFFFFFFFFFFFFFFF");
    const libcrypto::BigNum p(prime);
    BN_sub(y.get(), p.get(), y.get());
    BN_bn2binpad(y.get(), record.dhKey.data() + 32, 32);
  };
  const struct {
    const char* what;
    std::function<void(Record&)> change;
    PeerDownReason reason = none;
    std::string trace = {};  // Of why, with field and value.
  } rows[] = {
      {"empty key", key([](Bytes& k) { k.clear(); }), keyDerivationFailed,
       std::string(badKey) + " 0"},
      {"zeros", key([](Bytes& k) { k.assign(64, 0); }), keyDerivationFailed, badKey},
      {"short", key([](Bytes& k) { k.pop_back(); }), keyDerivationFailed,
       std::string(badKey) + " 63 expected : 64"},
      {"long", key([](Bytes& k) { k.push_back(0); }), keyDerivationFailed, badKey},
      {"off the curve", key([](Bytes& k) { k[40] ^= 1; }), keyDerivationFailed, badKey},
      {"with a form byte", key([](Bytes& k) { k.insert(k.begin(), 4); }), keyDerivationFailed,
       badKey},
      {"compressed", key([](Bytes& k) {
         k.resize(33);
         k[0] = 2;
       }),
       keyDerivationFailed, badKey},
      {"x alone", key([](Bytes& k) { k.resize(32); }), keyDerivationFailed, badKey},
      {"of a larger curve", keyOf(IpsecDhGroup::ecp384), keyDerivationFailed,
       std::string(badKey) + " 96"},
      {"of a MODP group", keyOf(IpsecDhGroup::modp2048), keyDerivationFailed,
       std::string(badKey) + " 256"},
      {"our own", [&](Record& r) { r.dhKey = host->ipsecLocalKeyDir->dhKey(); },
       keyDerivationFailed, badKey},
      {"the negative of our own", negative, keyDerivationFailed, badKey},
      {"that of another peer", [&](Record& r) { r.dhKey = bystander_->record.dhKey; }},
      {"key length 0", [](Record& r) { r.dhKeyLen = 0; }, dhKeyLengthMismatch,
       "DH length mismatch. Local DH length: 64 Remote DH length : 0"},
      {"key length that lies", [](Record& r) { r.dhKeyLen = UINT32_MAX; }, dhKeyLengthMismatch,
       "DH length mismatch. Local DH length: 64 Remote DH length : 4294967295"},
      {"no group", [](Record& r) { r.dhGroup = 0; }, dhGroupMismatch,
       "DH group mismatch. Local DH Group: 19 Remote DH Group : 0"},
      {"another group", [](Record& r) { r.dhGroup = 14; }, dhGroupMismatch, "DH group mismatch."},
      {"group of no registry", [](Record& r) { r.dhGroup = UINT32_MAX; }, dhGroupMismatch,
       "DH group mismatch. Local DH Group: 19 Remote DH Group : 4294967295"},
      {"empty nonce", [](Record& r) { r.nonce.clear(); }, keyDerivationFailed,
       "Failed to retrieve peer nonce"},
      {"short nonce", [](Record& r) { r.nonce.assign(1, 3); }},
      {"long nonce", [](Record& r) { r.nonce.assign(70000, 3); }},
      {"our own nonce", [&](Record& r) { r.nonce = host->ipsecLocalKeyDir->nonce(); }, none,
       "Both nonces are equal"},
      {"nonce length 0", [](Record& r) { r.nonceLen = 0; }, nonceLengthMismatch,
       "Nonce length mismatch. Local Nonce length: 32 Remote Nonce length : 0"},
      {"nonce length that lies", [](Record& r) { r.nonceLen = 33; }, nonceLengthMismatch,
       "Nonce length mismatch. Local Nonce length: 32 Remote Nonce length : 33"},
      {"no encryption", [](Record& r) { r.encryptAlgo = 0; }, encryptAlgoMismatch,
       "Encryption Algo mismatch. Local algo: 4 Remote algo : 0"},
      {"unknown encryption", [](Record& r) { r.encryptAlgo = 255; }, encryptAlgoMismatch,
       "Encryption Algo mismatch. Local algo: 4 Remote algo : 255"},
      {"unknown integrity", [](Record& r) { r.hashAlgo = 255; }, hashAlgoMismatch,
       "Integrity Algo mismatch. Local algo: 2 Remote algo : 255"},
      {"another originator", [](Record& r) { r.originatorId = IpGenAddr(); }},
      {"marks", [](Record& r) { r.valid = r.received = 255; }}};
  for (const auto& row : rows) {
    for (const bool isFirst : {true, false}) {
      SCOPED_TRACE(std::string(row.what) + (isFirst ? " first" : " later"));
      startOver();
      FakePeer peer = makePeer(2);
      const Record good = peer.record;
      const ConnectionKey path = addPath(peer, 1);
      startWithBystander();
      if (!isFirst) {
        deliver(peer);
        peer.rekey();
      }
      row.change(peer.record);
      {
        TraceCapture traces;
        deliver(peer);
        // The role is decided once.
        const bool says = isFirst || row.reason != none;
        EXPECT_TRUE(row.trace.empty() || !says || traces.has(row.trace)) << row.trace;
      }
      EXPECT_EQ(state(peer)->peerDownReason(), row.reason);
      EXPECT_EQ(state(peer)->peerConnStatus(),
                row.reason == none ? PeerConnStatus::ready : PeerConnStatus::down);
      EXPECT_EQ(sa(path, SaType::steadyOut) != nullptr, row.reason == none);
      expectBystanderUntouched();

      peer.record = good;
      peer.record.rekeyCounter = 7;
      peer.renew(0);
      deliver(peer);
      EXPECT_EQ(state(peer)->peerConnStatus(), PeerConnStatus::ready);
      EXPECT_TRUE(sa(path, SaType::steadyIn) && sa(path, SaType::steadyOut));
      expectBystanderUntouched();
    }
  }
}

// The same key and nonce under another counter lead to the same SAs: the path is built anew.
TEST_F(BadInputTest, AKeyThatIsPublishedAgainUnderAHigherCounter) {
  FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  expectComesUp(key);
  ++peer.record.rekeyCounter;
  deliver(peer);
  expectTablesAgree();
  for (int minute = 0; minute < 5; ++minute) {
    pass(key);
    run(60);
    installSas();
    expectTablesAgree();
  }
  expectComesUp(key);
}

TEST_F(BadInputTest, PeerKeysOfAModpGroup) {
  const libcrypto::BigNum prime(BN_get_rfc3526_prime_2048(nullptr));
  const auto near = [&](int offset) {
    const libcrypto::BigNum number(BN_dup(prime.get()));
    offset < 0 ? BN_sub_word(number.get(), static_cast<BN_ULONG>(-offset))
               : BN_add_word(number.get(), static_cast<BN_ULONG>(offset));
    Bytes bytes(256);
    BN_bn2binpad(number.get(), bytes.data(), 256);
    return bytes;
  };
  const auto small = [](uint8_t value) {
    Bytes bytes(256, 0);
    bytes.back() = value;
    return bytes;
  };
  settingsIs([](auto& settings) { settings.dhGroup = IpsecDhGroup::modp2048; });
  FakePeer peer = makePeer(2);
  peer.record.dhGroup = 14;
  peer.renew(0);
  const Record good = peer.record;
  addPath(peer, 1);
  start();
  for (const auto& [key, isGood] : {std::pair(small(0), false),
                                    {small(1), false},
                                    {near(-1), false},
                                    {near(0), false},
                                    {near(1), false},
                                    {Bytes(256, 0xFF), false},
                                    {small(2), true},
                                    {near(-2), true}}) {
    peer.record = good;
    peer.record.dhKey = key;
    deliver(peer);
    EXPECT_EQ(state(peer)->peerConnStatus() == PeerConnStatus::ready, isGood);
    takeAway(peer);
  }
}

TEST_F(BadInputTest, KeyControllerSettings) {
  using Settings = Ike::KeyControllerConfig;
  const auto group = [](int number) {
    return [number](Settings& s) { s.dhGroup = static_cast<IpsecDhGroup>(number); };
  };
  const struct {
    const char* what;
    std::function<void(Settings&)> change;
    std::string trace = {};  // Of why there is no key; empty: there is one.
  } rows[] = {
      {"no group", group(0), "initIpsecDH failed for DH Group : none(0)"},
      {"unassigned", group(3), "initIpsecDH failed for DH Group : unknown(3)"},
      {"not offered", group(18), "initIpsecDH failed for DH Group : unknown(18)"},
      {"of no registry", group(255), "initIpsecDH failed for DH Group : unknown(255)"},
      {"no profile", [](auto& s) { s.profileName = ""; }, "localKey is not ready profile:"},
      {"missing profile", [](auto& s) { s.profileName = "x"; }, "localKey is not ready profile: x"},
      {"long name", [](auto& s) { s.profileName = std::string(100000, 'x'); },
       "localKey is not ready profile: xxx"},
      {"key that lives no time", [](auto& s) { s.dhKeyLifetime = 0; }},
      {"a second", [](auto& s) { s.dhKeyLifetime = 1; }},
      {"as long as can be", [](auto& s) { s.dhKeyLifetime = UINT32_MAX; }},
      {"held as long as can be", [](auto& s) { s.holdTime = UINT32_MAX; }},
      {"held a second", [](auto& s) { s.holdTime = 1; }},
      {"switched off, whatever that is", [](auto& s) { s.enabled = 0; }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startOver();
    const FakePeer peer = makePeer(2);
    const ConnectionKey key = establish(peer);
    const Settings good = host->ipsecConfig->keyController();
    {
      TraceCapture traces;
      settingsIs(row.change);
      EXPECT_TRUE(row.trace.empty() || traces.has(row.trace));
    }
    EXPECT_EQ(host->ipsecLocalKeyDir->valid(), row.trace.empty());
    for (const bool connected : {false, true, false, true}) {
      host->controllerStatus->connectedIs(connected);
      run(100);
      installSas();
    }
    expectTablesAgree();
    // A key that is always due is replaced once a minute at most.
    EXPECT_LE(sm->localKey().localKeyInfo().size(), 2U);
    EXPECT_LE(host->ipsecLocalKeyDir->rekeyCounter(), 5U);
    host->ipsecConfig->keyControllerIs(good);
    EXPECT_TRUE(host->ipsecLocalKeyDir->valid());
    expectComesUp(key);
  }
}

TEST_F(BadInputTest, ProfilesAndSecurityAssociations) {
  constexpr uint32_t max = UINT32_MAX;
  const auto profile = [&] { return host->ipsecConfig->ipsecProfile(profileName); };
  const auto association = [&] { return host->ipsecConfig->securityAssoc(profileName); };
  enum Outcome { noKey, noUsableSa, up };
  const struct {
    const char* what;
    std::function<void()> change;
    Outcome outcome = up;
    const char* trace = nullptr;
  } rows[] = {{"no association", [&] { profile()->securityAssocNameIs(""); }, noKey,
               "Security association not configured"},
              {"missing association", [&] { profile()->securityAssocNameIs("x"); }, noKey,
               "Security association not configured x"},
              {"no mode", [&] { profile()->modeIs(""); }},
              {"unknown mode", [&] { profile()->modeIs("tunnel "); }},
              {"ports that go back",
               [&] {
                 profile()->encapSrcPortRangeIs({60000, 1});
               }},
              {"missing suite", [&] { association()->cryptoSuiteIs(1, "x"); }, noUsableSa,
               "Crypto suite not configured, publishing algorithm codes 0: x"},
              {"unknown encryption", [&] { association()->encryptAlgoIs(EncryptionAlgo{200}); },
               noUsableSa},
              {"unknown integrity", [&] { association()->integrityAlgoIs(IntegrityAlgo{200}); }},
              {"no limits", [&] { association()->lifetimeIs(0); }},
              {"limits of one",
               [&] {
                 association()->lifetimeIs(1);
                 association()->packetLimitIs(1);
                 association()->byteLimitIs(1);
               }},
              {"limits as high as can be", [&] {
                 association()->lifetimeIs(max);
                 association()->packetLimitIs(max);
                 association()->byteLimitIs(UINT64_MAX);
               }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startOver();
    FakePeer peer = makePeer(2);
    const ConnectionKey key = establish(peer);
    {
      TraceCapture traces;
      row.change();
      host->profileNotificationList->notificationIs(profileName)->changeCntInc(1);
      EXPECT_TRUE(row.trace == nullptr || traces.has(row.trace));
    }
    EXPECT_EQ(host->ipsecLocalKeyDir->valid(), row.outcome != noKey);
    // The peer is configured alike.
    peer.record.encryptAlgo = static_cast<uint8_t>(host->ipsecLocalKeyDir->encryptAlgo());
    peer.record.hashAlgo = static_cast<uint8_t>(host->ipsecLocalKeyDir->hashAlgo());
    deliver(peer);
    for (const auto& [saKey, made] : host->tesselV1->sa()) {
      EXPECT_EQ(made->cryptoAlgo().empty(), row.outcome == noUsableSa);
      const auto limits = vrf()->lifetimeCfg(saKey);
      EXPECT_LE(limits->softAddExpire(), limits->hardAddExpire());
      EXPECT_LE(limits->softPacketLimit(), limits->hardPacketLimit());
      EXPECT_LE(limits->softByteLimit(), limits->hardByteLimit());
    }
    EXPECT_EQ(host->tesselV1->sa().empty(), row.outcome == noKey);
    for (int minute = 0; minute < 10; ++minute) {
      if (row.outcome == up) {
        installSas();
        pass(key);
      }
      run(60);
      expectTablesAgree();
    }
    lab::writeProfile(*host->ipsecConfig, {.name = profileName, .sa = {.lifetime = 3600}});
    association()->cryptoSuiteDel(1);
    host->profileNotificationList->notification(profileName)->changeCntInc(1);
    takeAway(peer);
    peer = makePeer(2);
    deliver(peer);
    expectComesUp(key);
    EXPECT_EQ(sa(key, SaType::steadyOut)->cryptoAlgo(), "rfc4106(gcm(aes))");
  }
}

TEST_F(BadInputTest, PathData) {
  const IpGenAddr six = address("2001:db8::1"), otherSix = address("2001:db8::2");
  const struct {
    const char* what;
    ConnectionKey key;
    std::function<void(Path::PathStatus&)> change;
    bool up;
  } rows[] = {
      {"no peer", pathKey(1), [](auto& s) { s.remoteIpIs({}); }, false},
      {"our own router", pathKey(1), [](auto& s) { s.remoteIpIs(address("192.0.2.1")); }, false},
      {"a peer of nobody", pathKey(1), [](auto& s) { s.remoteIpIs(address("0.0.0.0")); }, false},
      {"no addresses", {0, {}, {}, 1}, {}, true},
      {"IPv6", {0, six, otherSix, 1}, {}, true},
      {"either family", {0, six, address("10.0.0.1"), 1}, {}, true},
      {"public address of the other family", pathKey(1), [&](auto& s) { s.publicIpIs(six); }, true},
      {"both ends alike", {0, six, six, 1}, {}, true},
      {"a VRF that is not served", {7, six, otherSix, 1}, {}, false},
      {"connection id as high as can be", {0, six, otherSix, UINT64_MAX}, {}, true},
      {"no name", pathKey(1), [](auto& s) { s.pathNameIs(""); }, true},
      {"unknown underlay", pathKey(1), [](auto& s) { s.stateIs(Path::UnderlayState{9}); }, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startOver();
    startWithBystander();
    const FakePeer peer = makePeer(2);
    describePath(*host, row.key, peer.address, "path");
    const auto good = pathStatus(row.key);
    if (row.change) {
      row.change(*good);
    }
    touchMerge(row.key);
    deliver(peer);
    installSas();
    run(130);
    EXPECT_EQ(sa(row.key, SaType::steadyOut) != nullptr, row.up);
    expectBystanderUntouched();
    if (row.key.vrfId == 0) {
      describePath(*host, row.key, peer.address, "path");
      good->publicIpIs({});
      touchMerge(row.key);
      expectComesUp(row.key);
      expectBystanderUntouched();
    }
  }
}

// Two paths between the same addresses under one request id would have the same SAs.
TEST_F(BadInputTest, TwoPathsWithOneRequestId) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey first = establish(peer);
  ConnectionKey second = first;
  second.connId = 9;
  describePath(*host, second, peer.address, "second");
  host->encapIdHelper->encapIdIs({second, kDynamicPathConnection}, {.reqid = path(first)->reqid()});
  const auto sas = path(first)->pathConnSaInfo().keys();
  {
    TraceCapture traces;
    touchMerge(second);
    EXPECT_TRUE(traces.has("SA belongs to another path already, reqid : 101"));
  }
  EXPECT_EQ(path(first)->pathConnSaInfo().keys(), sas);
  EXPECT_TRUE(path(second)->pathConnSaInfo().empty());
  expectTablesAgree();
  sm->paths().destroyPath(second);
  EXPECT_EQ(path(first)->pathConnSaInfo().keys(), sas);
  expectTablesAgree();
  host->encapIdHelper->encapIdIs({second, kDynamicPathConnection}, {.reqid = 4711});
  touchMerge(second);
  expectComesUp(second);
  EXPECT_EQ(path(first)->pathConnSaInfo().keys(), sas);
}

TEST_F(BadInputTest, WhatNoInputCanCauseEndsTheProcess) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey one = establish(peer, 1);
  const ConnectionKey two = establish(peer, 2);
  EXPECT_DEATH(sm->securityAssociations().doDeleteSA(sa(one, SaType::steadyIn), path(two)),
               "broken: an SA is deleted from another path");
  EXPECT_THROW(sm->clearCliPathIs(nullptr), NullArgument);
}

// Every reader of the counters goes on behind an entry that is corrupt.
TEST_F(BadInputTest, CorruptCounters) {
  host->ipsecConfig->securityAssoc(profileName)->packetLimitIs(100);
  const FakePeer peer = makePeer(2);
  const ConnectionKey corrupt = establish(peer, 1);
  const ConnectionKey sound = establish(peer, 2);
  for (const SaType type : {SaType::steadyIn, SaType::steadyOut}) {
    host->ipsecCounterTable->saCounterEntryCorruptIs(sa(corrupt, type)->sakey(), true);
  }
  host->ipsecCounterTable->sessionCounterEntryCorruptIs(path(corrupt)->reqid(), true);
  host->ipsecCounterTable->sessionCounterEntryIs(path(sound)->reqid()).pktsIn = 1;
  pass(corrupt, 10);
  pass(sound, 10);
  run(61);
  const uint32_t told = host->ipsecCounterTable->corruptionsDetected();
  EXPECT_GT(told, 20U);  // By the sweep every 5 s, the sanity pass and the periodic log.
  EXPECT_THAT(host->ipsecCounterTable->lastCorruption(), ::testing::HasSubstr("corrupt"));
  EXPECT_EQ(path(corrupt)->pathState(), DynamicPathState::established);
  EXPECT_EQ(path(sound)->pathState(), DynamicPathState::active);
  EXPECT_TRUE(path(sound)->sanityCheck());
  // An add time that cannot be is none that has passed.
  uint64_t& addTime =
      host->ipsecCounterTable->saCounterEntryIs(sa(sound, SaType::steadyOut)->sakey()).addTime;
  const uint64_t good = std::exchange(addTime, UINT64_MAX);
  pass(sound);
  run(11);
  EXPECT_FALSE(sa(sound, SaType::steadyOut)->rekey());
  addTime = good;
  pass(corrupt, 50);
  pass(sound, 100);
  run(11);
  EXPECT_TRUE(sa(sound, SaType::steadyOut)->rekey());
  EXPECT_FALSE(sa(corrupt, SaType::steadyOut)->rekey());
  // Sound again: the path is taken up where it stands.
  for (const SaType type : {SaType::steadyIn, SaType::steadyOut}) {
    host->ipsecCounterTable->saCounterEntryCorruptIs(sa(corrupt, type)->sakey(), false);
  }
  expectComesUp(corrupt);
}

}  // namespace
}  // namespace tessel::Ipsec
