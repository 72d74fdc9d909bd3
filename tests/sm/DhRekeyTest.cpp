// DH rekey: which role a path gets, which out-SA it installs, and what the loss of the controllers
// does to the timers.
#include <set>
#include <string>
#include <vector>

#include "host/facility/AgentLog.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

using ::testing::ElementsAreArray;

class DhRekeyTest : public MachineTest {
 protected:
  DhRekey& dhRekey() const { return sm->dhRekey(); }
};

TEST_F(DhRekeyTest, EveryPathStateIsMarkedForItsRole) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  const ConnectionKey other = establish(makePeer(3), 2);  // Of another peer.
  const auto in = [](int number, int from, int to) { return from <= number && number <= to; };
  for (int number = 0; number < 32; ++number) {
    SCOPED_TRACE(number);
    const auto markedFrom = [&](bool initiator) {
      path(key)->pathStateIs(static_cast<DynamicPathState>(number));
      path(other)->pathStateIs(DynamicPathState::active);
      initiator ? dhRekey().markPathsAsDhRekeyInitiated()
                : dhRekey().markPathsAsDhRekeyResponder(peer.address);
      EXPECT_EQ(path(other)->pathState(),
                initiator ? DynamicPathState::dhInitiatorMarked : DynamicPathState::active);
      return static_cast<int>(path(key)->pathState());
    };
    const bool quiet = in(number, 1, 3) || in(number, 17, 28);
    EXPECT_EQ(markedFrom(true), quiet ? 4 : in(number, 9, 12) ? 14 : 31);
    EXPECT_EQ(markedFrom(false), quiet ? 9 : in(number, 4, 8) ? 13 : 31);
  }
}

TEST_F(DhRekeyTest, TheRoleFollowsFromWhichGenerationsAreTheNewest) {
  start();
  const struct {
    DhKeyPair pair;
    SmState whileRekeying;
    SmState otherwise;
  } rows[] = {{{5, 6}, SmState::initiator, SmState::initiator},
              {{5, 7}, SmState::initiator, SmState::responder},
              {{4, 7}, SmState::responder, SmState::responder},
              {{4, 6}, SmState::noRole, SmState::noRole}};
  for (const auto& row : rows) {
    SCOPED_TRACE(stringValue(row.pair));
    for (const auto state : {DhRekeyState::initiated, DhRekeyState::inSaInstalled,
                             DhRekeyState::inProgress, DhRekeyState::notRekeying}) {
      dhRekey().setLocalDhState(5, state);
      EXPECT_EQ(dhRekey().getDhRekeyRole(row.pair, 5, 7),
                state == DhRekeyState::notRekeying ? row.otherwise : row.whileRekeying);
    }
  }
}

TEST_F(DhRekeyTest, TheTestKnobSetsExpiryWithinReason) {
  host->ipsecDpsPathConfig->routerIdIs(IpGenAddr());
  start();
  EXPECT_FALSE(dhRekey().hasDhTimerExpired());  // There is no key yet.
  EXPECT_TRUE(dhRekey().checkAllLocalSaState(0, DhRekeyState::inSaInstalled));  // Nor a path.
  host->ipsecDpsPathConfig->routerIdIs(address("192.0.2.1"));
  run(1000);
  const Ptr<Ike::TestKnob>& knob = host->ipsecStatus->testKnob();
  knob->dhExpiryTimeIs(seconds(300));
  EXPECT_TRUE(dhRekey().hasDhTimerExpired());
  knob->dhExpiryTimeIs(seconds(299.9));
  EXPECT_FALSE(dhRekey().hasDhTimerExpired());
  EXPECT_FALSE(knob->dhExpiryTime());  // Taken back.
}

TEST_F(DhRekeyTest, APeerThatOnePathMarkedDownTakesPart) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  state(peer)->peerConnStatusIs(PeerConnStatus::down);
  ASSERT_TRUE(sm->localKey().generateLocalKeyInfo(1));
  dhRekey().dhRekeyBacklogProcessElem(peer.address);
  EXPECT_EQ(state(peer)->peerConnStatus(), PeerConnStatus::ready);
  ASSERT_TRUE(sa(key, SaType::dhRekeyIn));
  EXPECT_EQ(sa(key, SaType::dhRekeyIn)->dhKeyPair(), (DhKeyPair{1, 0}));
}

