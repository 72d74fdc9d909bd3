// The local key: when it may exist, how it is published, and what failures leave behind.
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class LocalKeyTest : public MachineTest {
 protected:
  void settingsIs(const std::function<void(Ike::KeyControllerConfig&)>& change) {
    Ike::KeyControllerConfig settings = host->ipsecConfig->keyController();
    change(settings);
    host->ipsecConfig->keyControllerIs(settings);
  }
  std::vector<uint64_t> generations() const { return sm->localKey().localKeyInfo().keys(); }
  /// No key: nothing published, nothing kept, no timer armed.
  void expectNoKey() const {
    EXPECT_FALSE(host->ipsecLocalKeyDir->valid());
    EXPECT_EQ(host->ipsecLocalKeyDir->rekeyCounter(), 0U);
    EXPECT_THAT(generations(), IsEmpty());
    EXPECT_EQ(host->ipsecStatus->localKeyState().firstGenerationTime, Duration());
    EXPECT_EQ(host->ipsecStatus->localKeyState().latestGenerationTime, Duration());
    for (const auto& timer : {sm->dhRekeyTimer(), sm->saRekeyTimer(), sm->updateRekeyTimer()}) {
      EXPECT_TRUE(!timer || timer->currentExpirationTime().isNever());
    }
  }
};

TEST_F(LocalKeyTest, ExistsOnlyWithAValidRouterIdAndAConfiguredProfile) {
  const IpGenAddr valid = address("192.0.2.1");
  const struct {
    IpGenAddr routerId;
    const char* profile;
    bool ready;
  } rows[] = {{valid, profileName, true},
              {valid, "", false},
              {valid, "missing", false},
              {address("0.0.0.0"), profileName, false},
              {IpGenAddr(), profileName, false},
              {address("::"), profileName, true}};  // An address that only IPv4 rules out.
  for (const auto& row : rows) {
    SCOPED_TRACE(row.routerId.stringValue() + " " + row.profile);
    startOver();
    host->ipsecDpsPathConfig->routerIdIs(IpGenAddr());
    settingsIs([](auto& settings) { settings.profileName = ""; });
    start();
    host->ipsecDpsPathConfig->routerIdIs(row.routerId);
    settingsIs([&](auto& settings) { settings.profileName = row.profile; });
    EXPECT_EQ(host->ipsecLocalKeyDir->valid(), row.ready);
    EXPECT_EQ(sm->dhRekeyTimer() != nullptr, row.ready);
  }
}

TEST_F(LocalKeyTest, IsPublishedWholeWhenItsVersionChanges) {
  host->ipsecStatus->testKnobIs()->forcedNonceIs("forced");
  host->ipsecLocalKeyDir->rekeyCounterIs(7);  // Of a machine before.
  const Controller::LocalKeyDir& dir = *host->ipsecLocalKeyDir;
  std::vector<std::string> written;
  const Meddler reader(dir,
                       [&](const Change& change) { written.emplace_back(change.attributeName()); });
  start();
  EXPECT_THAT(std::exchange(written, {}),
              ElementsAre("originatorId", "dhGroup", "dhKey", "dhKeyLen", "nonce", "nonceLen",
                          "encryptAlgo", "hashAlgo", "rekeyCounter", "valid", "updateVersion"));
  EXPECT_EQ(dir.nonce(), (Bytes{'f', 'o', 'r', 'c', 'e', 'd'}));
  EXPECT_EQ(dir.nonceLen(), 32U);
  EXPECT_EQ(dir.dhKeyLen(), 64U);
  EXPECT_THAT(events.take(), ElementsAre("local updateAppliedProfile 7", "local updateRouterId 7",
                                         "local generateLocalKeyInfo 7", "local generateDhKey 0",
                                         "local generateOrDestroyDhKey 0"));

  // A fresh key under the same counter.
  host->ipsecStatus->testKnob()->forcedNonceIs("");
  sm->localKey().generateOrDestroyDhKey();
  EXPECT_THAT(std::exchange(written, {}), ElementsAre("dhKey", "nonce", "updateVersion"));
  EXPECT_EQ(sm->localKey().localKeyInfo(0)->publicKey, dir.dhKey());

  // Withdrawn: invalid first, and told before the counter goes.
  sm->localKey().generateLocalKeyInfo(1);
  sm->localKey().updateLocalKeyInfo(1);
  written.clear();
  (void)events.take();
  host->ipsecDpsPathConfig->routerIdIs(address("0.0.0.0"));
  EXPECT_THAT(std::exchange(written, {}), ElementsAre("valid", "updateVersion", "rekeyCounter"));
  EXPECT_THAT(events.take(),
              ElementsAre("local updateRouterId 1", "local destroyDhKey 0",
                          "local generateOrDestroyDhKey 0", "local handleRouterId 0"));
  expectNoKey();
}

