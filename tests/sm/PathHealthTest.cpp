// Path health: when traffic counts, what a sanity pass does in every state, clearing and pruning.
#include "sm/SaRekey.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class PathHealthTest : public MachineTest {
 protected:
  /// A path that runs, its packets seen and taken as the baseline.
  ConnectionKey establishSeen(const FakePeer& peer) {
    const ConnectionKey key = establish(peer);
    run(1);
    pass(key, 10);
    EXPECT_TRUE(sm->pathHealth().isPathActive(key, true));
    return key;
  }
  void expire(const ConnectionKey& key) {
    path(key)->sanityCheck()->expiryTimeIs(seconds(0.001));
    EXPECT_TRUE(path(key)->sanityCheck()->isPathExpired());
  }
  uint64_t& packets(const ConnectionKey& key, SaType type) {
    return host->ipsecCounterTable->saCounterEntryIs(sa(key, type)->sakey()).pkts;
  }
};

// What one sanity pass makes of a path, by its state: with packets in both directions, without,
// expired while its SAs are of old keys, and expired while they are of the current ones. A clear
// request rebuilds it in every state.
TEST_F(PathHealthTest, EveryStateAgainstTrafficSilenceExpiryAndAClearRequest) {
  enum Column { traffic, silence, expired, expiredOnCurrentKeys, clearRequest };
  constexpr int R = 99;  // Rebuilt.
  // An active path that goes idle restarts its expiry; 7 comes to 2 by way of 8, and pruned.
  const int rows[][4] = {{0, 0, R, R},   {3, 1, R, 1},   {3, 2, R, 2},   {3, 2, 2, 2},
                         {4, 4, R, R},   {5, 5, R, R},   {6, 6, R, R},   {2, 7, R, R},
                         {8, 8, R, R},   {9, 9, R, R},   {10, 10, R, R}, {2, 11, R, R},
                         {12, 12, R, R}, {13, 13, R, R}, {14, 14, R, R}, {15, 15, R, R},
                         {16, 16, R, R}, {17, 17, R, R}, {18, 18, R, R}, {19, 19, R, R},
                         {20, 20, R, R}, {2, 21, R, R},  {22, 22, R, R}, {23, 23, R, R},
                         {24, 24, R, R}, {25, 25, R, R}, {26, 26, R, R}, {2, 27, R, R},
                         {28, 28, R, R}, {29, 29, R, R}, {30, 30, R, R}, {R, R, R, R}};
  static_assert(std::size(rows) == kDynamicPathStates);
  for (int from = 0; from < static_cast<int>(kDynamicPathStates); ++from) {
    for (const Column column : {traffic, silence, expired, expiredOnCurrentKeys, clearRequest}) {
      SCOPED_TRACE("state " + std::to_string(from) + ", column " + std::to_string(column));
      const int expected = column == clearRequest ? R : rows[from][column];
      const FakePeer peer = makePeer(2);
      const ConnectionKey key = establishSeen(peer);
      const auto before = path(key);
      if (column == expired) {
        Ike::CryptoInfo other = state(peer)->dhCryptoInfo({0, 0})->cryptoInfo();
        ++other.firstSpi;
        state(peer)->dhCryptoInfo({0, 0})->cryptoInfoIs(other);
      }
      sm->paths().setPathState(before, static_cast<DynamicPathState>(from));
      EXPECT_EQ(before->sanityCheck()->expiryTime(), time->monotonicTime() + seconds(180));
      if (column == traffic) {
        pass(key);
      } else if (column == expired || column == expiredOnCurrentKeys) {
        expire(key);
      }
      if (column == clearRequest) {
        host->ipsecStatus->clearKeyIs(key)->clearCntInc(1);
      } else {
        sm->paths().pathBacklogProcessElem(key);
      }
      ASSERT_TRUE(path(key));
      EXPECT_EQ(path(key) != before, expected == R);
      EXPECT_EQ(static_cast<int>(path(key)->pathState()), expected == R ? 1 : expected);
      // Where traffic is looked for, it becomes the baseline.
      const bool confirmed =
          column == traffic && expected != R && (from == 3 || from == 5 || expected != from);
      EXPECT_EQ(path(key)->sanityCheck()->outSaPkts(), expected == R ? 0U : confirmed ? 11U : 10U);
      expectTablesAgree();
      host->ipsecStatus->clearKeyDelAll();
      finish(peer);
    }
  }
}