TEST_F(DhRekeyTest, ARekeyThatIsForcedAgainStartsOver) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  const auto force = [&] {
    host->ipsecStatus->testKnob()->dhRekeyTriggerIs(true);
    dhRekey().handleDhRekeyTimer();
    run(0);
    return sa(key, SaType::dhRekeyIn);
  };
  const auto first = force();
  ASSERT_TRUE(first);
  const auto second = force();
  ASSERT_TRUE(second);
  EXPECT_NE(first->sakey().spi, second->sakey().spi);  // Of another key, under the same number.
  EXPECT_EQ(first->dhKeyPair(), second->dhKeyPair());
  EXPECT_EQ(path(key)->pathConnSaInfo().size(), 3U);
  expectTablesAgree();

  // A path that lost its in-SA gets it again, in the place of a retired one with the same key.
  second->saTypeIs(SaType::retiredIn);
  EXPECT_TRUE(dhRekey().catchUpPaths(peer.address));
  EXPECT_FALSE(sa(key, SaType::retiredIn));
  ASSERT_TRUE(sa(key, SaType::dhRekeyIn));
  EXPECT_EQ(sa(key, SaType::dhRekeyIn)->sakey(), second->sakey());
  EXPECT_FALSE(dhRekey().catchUpPaths(peer.address));
  expectTablesAgree();

  run(121);  // Past the delay after the first peer.
  // A key that is gone when it is to be published leaves the published one.
  sm->localKey().localKeyInfoDel(1);
  dhRekey().setLocalDhState(1, DhRekeyState::inSaInstalled);
  TraceCapture traces;
  dhRekey().handleDhRekeyTimer();
  EXPECT_EQ(host->ipsecLocalKeyDir->rekeyCounter(), 0U);
  EXPECT_EQ(dhRekey().dhRekeyState(), DhRekeyState::inSaInstalled);
  EXPECT_TRUE(traces.has("Failed to update local key information"));
}

