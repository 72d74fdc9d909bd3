// The life of a path: from its configuration to its destruction, with everything that may miss.
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class PathsTest : public MachineTest {};

TEST_F(PathsTest, AChangeOfMergedDataReconcilesThePath) {
  enum class Entry { missing, disabled, enabled };
  const struct {
    Entry entry;
    bool existed, exists;
    uint32_t built, deleted;
  } rows[] = {{Entry::missing, false, false, 0, 1},  {Entry::missing, true, false, 0, 1},
              {Entry::disabled, false, false, 0, 0}, {Entry::disabled, true, true, 0, 0},
              {Entry::enabled, false, true, 1, 1},   {Entry::enabled, true, true, 1, 1}};
  const FakePeer peer = makePeer(2);
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(static_cast<int>(row.entry)) + (row.existed ? " existed" : ""));
    const ConnectionKey key = establish(peer);
    if (!row.existed) {
      sm->paths().destroyPath(key);
    }
    const auto before = path(key);
    host->ipsecDpsPathConfig->ipsecPathConfigIs(key, {row.entry == Entry::enabled});
    if (row.entry == Entry::missing) {
      host->ipsecDpsPathConfig->ipsecPathConfigDel(key);
    }
    (void)events.take();
    touchMerge(key);
    EXPECT_EQ(path(key) != nullptr, row.exists);
    EXPECT_EQ(row.exists && path(key) != before, row.built == 1);
    EXPECT_EQ(sm->pathAddCnt(), row.built);
    EXPECT_EQ(sm->pathDelCnt(), row.deleted);
    EXPECT_THAT(events.take(),
                Contains("path 1 handlePath established(1)").Times(row.exists ? 1 : 0));
    expectTablesAgree();
    finish(peer);
  }
}