TEST_F(PathHealthTest, APathIsActiveWhenBothCountsGrew) {
  const ConnectionKey key = establishSeen(makePeer(2));
  const auto sanity = path(key)->sanityCheck();
  const struct {
    uint64_t in, out;  // Against a baseline of 10 and 10.
    bool active, baselineMoves;
  } rows[] = {{11, 11, true, true},   {10, 10, false, false}, {11, 10, false, false},
              {10, 11, false, false}, {9, 11, false, true},   {11, 9, false, true},
              {9, 10, false, false},  {0, 0, false, true},    {UINT64_MAX, UINT64_MAX, true, true}};
  for (const auto& row : rows) {
    for (const bool update : {false, true}) {
      SCOPED_TRACE(std::to_string(row.in) + " " + std::to_string(row.out));
      run(1);
      sanity->inSaPktsIs(10);
      sanity->outSaPktsIs(10);
      sanity->lastActiveTimeIs({});
      sanity->expiryTimeIs({});
      packets(key, SaType::steadyIn) = row.in;
      packets(key, SaType::steadyOut) = row.out;
      EXPECT_EQ(sm->pathHealth().isPathActive(key, update), row.active);
      const bool moved = update && row.baselineMoves;
      EXPECT_EQ(sanity->inSaPkts(), moved ? row.in : 10U);
      EXPECT_EQ(sanity->outSaPkts(), moved ? row.out : 10U);
      const bool confirmed = update && row.active;
      EXPECT_EQ(sanity->lastActiveTime(), confirmed ? time->monotonicTime() : Duration());
      EXPECT_EQ(sanity->expiryTime() != Duration(), confirmed);
    }
  }
}

TEST_F(PathHealthTest, APathIsOnlyUpWithOnePairThatBelongsTogether) {
  const ConnectionKey key = establishSeen(makePeer(2));
  const auto in = sa(key, SaType::steadyIn);
  const auto out = sa(key, SaType::steadyOut);
  const auto isActive = [&] {
    pass(key);
    return sm->pathHealth().isPathActive(key, false);
  };
  EXPECT_TRUE(isActive() && sm->pathHealth().isPathCleared(path(key)));
  in->pairSpiIs(out->sakey().spi + 1);
  EXPECT_FALSE(isActive());
  in->pairSpiIs(out->sakey().spi);
  for (const SaType other : {SaType::retiredOut, SaType::saRekeyOut, SaType::steadyIn}) {
    out->saTypeIs(other);
    EXPECT_FALSE(isActive() || sm->pathHealth().isPathCleared(path(key)));
  }
  out->saTypeIs(SaType::steadyOut);
  EXPECT_TRUE(isActive() && sm->pathHealth().isPathCleared(path(key)));
  // The override: active whatever flows, and shown as such.
  host->ipsecStatus->testKnob()->forcePathActiveIs(true);
  sm->securityAssociations().doDeleteIpsecControllerSAs(path(key));
  EXPECT_TRUE(sm->pathHealth().isPathActive(key, false));
  EXPECT_EQ(path(key)->sanityCheck()->lastActiveTime(), time->monotonicTime());
}

TEST_F(PathHealthTest, ThePeriodicPassTakesThePathsWhoseUnderlayIsUp) {
  const FakePeer peer = makePeer(2);
  std::vector<ConnectionKey> keys;
  for (uint32_t number = 1; number <= 4; ++number) {
    keys.push_back(establish(peer, number));
    pass(keys.back());
  }
  pathStatus(keys[0])->stateIs(Path::UnderlayState::connected);
  pathStatus(keys[1])->stateIs(Path::UnderlayState::down);
  host->ipsecPathStatusDir->ipsecPathStatusDel(keys[2]);
  // Silence: idle at the next pass, and left there for good while the keys are the current ones.
  for (const auto& [after, last] : {std::pair(59, 1), {1, 3}, {60, 2}, {600, 2}}) {
    run(after);
    for (const ConnectionKey& key : keys) {
      EXPECT_EQ(static_cast<int>(path(key)->pathState()), key == keys[3] ? last : 1);
    }
  }
}