TEST_F(LocalKeyTest, AFailureLeavesNothingHalfDone) {
  const auto drawFails = [](int draw) {
    return [=] { RandomSource::currentIs(makePtr<FailingRandomSource>(draw)); };
  };
  const struct {
    const char* trace;
    std::function<void()> disturb;
  } rows[] = {
      {"ipsec profile config missing", [&] { host->ipsecConfig->ipsecProfileDel(profileName); }},
      {"VTEP IP is not configured or the address is invalid",
       [&] {
         host->ipsecDpsPathConfig->routerIdIs(IpGenAddr());
         host->ipsecLocalKeyDir->originatorIdIs(IpGenAddr());
       }},
      {"Security association not configured",
       [&] { host->ipsecConfig->securityAssocDel(profileName); }},
      {"initIpsecDH failed for DH Group :",
       [&] { settingsIs([](auto& settings) { settings.dhGroup = IpsecDhGroup(18); }); }},
      {"Failed to retrive local public key", drawFails(1)},
      {"Failed to generate nonce", drawFails(2)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    startOver();
    start();
    const Ptr<LocalKeyInfo> generation = sm->localKey().localKeyInfo(0);
    const Ike::LocalKeyState times = host->ipsecStatus->localKeyState();
    sm->hasNotificationActiveIs(false);  // A change of the settings would generate the key anew.
    row.disturb();
    run(1);
    TraceCapture traces;
    EXPECT_FALSE(sm->localKey().generateLocalKeyInfo(1));
    EXPECT_TRUE(traces.has(row.trace));
    EXPECT_FALSE(sm->localKey().generateLocalKeyInfo(0));
    EXPECT_FALSE(sm->localKey().updateLocalKeyInfo(1));
    EXPECT_THAT(generations(), ElementsAre(0));
    EXPECT_EQ(sm->localKey().localKeyInfo(0), generation);
    EXPECT_EQ(host->ipsecLocalKeyDir->dhKey(), generation->publicKey);
    EXPECT_EQ(host->ipsecStatus->localKeyState(), times);

    // A fresh key that cannot be made takes the old one away, and a machine that starts has none.
    sm->localKey().doGenerateDhKey();
    expectNoKey();
    sm = nullptr;
    start();
    expectNoKey();
  }
}

TEST_F(LocalKeyTest, GenerationsAreKeptUntilTheyAreRetired) {
  host->ipsecStatus->localKeyStateIs({{}, {}, 0xABCDEF});
  run(5);
  const Duration first = time->utcTime();
  start();
  EXPECT_EQ(host->ipsecStatus->localKeyState(), (Ike::LocalKeyState{first, first, 0xABCDEF}));
  run(5);
  for (uint64_t counter = 1; counter <= 4; ++counter) {
    EXPECT_TRUE(sm->localKey().generateLocalKeyInfo(counter));
  }
  EXPECT_EQ(host->ipsecStatus->localKeyState(),
            (Ike::LocalKeyState{first, time->utcTime(), 0xABCDEF}));
  EXPECT_TRUE(sm->localKey().updateLocalKeyInfo(3));
  EXPECT_EQ(host->ipsecLocalKeyDir->rekeyCounter(), 3U);

  sm->dhRekey().setLocalDhState(3, DhRekeyState::inProgress);
  sm->localKey().deleteOldLocalKeys();
  EXPECT_THAT(generations(), ElementsAre(0, 1, 2, 3, 4));
  sm->dhRekey().setLocalDhState(3, DhRekeyState::notRekeying);
  sm->localKey().deleteOldLocalKeys();
  EXPECT_THAT(generations(), ElementsAre(3, 4));

  // Counter 0 afresh: the higher ones are of another lineage.
  sm->localKey().doGenerateDhKey();
  EXPECT_THAT(generations(), ElementsAre(0));
  EXPECT_EQ(host->ipsecLocalKeyDir->rekeyCounter(), 0U);

  // Replacing a generation voids what peers shared with it.
  sm->localKey().localKeyInfo(0)->sharedSecretIs(address("192.0.2.2")).secretLen = 32;
  EXPECT_TRUE(sm->localKey().generateLocalKeyInfo(0));
  EXPECT_TRUE(sm->localKey().localKeyInfo(0)->sharedSecret().empty());

  host->ipsecDpsPathConfig->routerIdIs(IpGenAddr());
  EXPECT_EQ(host->ipsecStatus->localKeyState(), (Ike::LocalKeyState{{}, {}, 0xABCDEF}));
}

TEST_F(LocalKeyTest, AlgorithmsAreThoseOfTheMostPreferredSuite) {
  const auto suite = [&](const char* name, IpsecEspAlgorithm encrypt, IpsecHmacAlgorithm hash) {
    host->ipsecConfig->saCryptoSuiteConfigIs(name)->encryptAlgoIs(encrypt);
    host->ipsecConfig->saCryptoSuiteConfigIs(name)->integrityAlgoIs(hash);
  };
  suite("cbc", IpsecEspAlgorithm::aes128Cbc, IpsecHmacAlgorithm::sha1);
  suite("gcm", IpsecEspAlgorithm::aes128Gcm64, IpsecHmacAlgorithm::sha512);
  const auto association = host->ipsecConfig->securityAssoc(profileName);
  start();
  const auto expectPublished = [&](uint16_t encrypt, uint16_t hash) {
    sm->localKey().generateOrDestroyDhKey();
    EXPECT_EQ(host->ipsecLocalKeyDir->encryptAlgo(), encrypt);
    EXPECT_EQ(host->ipsecLocalKeyDir->hashAlgo(), hash);
  };
  expectPublished(4, 2);  // The association's own.
  association->cryptoSuiteIs(9, "cbc");
  association->cryptoSuiteIs(2, "gcm");
  expectPublished(2, 4);  // The lowest number, listed last.
  association->cryptoSuiteIs(0, "cbc");
  expectPublished(1, 1);
  association->cryptoSuiteIs(0, "not configured");
  expectPublished(0, 0);
}

TEST_F(LocalKeyTest, TheAppliedProfileIsTheOneThatTheSettingsName) {
  host->ipsecConfig->ipsecProfileIs("B")->securityAssocNameIs(profileName);
  host->ipsecStatus->appliedProfilesIs("interface");  // Something else applies it.
  start();
  const auto& applied = host->ipsecStatus->appliedProfiles();
  EXPECT_THAT(applied.keys(), ElementsAre("interface", profileName));
  uint32_t published = host->ipsecLocalKeyDir->updateVersion();

  // The same name: no event, but a fresh key.
  (void)events.take();
  settingsIs([](auto& s) { s.dhKeyLifetime = 1000; });
  EXPECT_THAT(events.take(),
              ElementsAre("local generateLocalKeyInfo 0", "local generateDhKey 0",
                          "local generateOrDestroyDhKey 0", "local handleKeyController 0"));
  EXPECT_EQ(host->ipsecLocalKeyDir->updateVersion(), published + 1);

  settingsIs([](auto& s) { s.profileName = "B"; });
  EXPECT_THAT(applied.keys(),
              ElementsAre("interface", "B"));  // Nothing applies the other one any more.

  // Notifications: only the applied profile's count.
  published = host->ipsecLocalKeyDir->updateVersion();
  host->ipsecStatus->appliedProfilesIs(profileName);
  host->profileNotificationList->notificationIs(profileName);
  host->profileNotificationList->notificationIs("unknown");
  EXPECT_EQ(host->ipsecLocalKeyDir->updateVersion(), published);
  host->profileNotificationList->notificationIs("B");
  EXPECT_EQ(host->ipsecLocalKeyDir->updateVersion(), published + 1);

  // The profile is taken away, and given back: told by its notification both times.
  host->ipsecConfig->ipsecProfileDel("B");
  EXPECT_TRUE(host->ipsecLocalKeyDir->valid());
  host->profileNotificationList->notification("B")->changeCntInc(1);
  expectNoKey();
  host->ipsecConfig->ipsecProfileIs("B")->securityAssocNameIs(profileName);
  host->profileNotificationList->notification("B")->changeCntInc(1);
  EXPECT_TRUE(host->ipsecLocalKeyDir->valid());

  settingsIs([](auto& s) { s.profileName = ""; });
  EXPECT_THAT(applied.keys(), ElementsAre("interface", profileName));
  expectNoKey();
}

}  // namespace
}  // namespace tessel::Ipsec
