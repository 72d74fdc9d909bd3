// Peer keys: what a record means given what is known of the peer, and what is forgotten when.
#include <bit>

#include "sm/PeerRecovery.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class PeerKeysTest : public MachineTest {
 protected:
  using Counters = std::vector<uint32_t>;

  /// New keys, rekeys, restarts, repetitions, removals.
  Counters counters() const {
    return {sm->peerKeyTaskNewKey(), sm->peerKeyTaskRekey(), sm->peerKeyTaskNewKeyWithDel(),
            sm->peerKeyTaskNoOp(), sm->peerKeyTaskDelKey()};
  }
  std::vector<uint64_t> generations(const FakePeer& peer) const {
    const auto list = sm->peerKeys().localPeerKeyInfoList(peer.address);
    return list ? list->peerKeyInfo().keys() : std::vector<uint64_t>();
  }
};

TEST_F(PeerKeysTest, ARecordIsClassifiedByCounterAndNonce) {
  const Counters rekey{1, 1, 0, 0, 0}, restart{1, 0, 1, 0, 0}, same{1, 0, 0, 1, 0};
  constexpr uint64_t max = UINT64_MAX;
  const struct {
    uint64_t oldCounter, newCounter;
    bool newNonce;
    Counters counters;
  } rows[] = {{5, 5, false, same},           {5, 5, true, restart},    {5, 4, true, restart},
              {5, 0, false, restart},        {5, 6, true, rekey},      {5, 9, true, rekey},
              {1, max / 2 + 1, true, rekey}, {max, max, true, restart}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.oldCounter) + " " + std::to_string(row.newCounter));
    FakePeer peer = makePeer(2);
    peer.record.rekeyCounter = row.oldCounter;
    establish(peer);
    const auto oldState = state(peer);
    (void)events.take();

    peer.record.rekeyCounter = row.newCounter;
    peer.renew(row.newNonce ? 0x01 : 0x00);
    peer.record.received = 1;  // The directory tells also when only a mark of it changes.
    deliver(peer);
    EXPECT_EQ(counters(), row.counters);
    EXPECT_EQ(state(peer) == oldState, row.counters != restart);
    EXPECT_EQ(state(peer)->rekeyCounter(), row.newCounter);
    EXPECT_EQ(state(peer)->peerConnStatus(), PeerConnStatus::ready);
    EXPECT_THAT(events.take(),
                Contains("peer 192.0.2.2 createPeerKeyInfo").Times(row.counters == same ? 0 : 1));
    const std::vector<uint64_t> both = {row.oldCounter, row.newCounter}, newest = {row.newCounter};
    EXPECT_EQ(generations(peer), row.counters == rekey ? both : newest);
    expectTablesAgree();
    finish(peer);
  }
}

TEST_F(PeerKeysTest, NothingIsTakenInBeforeTheLocalKeyExists) {
  const FakePeer early = makePeer(2);
  host->ipsecDpsPathConfig->routerIdIs(IpGenAddr());
  start();
  deliver(early);
  sm->peerKeys().handlePeerKeyInfo();
  sm->peerKeys().handlePendingPeerKeyInfo();
  sm->peerKeys().doCreatePeerKeyInfo(early.address, early.record);
  run(0);
  EXPECT_THAT(counters(), ElementsAre(0, 0, 0, 0, 0));
  EXPECT_THAT(generations(early), IsEmpty());
  host->ipsecDpsPathConfig->routerIdIs(address("192.0.2.1"));
  run(0);
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0, 0));

  // Only those without state are pending; a directory of known peers schedules nothing.
  deliver(makePeer(3));
  sm->peerKeys().handlePendingPeerKeyInfo();
  EXPECT_FALSE(time->runNext(time->monotonicTime()));
  sm->peerKeys().handlePeerKeyInfo();
  run(0);
  EXPECT_THAT(counters(), ElementsAre(2, 0, 0, 2, 0));
}