TEST_F(PathHealthTest, PruningLeavesTheCurrentGenerationAndNewerOnesAlone) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establishSeen(peer);
  const auto pruned = path(key);
  const auto in = sa(key, SaType::steadyIn);
  const auto out = sa(key, SaType::steadyOut);
  const DhKeyPair older{1, 0}, current{2, 0}, newer{3, 0};
  Ike::CryptoInfo crypto = state(peer)->dhCryptoInfo({0, 0})->cryptoInfo();
  const auto addSa = [&](SaType type, const DhKeyPair& pair) {
    ++crypto.firstSpi;
    state(peer)->dhCryptoInfoIs(pair)->cryptoInfoIs(crypto);
    sm->securityAssociations().doCreateIpsecControllerSAs(key, pair, profileName, 0,
                                                          SaType::dhRekeyOut);
    const auto made = sa(key, SaType::dhRekeyOut);
    made->saTypeIs(type);
    return made;
  };
  addSa(SaType::retiredOut, older);
  addSa(SaType::saRekeyOut, current);
  addSa(SaType::dhRekeyIn, current);
  // A steady SA of another generation than the published one, wherever it stands: nothing is
  // deleted.
  in->dhKeyPairIs(current);
  out->saTypeIs(SaType::retiredOut);
  const auto last = addSa(SaType::steadyOut, older);
  const auto ofNewer = addSa(SaType::dhRekeyOut, newer);
  for (const DhKeyPair& pair : {older, current, newer}) {
    pruned->saCryptoInfoIs(pair);
  }
  host->ipsecLocalKeyDir->rekeyCounterIs(2);
  sm->paths().setPathState(pruned, DynamicPathState::dhInitiatorComplete);
  sm->pathHealth().prunePath(key);
  EXPECT_EQ(pruned->pathConnSaInfo().size(), 7U);
  EXPECT_EQ(pruned->saCryptoInfo().size(), 3U);
  EXPECT_EQ(pruned->pathState(), DynamicPathState::dhInitiatorComplete);

  // An SA rekey of the old generation came first: an initiator goes on to wait for its DH rekey.
  sm->paths().setPathState(pruned, DynamicPathState::saResponderComplete);
  for (const SmState role : {SmState::responder, SmState::initiator}) {
    pruned->dhStateIs(current)->dhSmStateIs(role);
    sm->pathHealth().prunePath(key);
    EXPECT_EQ(pruned->pathState(), role == SmState::initiator
                                       ? DynamicPathState::dhInitiatorInSaInstalled
                                       : DynamicPathState::saResponderComplete);
  }
  EXPECT_EQ(pruned->pathConnSaInfo().size(), 7U);

  last->dhKeyPairIs(current);
  (void)events.take();
  sm->pathHealth().prunePath(key);
  EXPECT_THAT(pruned->pathConnSaInfo().keys(),
              ElementsAre(in->sakey(), last->sakey(), ofNewer->sakey()));
  EXPECT_THAT(pruned->saCryptoInfo().keys(), ElementsAre(current));
  EXPECT_THAT(pruned->dhState().keys(), ElementsAre(current, newer));
  EXPECT_EQ(events.take().back(), "path 1 prunePath idle(2)");
  expectTablesAgree();
}