TEST_F(DhRekeyTest, OnlyPathsThatCanTakePartAreWaitedFor) {
  const ConnectionKey waits = pathKey(2);
  const struct {
    const char* what;
    std::function<void()> disturb;
  } rows[] = {
      {"", [] {}},
      {"the path is not wanted", [&] { pathStatus(waits)->establishAllowedIs(false); }},
      {"its underlay is down",
       [&] { pathStatus(waits)->stateIs(static_cast<Path::UnderlayState>(1)); }},
      {"its status is gone", [&] { host->ipsecPathStatusDir->ipsecPathStatusDel(waits); }},
      {"its connection is gone", [&] { host->ipsecStatus->ipsecConnectionStatusInfoDel(waits); }},
      {"its connection is not up",
       [&] { host->ipsecStatus->ipsecConnectionStatusInfo(waits)->connectionStateIs(1); }},
      {"its peer is down",
       [&] {
         host->ipsecStatus->ipsecPeerConnectionState(address("192.0.2.3"))
             ->peerConnStatusIs(PeerConnStatus::down);
       }},
      {"it has no in-SA",
       [&] { sm->securityAssociations().doDeleteSA(sa(waits, SaType::steadyIn), path(waits)); }},
      {"it has no out-SA",
       [&] { sm->securityAssociations().doDeleteSA(sa(waits, SaType::steadyOut), path(waits)); }},
      {"it has no rekey machine", [&] { sm->paths().rekeySmDel(waits); }},
      {"it has waited for a minute", [&] { run(60.1); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    startOver();
    start();  // Before the peers: keys are drawn from one source.
    const ConnectionKey done = establish(makePeer(2), 1);
    establish(makePeer(3), 2);
    run(121);
    host->ipsecStatus->testKnob()->dhRekeyTriggerIs(true);
    dhRekey().handleDhRekeyTimer();
    run(0);
    host->ipsecCounterTable->saCounterEntryIs(sa(done, SaType::dhRekeyIn)->sakey()).addTime = 1;
    run(6);  // A sweep takes in what is installed.
    EXPECT_EQ(path(done)->pathState(), DynamicPathState::dhInitiatorInSaInstalled);
    EXPECT_EQ(path(waits)->pathState(), DynamicPathState::dhInitiatorMarked);
    row.disturb();
    dhRekey().handleDhRekeyTimer();
    const bool goesOn = std::string(row.what) != "";
    EXPECT_EQ(host->ipsecLocalKeyDir->rekeyCounter(), goesOn ? 1U : 0U);
    EXPECT_EQ(dhRekey().dhRekeyState(),
              goesOn ? DhRekeyState::inProgress : DhRekeyState::initiated);
  }
}

// The data path can report any SA at any time: one that has no part in what its path is doing moves
// nothing.
TEST_F(DhRekeyTest, AnInstalledSaOfNoRekeyMovesNothing) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  const Ptr<RekeySm> rekeySm = sm->paths().rekeySm(key);
  const auto out = sa(key, SaType::steadyOut);
  const auto expectNothing = [&](const Ptr<Ike::SecurityAssociation>& installed) {
    path(key)->pathStateIs(DynamicPathState::idle);
    (void)events.take();
    rekeySm->handleSaInstalled(installed->sakey());
    EXPECT_EQ(path(key)->pathState(), DynamicPathState::idle);
    EXPECT_THAT(events.take(), IsEmpty());
  };
  out->saTypeIs(SaType::retiredOut);
  for (const SmState role : {SmState::initiator, SmState::responder}) {
    path(key)->saSmStateIs(role);
    expectNothing(out);
    path(key)->dhStateIs({0, 0})->dhSmStateIs(role);
    expectNothing(out);
    path(key)->dhStateDelAll();
  }
  // Nor does an SA rekey make an out-SA beside the newer one of a DH rekey.
  Ike::CryptoInfo info = state(peer)->dhCryptoInfo({0, 0})->cryptoInfo();
  ++info.firstSpi;
  state(peer)->dhCryptoInfoIs({1, 0})->cryptoInfoIs(info);
  sm->securityAssociations().doCreateIpsecControllerSAs(key, {1, 0}, profileName, 0,
                                                        SaType::dhRekeyOut);
  ASSERT_TRUE(sa(key, SaType::dhRekeyOut));
  path(key)->saSmStateIs(SmState::initiator);
  const auto in = sa(key, SaType::steadyIn);
  in->saTypeIs(SaType::saRekeyIn);
  expectNothing(in);
  EXPECT_FALSE(sa(key, SaType::saRekeyOut));
}

/// One path whose in-SAs and out-SA in use are of any generations.
class DhRekeyOutSaTest : public DhRekeyTest {
 protected:
  using Pair = DhKeyPair;

  DhRekeyOutSaTest() : key_(establish(peer_)) {
    info_ = state(peer_)->dhCryptoInfo(Pair{0, 0})->cryptoInfo();
  }

  /// The pair and path state that come of asking for the out-SA of `asked` while `current` is in
  /// use. There is crypto of `pairs`, each with its in-SA but for `missing`.
  std::pair<std::optional<Pair>, DynamicPathState> installed(Pair asked, Pair current,
                                                             const std::vector<Pair>& pairs,
                                                             uint64_t local, uint64_t published,
                                                             std::optional<Pair> missing = {}) {
    for (const auto& [saKey, saInfo] : path(key_)->pathConnSaInfo()) {
      sm->securityAssociations().doDeleteSA(saInfo->sa(), path(key_));
    }
    state(peer_)->dhCryptoInfoDelAll();
    host->ipsecLocalKeyDir->rekeyCounterIs(local);
    peer_.record.rekeyCounter = published;
    publish(peer_);
    for (const Pair& pair : pairs) {
      Ike::CryptoInfo own = info_;  // Every generation has SPIs of its own.
      own.firstSpi += static_cast<uint32_t>(100 * pair.localRekeyCount + pair.peerRekeyCount);
      own.secondSpi += static_cast<uint32_t>(100 * pair.localRekeyCount + pair.peerRekeyCount);
      state(peer_)->dhCryptoInfoIs(pair)->cryptoInfoIs(own);
      if (pair != missing) {
        sm->securityAssociations().doCreateIpsecControllerSAs(
            key_, pair, profileName, path(key_)->reqid(), SaType::dhRekeyIn);
      }
    }
    const Ptr<RekeySm> rekeySm = sm->paths().rekeySm(key_);
    path(key_)->curOutSaDhKeyPairIs(current);
    path(key_)->pathStateIs(DynamicPathState::idle);
    rekeySm->installDhRekeyOutSa(
        rekeySm->getSaFromDhKeyPairAndType(asked, SaType::dhRekeyIn)->sakey());
    const auto outSa = sa(key_, SaType::dhRekeyOut);
    return {outSa ? std::optional(outSa->dhKeyPair()) : std::nullopt, path(key_)->pathState()};
  }

  FakePeer peer_ = makePeer(2);
  const ConnectionKey key_;
  Ike::CryptoInfo info_;
};

TEST_F(DhRekeyOutSaTest, IsInstalledForTheNewestGenerationAlone) {
  const auto of = [](Pair pair, DynamicPathState state = DynamicPathState::idle) {
    return std::pair(std::optional(pair), state);
  };
  const std::pair nothing(std::optional<Pair>(), DynamicPathState::idle);
  constexpr auto handedOver = DynamicPathState::dhLatestOutSaInstalling;
  // An in-SA of an older local generation than the out-SA in use: an old one, one while neither is
  // the latest, one while the latest is in use already, one while something newer is.
  EXPECT_EQ(installed({3, 4}, {4, 4}, {{3, 4}, {4, 5}}, 4, 5), nothing);
  EXPECT_EQ(installed({3, 6}, {4, 4}, {{3, 6}, {5, 5}}, 5, 6), nothing);
  EXPECT_EQ(installed({3, 5}, {4, 5}, {{3, 5}, {4, 5}}, 4, 5), nothing);
  EXPECT_EQ(installed({3, 5}, {4, 6}, {{3, 5}, {4, 5}}, 4, 5), nothing);
  // It hands over to the latest one, across several generations too, when that has an in-SA.
  EXPECT_EQ(installed({3, 5}, {4, 4}, {{3, 5}, {4, 5}}, 4, 5), of({4, 5}, handedOver));
  EXPECT_EQ(installed({3, 6}, {4, 4}, {{3, 6}, {4, 6}}, 4, 6), of({4, 6}, handedOver));
  EXPECT_EQ(installed({3, 5}, {4, 4}, {{3, 5}, {4, 5}}, 4, 5, Pair{4, 5}), nothing);
  // The same local generation: an older and the newest key of the peer.
  EXPECT_EQ(installed({4, 4}, {4, 4}, {{4, 4}, {4, 5}}, 4, 5), nothing);
  EXPECT_EQ(installed({4, 5}, {4, 4}, {{4, 5}}, 4, 5), of({4, 5}));
  // A newer local generation: the latest pair, another one with and without an in-SA of the latest,
  // one that is not published.
  EXPECT_EQ(installed({5, 5}, {4, 5}, {{4, 5}, {5, 5}}, 5, 5), of({5, 5}));
  EXPECT_EQ(installed({5, 5}, {4, 5}, {{5, 5}, {5, 6}}, 5, 6), of({5, 6}));
  EXPECT_EQ(installed({5, 5}, {4, 5}, {{5, 5}, {5, 6}}, 5, 6, Pair{5, 6}), nothing);
  EXPECT_EQ(installed({5, 5}, {4, 5}, {{4, 5}, {5, 5}}, 4, 5), nothing);
  // The latest pair is of a key that the peer cannot know yet; two pairs are the latest.
  EXPECT_EQ(installed({5, 5}, {4, 5}, {{5, 5}, {6, 5}}, 5, 5), of({5, 5}));
  EXPECT_EQ(installed({4, 5}, {4, 4}, {{4, 5}, {5, 4}}, 4, 5), nothing);
}

/// What the operator reads, in order.
class LogCapture final : public AgentLogSink {
 public:
  LogCapture() { AgentLog::sinkIs(this); }
  ~LogCapture() override { AgentLog::sinkIs(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> take() { return std::exchange(lines_, {}); }

 private:
  void log(const AgentLogLine& line) override { lines_.emplace_back(line.identifier); }
  std::vector<std::string> lines_;
};

class HoldTimerTest : public DhRekeyTest {
 protected:
  static constexpr const char* kPaused = "TESSEL_DH_REKEY_PAUSED";
  static constexpr const char* kResumed = "TESSEL_DH_REKEY_RESUMED";
  static constexpr const char* kExpired = "TESSEL_HOLDTIMER_EXPIRED";

  HoldTimerTest() {
    auto keyController = host->ipsecConfig->keyController();
    keyController.holdTime = 600;
    host->ipsecConfig->keyControllerIs(keyController);
    establish(peer_);
    run(130);  // Past the delay after the first peer.
    (void)log_.take();
  }
  void connectedIs(bool connected) { host->controllerStatus->connectedIs(connected); }
  bool holding() const { return dhRekey().isHoldTimerRunning(); }
  /// Has the key fall due at once; its lifetime is 300 s from here on.
  void makeKeyDue() {
    run(300);
    host->ipsecStatus->testKnob()->dhExpiryTimeIs(seconds(300));
    run(61);
  }

  const FakePeer peer_ = makePeer(2);
  LogCapture log_;
};

TEST_F(HoldTimerTest, ALossCostsTheKeyWhenItOutlastsTheHold) {
  uint32_t times = 0;
  for (const bool inTime : {true, false}) {
    const Bytes key = host->ipsecLocalKeyDir->dhKey();
    connectedIs(false);
    EXPECT_TRUE(holding());
    run(inTime ? 599.9 : 600.1);
    EXPECT_EQ(holding(), inTime);
    EXPECT_EQ(host->ipsecLocalKeyDir->dhKey(), key);
    connectedIs(true);
    run(0);
    EXPECT_THAT(log_.take(), inTime ? ElementsAreArray({kPaused, kResumed})
                                    : ElementsAreArray({kPaused, kExpired, kResumed}));
    EXPECT_FALSE(holding());
    EXPECT_EQ(host->ipsecLocalKeyDir->dhKey() == key, inTime);
    ++times;
    EXPECT_EQ(std::pair(sm->lostConnectionToPfs(), sm->restoredConnectionToPfs()),
              std::pair(times, times));
  }
}

TEST_F(HoldTimerTest, ARekeyThatFallsDueWaitsForTheEndOfTheHold) {
  for (const bool restored : {true, false}) {
    SCOPED_TRACE(restored);
    connectedIs(false);
    makeKeyDue();
    EXPECT_TRUE(dhRekey().needDhRekey());
    EXPECT_EQ(dhRekey().dhRekeyState(), DhRekeyState::notRekeying);
    restored ? connectedIs(true) : run(600 - 361);
    EXPECT_FALSE(dhRekey().needDhRekey());
    run(0.9);
    EXPECT_EQ(dhRekey().dhRekeyState(), DhRekeyState::notRekeying);
    run(0.2);
    EXPECT_EQ(dhRekey().dhRekeyState(), DhRekeyState::initiated);
    host->ipsecStatus->testKnob()->dhExpiryTimeIs(std::nullopt);
    installSas();
    run(70);
    EXPECT_EQ(dhRekey().dhRekeyState(), DhRekeyState::inProgress);
    dhRekey().setLocalDhState(host->ipsecLocalKeyDir->rekeyCounter(), DhRekeyState::notRekeying);
    (void)log_.take();
  }
}

TEST_F(HoldTimerTest, LossesAndChangesInQuickSuccession) {
  connectedIs(false);
  connectedIs(true);
  connectedIs(false);  // All within one instant: the last word counts.
  EXPECT_THAT(log_.take(), ElementsAre(kPaused, kResumed, kPaused));
  EXPECT_TRUE(holding());
  EXPECT_EQ(sm->lostConnectionToPfs(), 2U);

  auto changed = host->ipsecConfig->keyController();
  changed.dhKeyLifetime = 7200;
  host->ipsecConfig->keyControllerIs(changed);
  EXPECT_FALSE(holding()) << "a change of the settings during an outage ends the hold";
  changed.holdTime = 0;
  host->ipsecConfig->keyControllerIs(changed);
  connectedIs(true);
  connectedIs(false);
  EXPECT_FALSE(holding()) << "no hold time";
}

}  // namespace
}  // namespace tessel::Ipsec