TEST_F(PeerKeysTest, SeveralChangesBeforeTheTaskRunsAreHandledOnceOnTheLatestRecord) {
  FakePeer peer = makePeer(2);
  FakePeer self = makePeer(1);
  start();
  publish(peer);
  withdraw(peer);
  peer.rekey();
  deliver(peer);
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0, 0));
  EXPECT_THAT(generations(peer), ElementsAre(1));
  publish(makePeer(3));
  takeAway(makePeer(3));
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0, 1));

  // The own record is ignored.
  deliver(self);
  self.rekey();
  deliver(self);
  takeAway(self);
  EXPECT_THAT(counters(), ElementsAre(1, 0, 0, 0, 1));
  EXPECT_EQ(state(self), nullptr);
  EXPECT_THAT(generations(self), IsEmpty());
}

TEST_F(PeerKeysTest, ARecordBringsThePathsThatMayBeAndTakesThemAlongWhenItGoes) {
  const FakePeer peer = makePeer(2);
  const FakePeer stays = makePeer(3);
  const ConnectionKey kept = addPath(stays, 2);
  const ConnectionKey refused = addPath(peer, 3);
  pathStatus(refused)->establishAllowedIs(false);
  establish(peer, 1);
  EXPECT_FALSE(path(refused) || path(kept));
  deliver(stays);
  takeAway(peer);
  EXPECT_EQ(state(peer), nullptr);
  EXPECT_THAT(generations(peer), IsEmpty());
  const auto& secrets = sm->localKey().localKeyInfo(0)->sharedSecret();
  EXPECT_FALSE(secrets.has(peer.address));  // No secret outlives its peer.
  EXPECT_TRUE(secrets.has(stays.address));
  EXPECT_TRUE(sa(kept, SaType::steadyOut));
  expectTablesAgree();
  // An emptied record is a removed one.
  host->ipsecPeerKeyDir->ipsecPeerKeyInfoIs(stays.address, {});
  run(0);
  EXPECT_EQ(state(stays), nullptr);
  expectNoPathLeft();
}

TEST_F(PeerKeysTest, ARecordThatDoesNotFitKeepsThePeerDownUntilOneDoes) {
  FakePeer peer = makePeer(2);
  const ConnectionKey key = addPath(peer, 1);
  const Controller::PeerKeyInfo good = peer.record;
  uint64_t counter = 1000;
  uint32_t records = 0;
  start();
  const auto expectDown = [&](PeerDownReason reason) {
    peer.record.rekeyCounter = --counter;
    ++records;
    deliver(peer);
    EXPECT_EQ(state(peer)->peerConnStatus(), PeerConnStatus::down);
    EXPECT_EQ(state(peer)->peerDownReason(), reason);
    EXPECT_EQ(state(peer)->rekeyCounter(), counter);
    EXPECT_TRUE(state(peer)->dhCryptoInfo().empty());
    EXPECT_FALSE(sm->peerKeys().initialDhCompleted(peer.address));
    expectNoPathLeft();
  };
  // Every set of differing parameters; bit 0 is the one that is compared first.
  for (unsigned differing = 1; differing < 32; ++differing) {
    SCOPED_TRACE(differing);
    peer.record = good;
    peer.record.dhGroup += differing & 1U;
    peer.record.dhKeyLen += differing & 2U;
    peer.record.nonceLen += differing & 4U;
    peer.record.encryptAlgo = differing & 8U ? 9 : good.encryptAlgo;
    peer.record.hashAlgo = differing & 16U ? 9 : good.hashAlgo;
    expectDown(static_cast<PeerDownReason>(std::countr_zero(differing) + 1));
    // What does not fit is shown all the same.
    EXPECT_EQ(state(peer)->dhGroup(), peer.record.dhGroup);
  }
  peer.record = good;
  host->ipsecLocalKeyDir->encryptAlgoIs(0x100 +
                                        4);  // The local codes are wider: all their bits count.
  expectDown(PeerDownReason::encryptAlgoMismatch);
  host->ipsecLocalKeyDir->encryptAlgoIs(4);
  run(60);  // Refused keys do not pile up.
  EXPECT_THAT(generations(peer), ElementsAre(counter));
  for (const Bytes& bad : {Bytes(), Bytes(64, 0), Bytes(63, 1), Bytes(64, 0xFF)}) {
    peer.record.dhKey = bad;
    expectDown(PeerDownReason::keyDerivationFailed);
  }
  peer.record = good;
  peer.record.rekeyCounter = --counter;
  deliver(peer);
  EXPECT_EQ(sm->peerKeyTaskNewKey(), records + 1);
  EXPECT_EQ(state(peer)->peerConnStatus(), PeerConnStatus::ready);
  EXPECT_THAT(generations(peer), ElementsAre(counter));
  EXPECT_TRUE(sa(key, SaType::steadyIn));
}