// The look at the counters that decides whether a path is alive can bring the peer's nonce, or the
// packets that were missed: the path is neither taken for idle then nor cleared.
TEST_F(PathHealthTest, WhatTheCountersBringIsNotUndone) {
  enum Case { nonceInTheSanityPass, nonceAsThePathExpires, packetsAsThePathExpires };
  for (const Case what : {nonceInTheSanityPass, nonceAsThePathExpires, packetsAsThePathExpires}) {
    SCOPED_TRACE(what);
    const FakePeer peer = makePeer(2);
    const ConnectionKey key = establishSeen(peer);
    const auto before = path(key);
    sm->paths().setPathState(before, DynamicPathState::active);
    if (what == packetsAsThePathExpires) {
      pass(key);
    } else {
      host->ipsecCounterTable->saCounterEntryIs(sa(key, SaType::steadyIn)->sakey()).nonceWord =
          nonceWord(NonceType::initiator, 5);
    }
    if (what == nonceInTheSanityPass) {
      sm->pathHealth().sanitizePath(key);
    } else {
      expire(key);
      state(peer)->dhCryptoInfoDelAll();  // Not the current keys: nothing else speaks for the path.
      sm->pathHealth().maybeClearPath(key);
    }
    ASSERT_EQ(path(key), before);
    EXPECT_EQ(before->pathState(), what == packetsAsThePathExpires
                                       ? DynamicPathState::active
                                       : DynamicPathState::saResponderNonceAccepted);
    finish(peer);
  }
}

// A path without its sanity check, or without what the agent says of it, is not up and not cleared.
TEST_F(PathHealthTest, APathOfWhichSomethingIsMissing) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establishSeen(peer);
  const auto before = path(key);
  EXPECT_TRUE(sm->pathHealth().isPathCleared(before));
  const auto status = pathStatus(key);
  host->ipsecPathStatusDir->ipsecPathStatusDel(key);
  EXPECT_FALSE(sm->pathHealth().isPathCleared(before));
  describePath(*host, key, peer.address, "path 1");
  EXPECT_TRUE(sm->pathHealth().isPathCleared(before));
  {
    // The agent forgets the path in the moment in which it is rebuilt.
    TraceCapture traces;
    const Meddler meddler(
        *host->tesselV1, [&](const Change&) { host->ipsecPathStatusDir->ipsecPathStatusDel(key); });
    sm->pathHealth().clearPath(key);
    EXPECT_TRUE(traces.has("pathStatus not found."));
  }
  expectNoPathLeft();

  // One that something else has put under the peer, without a sanity check: the first log gives it
  // one.
  describePath(*host, key, peer.address, "path 1");
  const auto bare = state(peer)->pathConnStateIs(key);
  EXPECT_FALSE(sm->pathHealth().isPathActive(key, true));
  sm->pathHealth().maybeClearPath(key);
  EXPECT_EQ(path(key), bare);
  host->ipsecCounterTable->sessionCounterEntryIs(bare->reqid()).pktsIn = 3;
  run(61);
  ASSERT_TRUE(bare->sanityCheck());
  EXPECT_EQ(bare->sanityCheck()->pktsIn(), 3U);
}

// Reading the counters tells the SAs' reactors and whoever else listens; what they do to the path
// must not hurt the pass that asked.
TEST_F(PathHealthTest, APathMayGoWhileItsCountersAreRead) {
  const FakePeer peer = makePeer(2);
  enum Pass { sanity, expired, softExpiry };
  for (const Pass kind : {sanity, expired, softExpiry}) {
    SCOPED_TRACE(kind);
    const ConnectionKey key = establishSeen(peer);
    for (uint32_t number = 2; number < 30; ++number) {
      establish(peer, number);
    }
    sm->paths().setPathState(path(key), DynamicPathState::active);
    const auto in = path(key)->pathConnSaInfo(sa(key, SaType::steadyIn)->sakey());
    const Meddler destroyer(*in, [&](const Change&) {
      for (uint32_t number = 1; number < 30; ++number) {
        sm->paths().destroyPath(pathKey(number));
      }
    });
    pass(key);
    if (kind == expired) {
      expire(key);
    }
    if (kind == softExpiry) {
      sm->saRekey().handleSaRekeyTimer();
    } else {
      sm->paths().pathBacklogProcessElem(key);
    }
    expectNoPathLeft();
    finish(peer);
  }
}

}  // namespace
}  // namespace tessel::Ipsec
