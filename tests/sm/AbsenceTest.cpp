// What is queued, asked for or swept can be gone when its turn comes, and an agent may be without
// what is not required: the machine says so, touches nothing else, and goes on when it is back.
#include "sm/CryptoParams.h"
#include "sm/PeerRecovery.h"
#include "sm/SaRekey.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class AbsenceTest : public MachineTest {
 protected:
  /// Packets every few seconds and reports of what is installed.
  void runWithTraffic(const ConnectionKey& key, int span) {
    for (int second = 0; second < span; second += 5) {
      pass(key);
      installSas();
      run(5);
    }
  }
};

// What is queued or called for can be gone when its turn comes: each operation says so and touches
// nothing.
TEST_F(AbsenceTest, WhatIsGoneIsSaidAndNothingElseIsTouched) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey here = establish(peer);
  const IpGenAddr gone = address("192.0.2.77");
  const ConnectionKey goneKey = pathKey(77);
  const SecurityAssociationKey goneSa{77, gone, 50, 77, 2};
  const DhKeyPair pair{0, 0};
  // A path that the agent has only begun to describe, one of a peer that is not there, and a peer
  // of which no generation is stored.
  const ConnectionKey begun = pathKey(78);
  host->ipsecStatus->ipsecConnectionStatusInfoIs(begun)->connectionStateIs(7);
  const ConnectionKey alone = addPath(makePeer(77), 79);
  const FakePeer bare = makePeer(3);
  deliver(bare);
  sm->peerKeys().localPeerKeyInfoListDel(bare.address);
  const Ptr<RekeySm> rekeySm = sm->paths().rekeySm(here);
  const auto gonePeersSa = makePtr<Ike::SecurityAssociation>(goneSa);
  gonePeersSa->remoteIpIs(gone);
  const auto gonePeersPath = makePtr<Ike::PathConnState>(*host->ipsecStatus, goneKey);
  gonePeersPath->remoteIpIs(gone);
  const auto createSas = [&](const ConnectionKey& key) {
    sm->securityAssociations().doCreateIpsecControllerSAs(key, pair, profileName, 0,
                                                          SaType::steadyPair);
  };
  const auto createSa = [&](const IpGenAddr& remote, const ConnectionKey& key,
                            const char* profile) {
    sm->securityAssociations().doCreateIpsecControllerSA(remote, key, pair, profile, {}, 7,
                                                         SaType::steadyIn);
  };
  run(1);
  const struct {
    const char* trace;
    std::function<void()> act;
  } rows[] = {
      {"peerConnState not found", [&] { sm->cryptoParams().doValidateCryptoParams(gone); }},
      {"peerConnState not found", [&] { sm->cryptoParams().doGetCryptoKeyLen(gone); }},
      {"Failed to retrieve Peer Connection state",
       [&] { EXPECT_FALSE(sm->keyDerivation().doGenerateCryptoKeys(gone, {}, pair, false)); }},
      {"Could not find peer key info",
       [&] {
         EXPECT_FALSE(sm->keyDerivation().doGenerateCryptoKeys(peer.address, {}, {0, 9}, false));
       }},
      {"localKeyInfo not found",
       [&] {
         EXPECT_FALSE(sm->keyDerivation().doGenerateCryptoKeys(peer.address, {}, {9, 0}, false));
       }},
      {"rekeySm not found",
       [&] {
         EXPECT_FALSE(sm->keyDerivation().doGenerateCryptoKeys(peer.address, goneKey, pair, true));
       }},
      {"peerConnState not found", [&] { EXPECT_FALSE(sm->dhRekey().doDhRekey(gone)); }},
      {"peerConnState not found", [&] { sm->dhRekey().dhRekeyBacklogProcessElem(gone); }},
      {"peerConnState not found", [&] { sm->peerRecovery().recoverPeer(gone); }},
      {"pathConnState not found", [&] { sm->pathHealth().sanitizePath(goneKey); }},
      {"pathConnState not found", [&] { sm->pathHealth().isPathActive(goneKey, true); }},
      {"pathConnState not found", [&] { sm->pathHealth().maybeClearPath(goneKey); }},
      {"pathConnState not found", [&] { sm->pathHealth().clearPath(goneKey); }},
      {"pathConnState not found", [&] { sm->pathHealth().prunePath(goneKey); }},
      {"setSaInfoEntry: sa not found", [&] { sm->securityAssociations().setSaInfoEntry(goneSa); }},
      {"controller SA not exists", [&] { sm->saRekey().maybeRekeySa(goneSa); }},
      {"saInfo is NULL", [&] { rekeySm->handleSaInstalled(goneSa); }},
      {"saInfo is NULL", [&] { rekeySm->handlePktsPresent(goneSa); }},
      {"saInfo is NULL", [&] { rekeySm->handlePeerNonce(goneSa); }},
      {"saInfo is NULL", [&] { rekeySm->installDhRekeyOutSa(goneSa); }},
      {"saInfo is NULL", [&] { rekeySm->markRekeyComplete(goneSa); }},
      {"inSa with the latest key pair was not found", [&] { rekeySm->getLatestInSaKey(goneSa); }},
      {"local peerKey not found for peer", [&] { sm->dhRekey().doDhRekey(bare.address); }},
      {"peerConnState not found", [&] { sm->dhRekey().markPathsAsDhRekeyResponder(gone); }},
      {"peerConnState not found", [&] { sm->securityAssociations().doDeletePeerSAs(gone); }},
      {"peerConnState not found", [&] { sm->paths().destroyPath(gonePeersPath); }},
      {"peerConnState not found",
       [&] { sm->securityAssociations().fillPathConnSaInfo(gonePeersSa); }},
      {"Unknown SA with srcAddr :", [&] { getConnectionKeyFromSa(*gonePeersSa); }},
      {"ipsecConnectionStatusInfo not found", [&] { createSas(goneKey); }},
      {"ipsecPathStatus not found", [&] { createSas(begun); }},
      {"peerConnState not found", [&] { createSas(alone); }},
      {"peerConnState not found", [&] { createSa(gone, here, profileName); }},
      {"ipsecPathStatus not found", [&] { createSa(peer.address, goneKey, profileName); }},
      {"ipsecProfile not found", [&] { createSa(peer.address, here, "missing"); }}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    const Everything everything(*host);
    TraceCapture traces;
    row.act();
    EXPECT_TRUE(traces.has(row.trace));
    EXPECT_EQ(everything.notifications(), 0U);
    expectTablesAgree();
  }

  EXPECT_FALSE(sm->keyDerivation().getLatestDhKeyPair(gone));
  EXPECT_EQ(rekeySm->getPairSakey(goneSa), SecurityAssociationKey());
  EXPECT_EQ(rekeySm->getSaFromType(SaType::saRekeyIn), nullptr);

  // An SA without limits is not rekeyed, and the sweeps go on; nor is there one without its VRF.
  const SecurityAssociationKey out = sa(here, SaType::steadyOut)->sakey();
  pass(here);
  run(61);
  pass(here);
  host->ipsecStatus->testKnob()->pathTestKnob(here)->saRekeyTriggerIs(true);
  const auto limits = vrf()->lifetimeCfg(out);
  vrf()->lifetimeCfgDel(out);
  {
    TraceCapture traces;
    run(11);
    EXPECT_TRUE(traces.has("sa lifetime not configured for sa with reqid : 101"));
    EXPECT_FALSE(sa(here, SaType::steadyOut)->rekey());
  }
  const auto table = vrf();
  host->ipsecStatus->vrfStatusDel("default");
  {
    TraceCapture traces;
    run(130);
    sm->saRekey().saBacklogProcessElem(out);
    sm->securityAssociations().setSaInfoEntry(goneSa);
    EXPECT_TRUE(traces.has("ipsecVrfStatus not found"));
  }
}