TEST_F(PathsTest, WhatIsMissingIsSaidAndLeavesNothingHalfDone) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = pathKey(1);
  const struct {
    const char* trace;
    std::function<void()> disturb;
    bool refused = false;  // Else the path is there, without SAs.
  } rows[] = {
      {"pathStatus not found", [&] { host->ipsecPathStatusDir->ipsecPathStatusDel(key); }, true},
      {"remoteIp not found", [&] { pathStatus(key)->remoteIpIs({}); }, true},
      {"peerConnState not found", [&] { pathStatus(key)->remoteIpIs(address("::9")); }, true},
      {"profile not found", [&] { host->ipsecConfig->keyControllerIs({}); }, true},
      {"ipsecProfile not found", [&] { host->ipsecConfig->ipsecProfileDel(profileName); }},
      {"ipsecConnectionStatusInfo not found",
       [&] { host->ipsecStatus->ipsecConnectionStatusInfoDel(key); }},
      {"EncapId not found for profile:",
       [&] {
         host->encapIdHelper->encapIdDel({key, kDynamicPathConnection});
       }},
      {"ipsecVrfStatus not found", [&] { state(peer)->vrfNameIs("red"); }},
      {"ipsecVrfStatus not found", [&] { host->vrfIdStatus->idToNameIs(0, "nowhere"); }},
      {"cryptoInfoPair not found :", [&] { state(peer)->dhCryptoInfoDelAll(); }},
      {"Security Association not configured for profile :",
       [&] { host->ipsecConfig->ipsecProfile(profileName)->securityAssocNameIs("x"); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    startOver();
    establish(makePeer(2));  // So that it is what the row takes away that is missing.
    sm->paths().destroyPath(key);
    sm->hasNotificationActiveIs(false);
    row.disturb();
    sm->hasNotificationActiveIs(true);
    const Everything everything(*host);
    TraceCapture traces;
    (void)events.take();
    sm->paths().establishPath(key);
    EXPECT_TRUE(traces.has(row.trace));
    EXPECT_EQ(everything.notifications() == 0, row.refused);
    EXPECT_EQ(events.take().empty(), row.refused);
    EXPECT_EQ(path(key) ? path(key)->pathState() : DynamicPathState::none,
              row.refused ? DynamicPathState::none : DynamicPathState::established);
    EXPECT_TRUE(vrf()->tesselSa().empty());
    expectTablesAgree();
  }
  sm->paths().destroyPath(key);
  sm->paths().destroyPath(key);  // Once more is no harm.
  for (const VrfId vrfId : {1U, kNoVrfId}) {
    ConnectionKey other = key;
    other.vrfId = vrfId;
    host->ipsecPathStatusDir->ipsecPathStatusIs(other)->remoteIpIs(peer.address);
    sm->paths().establishPath(other);
    expectNoPathLeft();
  }
}

TEST_F(PathsTest, APathMayComeBeforeAndOutliveThePeersRecord) {
  // No record: the pair's peer count is 0, and there is no crypto for it.
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = addPath(peer, 1);
  start();
  host->ipsecStatus->ipsecPeerConnectionStateIs(peer.address);
  sm->paths().establishPath(key);
  EXPECT_THAT(path(key)->dhState().keys(), ElementsAre(DhKeyPair{0, 0}));

  // Without its status the path is still found, by asking all peers.
  host->ipsecPathStatusDir->ipsecPathStatusDel(key);
  EXPECT_EQ(sm->paths().getPathConnState(key), path(key));
  sm->paths().destroyPath(key);
  EXPECT_EQ(sm->paths().getPathConnState(key), nullptr);
  expectNoPathLeft();
}

TEST_F(PathsTest, SweepsNoticeWhatTheAgentTakesAwayAndGivesBack) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  pass(key);
  run(65);
  ASSERT_EQ(path(key)->pathState(), DynamicPathState::active);
  const auto& status = host->ipsecStatus;
  const auto connected = [&] { status->ipsecConnectionStatusInfoIs(key)->connectionStateIs(7); };
  const struct {
    const char* text;
    std::function<void()> take;
    std::function<void()> give;
  } rows[] = {
      {"handleSaRekeyTimer: connectionKey not found",
       [&] { status->ipsecConnectionStatusInfoDel(key); }, connected},
      {"handleUpdateRekeyTimer: connectionKey not found",
       [&] { status->ipsecConnectionStatusInfoDel(key); }, connected},
      {"connection not Established or connected yet",
       [&] { status->ipsecConnectionStatusInfo(key)->connectionStateIs(0); }, connected},
      {"pathStatus not found", [&] { host->ipsecPathStatusDir->ipsecPathStatusDel(key); },
       [&] { describePath(*host, key, peer.address, "path"); }},
      {"peerConnState not found", [&] { pathStatus(key)->remoteIpIs(address("192.0.2.77")); },
       [&] { pathStatus(key)->remoteIpIs(peer.address); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    row.take();
    {
      const TraceCapture traces;
      run(5.5);
      EXPECT_TRUE(traces.has(row.text));
    }
    row.give();
    const TraceCapture traces;
    run(5.5);
    EXPECT_FALSE(traces.has(row.text));
    EXPECT_TRUE(traces.has("scheduling saTask"));
  }
}

TEST_F(PathsTest, APathThatComesUpDuringALocalRekeyQueuesItsPeerOnce) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  ASSERT_TRUE(sm->localKey().generateLocalKeyInfo(1));
  touchMerge(key);
  touchMerge(key);
  EXPECT_EQ(sm->dhRekeyBacklog().size(), 1U);
  EXPECT_TRUE(sm->dhRekeyBacklog().has(peer.address));
  EXPECT_TRUE(path(key)->dhStateHas({0, 0}));  // On the published generation still.
}

// A path that stands with peer A is given to peer B by its status; the merged data says so
// afterwards. Whatever comes in between, nothing of A's path is left at the end.
TEST_F(PathsTest, APathThatChangesItsPeerLeaksNothing) {
  enum When { never, before, between, after };
  for (const When bComes : {never, before, between, after}) {
    for (const When aGoes : {never, between, after}) {
      SCOPED_TRACE("B " + std::to_string(bComes) + ", A " + std::to_string(aGoes));
      const FakePeer peerA = makePeer(2);
      const FakePeer peerB = makePeer(3);
      const auto comeAndGo = [&](When now) {
        if (bComes == now) {
          deliver(peerB);
        }
        if (aGoes == now) {
          takeAway(peerA);
        }
      };
      const ConnectionKey key = establish(peerA, 1);
      comeAndGo(before);
      pathStatus(key)->remoteIpIs(peerB.address);
      comeAndGo(between);
      touchMerge(key);
      comeAndGo(after);
      EXPECT_EQ(sm->paths().totalPaths(), bComes == never ? 0U : 1U);
      if (bComes != never) {
        ASSERT_TRUE(state(peerB) && sa(key, SaType::steadyOut));
        EXPECT_TRUE(state(peerB)->pathConnStateHas(key));
        EXPECT_EQ(sa(key, SaType::steadyOut)->remoteIp(), peerB.address);
      }
      expectTablesAgree();
      takeAway(peerA);
      finish(peerB);
    }
  }
}

// A machine finds the paths of the one before it, one of which has changed its peer meanwhile.
TEST_F(PathsTest, AMachineThatStartsOverLeavesNothingOfTheOneBefore) {
  const FakePeer peerA = makePeer(2);
  const FakePeer peerB = makePeer(3);
  const ConnectionKey key = establish(peerA, 1);
  establish(peerB, 2);
  sm = nullptr;
  pathStatus(key)->remoteIpIs(peerB.address);
  start();
  expectNoPathLeft();
  run(0);
  EXPECT_EQ(state(peerB)->pathConnState().size(), 2U);
  EXPECT_EQ(state(peerA)->pathConnState().size(), 0U);
  expectTablesAgree();
}

}  // namespace
}  // namespace tessel::Ipsec