// What brings a peer back is its queue where the record is not taken in yet, and its next first
// exchange where there was none: recovery would derive from what is out of date.
TEST_F(PeerKeysTest, OnlyAPeerWhoseRecordIsTakenInIsRecovered) {
  FakePeer peer = makePeer(2);
  const struct {
    const char* what;
    std::function<void()> disturb;
  } rows[] = {
      {"", [] {}},
      {"its record is gone", [&] { withdraw(peer); }},
      {"it has published a newer key",
       [&] {
         peer.rekey();
         publish(peer);
       }},
      {"it has started over",
       [&] {
         peer.renew(1);
         publish(peer);
       }},
      {"its first exchange failed", [&] { sm->peerKeys().initialDhCompletedDel(peer.address); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    establish(peer);
    state(peer)->peerConnStatusIs(PeerConnStatus::down);
    row.disturb();
    sm->peerRecovery().recoverPeers();
    EXPECT_EQ(state(peer)->peerConnStatus(),
              row.what == rows[0].what ? PeerConnStatus::ready : PeerConnStatus::down);
    finish(peer);
  }
}

TEST_F(PeerKeysTest, TheRoleSurvivesARecordThatComesBackAndNothingElse) {
  // The local nonce lies between the two: each new decision shows in the role.
  const struct {
    const char* what;
    uint64_t counterBack;
    uint8_t nonceBack;
    bool newLocalKey, keepsRole;
  } rows[] = {{"the same record", 5, 0x00, false, true},
              {"a later generation", 6, 0xFF, false, true},
              {"another nonce: the peer started over", 5, 0xFF, false, false},
              {"a lower counter: the peer started over", 4, 0xFF, false, false},
              {"a new local key", 6, 0xFF, true, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    FakePeer peer = makePeer(2);
    peer.record.rekeyCounter = 5;
    start();
    deliver(peer);
    ASSERT_TRUE(state(peer)->initiator());
    takeAway(peer);
    if (row.newLocalKey) {
      sm->localKey().generateOrDestroyDhKey();
    }
    peer.record.rekeyCounter = row.counterBack;
    peer.renew(row.nonceBack);
    deliver(peer);
    EXPECT_EQ(state(peer)->initiator(), row.keepsRole);

    // A restart that the machine sees decides anew, whatever was remembered before.
    peer.record.rekeyCounter = 0;
    peer.renew(0xFE);
    deliver(peer);
    EXPECT_FALSE(state(peer)->initiator());
    finish(peer);
  }
}

TEST_F(PeerKeysTest, TheRolesOfTheLatestThousandGonePeersAreKept) {
  start();
  const auto addressOf = [](uint32_t number) { return IpGenAddr::fromV4(0x0B000000 + number); };
  // States without a derivation: it is the memory that matters here.
  const auto comeAndGo = [&](uint32_t number) {
    host->ipsecStatus->ipsecPeerConnectionStateIs(addressOf(number))->initiatorIs(true);
    sm->peerKeys().initialDhCompletedIs(addressOf(number));
    sm->peerKeys().peerKeyBacklogProcessElem(addressOf(number));
  };
  const auto remembered = [&](uint32_t number) {
    return sm->peerKeys().rememberedRole(addressOf(number)).has_value();
  };
  for (uint32_t number = 0; number < 1024; ++number) {
    comeAndGo(number);
  }
  comeAndGo(0);  // Once more: the youngest now.
  EXPECT_TRUE(remembered(0) && remembered(1));
  comeAndGo(1024);
  EXPECT_TRUE(remembered(0) && !remembered(1));
}

}  // namespace
}  // namespace tessel::Ipsec