// A path whose rekey machine does not watch it: what sweeps find is said and left alone, and all is
// taken up again when the machine gets its path back.
TEST_F(AbsenceTest, ARekeyMachineWithoutItsPath) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  runWithTraffic(key, 65);
  ASSERT_EQ(path(key)->pathState(), DynamicPathState::active);
  const Ptr<RekeySm> rekeySm = sm->paths().rekeySm(key);
  const auto out = sa(key, SaType::steadyOut);
  host->ipsecStatus->testKnob()->pathTestKnob(key)->saRekeyTriggerIs(true);
  rekeySm->pathConnStateIs(nullptr);
  {
    TraceCapture traces;
    runWithTraffic(key, 15);
    out->softExpireIs(true);
    sm->saRekey().maybeRekeySa(out->sakey());
    sm->securityAssociations().setSaInfoEntry(out->sakey());
    rekeySm->setSaSmState(SmState::initiator);
    rekeySm->setDhRekeyState({0, 0}, DhRekeyState::initiated);
    rekeySm->setSaRekeyState(out->sakey(), SaRekeyState::installed);
    EXPECT_TRUE(traces.has("pathConnState not found"));
    EXPECT_TRUE(traces.has("setSaInfoEntry: pathConnState not found"));
    EXPECT_FALSE(rekeySm->getSaFromType(SaType::steadyOut));
    EXPECT_FALSE(out->rekey());
    (void)sm->pathHealth().isPathActive(key, true);  // Takes what was counted before.
    pass(key);
    EXPECT_FALSE(sm->pathHealth().isPathActive(key, true));
    out->softExpireIs(false);
  }
  // Nor does another path in its place make the SAs that one's.
  rekeySm->pathConnStateIs(makePtr<Ike::PathConnState>(*host->ipsecStatus, key));
  {
    TraceCapture traces;
    runWithTraffic(key, 15);
    EXPECT_TRUE(traces.has("pathConnSaInfo not found"));
    EXPECT_FALSE(out->softExpire());
  }
  EXPECT_EQ(path(key)->saSmState(), SmState::idle);

  // Without the machine itself.
  const auto kept = path(key);
  sm->paths().rekeySmDelAll();
  EXPECT_TRUE(sm->paths().rekeySm().empty());
  {
    TraceCapture traces;
    runWithTraffic(key, 15);
    sm->saRekey().maybeRekeySa(out->sakey());
    sm->securityAssociations().setSaInfoEntry(out->sakey());
    EXPECT_TRUE(traces.has("rekeySm not found"));
    EXPECT_FALSE(out->rekey());
  }
  sm->paths().rekeySmIs(sm.get(), key, host->recordEvents)->pathConnStateIs(kept);
  sm->paths().rekeySm(key)->pathConnStateIs(kept);  // Once more changes nothing.
  expectTablesAgree();
  runWithTraffic(key, 15);
  EXPECT_TRUE(out->rekey());
  EXPECT_EQ(kept->saSmState(), SmState::initiator);

  // A DH rekey goes on without it.
  sm->paths().rekeySmDelAll();
  ASSERT_TRUE(sm->localKey().generateLocalKeyInfo(1));
  EXPECT_TRUE(sm->dhRekey().doDhRekey(peer.address));
  EXPECT_TRUE(kept->dhStateHas({1, 0}));
}

// With the notifications off nothing is followed, and the SAs that came meanwhile are found when
// they are on again.
TEST_F(AbsenceTest, ChangesWithoutNotifications) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  const auto inSa = sa(key, SaType::steadyIn);
  const auto saInfo = path(key)->pathConnSaInfo(inSa->sakey());
  sm->hasNotificationActiveIs(false);
  FakePeer other = makePeer(3);
  {
    TraceCapture traces;
    publish(other);
    host->ipsecStatus->clearKeyIs(key);
    host->profileNotificationList->notificationIs(profileName);
    touchMerge(key);
    host->mergeData->connectionInfoIs({7, key.srcAddr, key.dstAddr});
    saInfo->peerNonceIs(nonceWord(NonceType::initiator, 5));
    run(0);
    EXPECT_THAT(traces.lines(), IsEmpty());
  }
  EXPECT_EQ(path(key)->saSmState(), SmState::idle);
  // An SA that nobody watches is found by way of its path.
  Ike::CryptoInfo crypto = state(peer)->dhCryptoInfo({0, 0})->cryptoInfo();
  ++crypto.secondSpi;
  ++crypto.firstSpi;
  state(peer)->dhCryptoInfoIs({1, 0})->cryptoInfoIs(crypto);
  sm->securityAssociations().doCreateIpsecControllerSAs(key, {1, 0}, profileName, 0,
                                                        SaType::dhRekeyIn);
  installSas();
  pass(key, 3);
  const auto unwatched = sa(key, SaType::dhRekeyIn);
  ASSERT_TRUE(unwatched);
  sm->securityAssociations().setSaInfoEntry(unwatched->sakey());
  EXPECT_EQ(path(key)->pathConnSaInfo(unwatched->sakey())->pkts(), 3U);
  sm->hasNotificationActiveIs(true);
  expectTablesAgree();
  other.rekey();
  deliver(other);
  EXPECT_EQ(state(other)->peerConnStatus(), PeerConnStatus::ready);
}

TEST_F(AbsenceTest, AMachineStartsWithWhatItNeedsAndNamesWhatIsMissing) {
  const auto startWith = [&](const Ptr<IpsecCommon::TesselV1>& handedOver) {
    sm =
        tesselV1SmFactory(scheduler, host->ipsecConfig, host->ipsecStatus, host->ipsecDpsPathConfig,
                          host->ipsecPathStatusDir, host->ipsecLocalKeyDir, host->ipsecPeerKeyDir,
                          nullptr, nullptr, nullptr, host->encapIdHelper, host->mergeData, nullptr,
                          nullptr, host->recordEvents, handedOver);
  };
  try {
    startWith(nullptr);
    ADD_FAILURE() << "started without what it hands SAs to";
  } catch (const NullArgument& error) {
    EXPECT_STREQ(error.what(), "tesselV1 is null");
  }
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = addPath(peer, 1);
  startWith(host->tesselV1);
  deliver(peer);
  run(150);  // Sanity passes, sweeps and logs, all without counters.
  EXPECT_TRUE(sa(key, SaType::steadyIn) && sa(key, SaType::steadyOut));
  EXPECT_EQ(path(key)->sanityCheck()->inSaPkts(), 0U);
}

}  // namespace
}  // namespace tessel::Ipsec
