#include "sm/SaRekey.h"

#include <algorithm>
#include <cstdlib>

#include <arpa/inet.h>

#include "host/facility/Trace.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/PathHealth.h"
#include "sm/Paths.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

namespace {

/// The part of a hard limit that the soft one leaves off, and the part of it left off at random.
constexpr double kSoftMargin = 0.25;
constexpr double kSoftSpread = 0.025;
constexpr uint64_t kMaxJitter = 900;
constexpr int64_t kDrawModulus = 2147483647;

}  // namespace

uint64_t getSoftRekey(uint64_t hardLimit) {
  const double limit = static_cast<double>(hardLimit);
  const double draw = static_cast<double>(random() % kDrawModulus) / 2147483647.0;
  return hardLimit - static_cast<uint64_t>(kSoftMargin * limit) -
         static_cast<uint64_t>(draw * (kSoftSpread * limit));
}

uint64_t getTimedSoftRekey(uint64_t hardSeconds) {
  const uint64_t jitter = std::min(hardSeconds / 5, kMaxJitter);
  return hardSeconds - jitter - static_cast<uint64_t>(random()) % (jitter + 1);
}

void SaRekey::handleSaRekeyTimer() {
  TRACE("handleSaRekeyTimer");
  if (!sm_.initialized()) {
    return;
  }
  sm_.saRekeyTimer()->scheduleTaskDelay(sm_.saRekeyInterval());
  const Ptr<Ike::VrfStatus> vrfStatus = sm_.ipsecStatus()->vrfStatus(L3::kDefaultVrfName);
  if (!vrfStatus) {
    TRACE("ipsecVrfStatus not found", L3::kDefaultVrfName);
    return;
  }
  if (sm_.dhRekey().dhRekeyState() != DhRekeyState::notRekeying) {
    TRACE("DH rekey has been initiated ");
    return;
  }
  for (const auto& [key, sa] : vrfStatus->tesselSa()) {
    checkSoftExpiry(key, sa, *vrfStatus);
  }
}

void SaRekey::checkSoftExpiry(const SecurityAssociationKey& key,
                              const Ptr<Ike::SecurityAssociation>& sa,
                              const Ike::VrfStatus& vrfStatus) {
  const IpsecCounters::IpsecSACounterEntry counters = sm_.securityAssociations().saCounters(key);
  const LivePath live =
      findLivePath(key, *sa, counters, "handleSaRekeyTimer: connectionKey not found");
  if (live.rekeySm == nullptr) {
    return;
  }
  const Ike::PathConnState* const path = live.path;
  if (path->saSmState() != SmState::idle) {
    TRACE("Not initiating a rekey as prior rekey is still in progress", key);
    return;
  }
  if (!isOfPath(key, live)) {
    TRACE("pathConnSaInfo not found", key);
    return;
  }
  if (sa->saType() != SaType::steadyOut) {
    TRACE("Not rekeying inSA or DH or SA rekey SAs with spi : ", spiText(key.spi));
    return;
  }
  const Ptr<Ike::LifetimeCfg> limits = vrfStatus.lifetimeCfg(key);
  if (!limits) {
    TRACE("sa lifetime not configured for sa with reqid : ", sa->reqid());
    return;
  }
  if (sa->rekey()) {
    TRACE("SA rekey in progress", key);
    return;
  }
  // Looking at the counters may run reactors that destroy the path.
  const Ptr<RekeySm> rekeySm(live.rekeySm);
  const ConnectionKey& connectionKey = rekeySm->connectionKey();
  if (path->pathState() != DynamicPathState::active ||
      !sm_.pathHealth().isPathActive(*rekeySm, false)) {
    TRACE("Not rekeying as path is not active", connectionKey);
    return;
  }
  Ike::PathTestKnob* const testKnob = rekeySm->testKnob();
  const bool forced = testKnob != nullptr && testKnob->saRekeyTrigger();
  if (forced) {
    TRACE("sa rekey test knob set", connectionKey);
  }
  if (hasSoftExpired(*limits, counters) || forced) {
    const Ptr<Ike::PathTestKnob> knob(testKnob);
    sa->softExpireIs(true);
    if (knob) {
      knob->saRekeyTriggerIs(false);
    }
  }
}

bool SaRekey::hasSoftExpired(const Ike::LifetimeCfg& limits,
                             const IpsecCounters::IpsecSACounterEntry& counters) const {
  const double now = sm_.utcTime().seconds();
  bool expired = false;
  if (limits.softAddExpire() != 0 && counters.addTime != 0 &&
      now >= static_cast<double>(counters.addTime) + static_cast<double>(limits.softAddExpire())) {
    TRACE("SA soft expired, now : ", now, " addTime : ", counters.addTime,
          " addExpire : ", limits.softAddExpire());
    expired = true;
  }
  if (limits.softPacketLimit() != 0 && counters.pkts >= limits.softPacketLimit()) {
    TRACE("SA soft expired, now : ", now, " pkts : ", counters.pkts,
          " pktLimit : ", limits.softPacketLimit());
    expired = true;
  }
  if (limits.softByteLimit() != 0 && counters.bytes >= limits.softByteLimit()) {
    TRACE("SA soft expired, now : ", now, " bytes : ", counters.bytes,
          " byteLimit : ", limits.softByteLimit());
    expired = true;
  }
  return expired;
}

SaRekey::LivePath SaRekey::findLivePath(const SecurityAssociationKey& key,
                                        const Ike::SecurityAssociation& sa,
                                        const IpsecCounters::IpsecSACounterEntry& counters,
                                        const char* connectionKeyText) const {
  if (counters == IpsecCounters::IpsecSACounterEntry()) {
    TRACE("saCounterEntry not found for sa with reqid : ", sa.reqid(), " spi : ", spiText(key.spi),
          " daddr : ", key.daddr);
    return {};
  }
  const Paths::WatchedSa* const watched = sm_.paths().watchedSa(key);
  if (watched != nullptr) {
    const Ike::IpsecConnectionStatusInfo* const connection = watched->connection.of(
        sm_.ipsecStatus()->ipsecConnectionStatusInfo(), watched->path->connectionKey());
    if (connection != nullptr && connection->isUsable()) {
      return {watched->rekeySm, watched->path, true};
    }
  }
  const ConnectionKey connectionKey = getConnectionKeyFromSa(sa);
  const Ptr<Ike::IpsecConnectionStatusInfo>& connection =
      sm_.ipsecStatus()->ipsecConnectionStatusInfo(connectionKey);
  if (!connection) {
    TRACE(connectionKeyText, connectionKey);
    return {};
  }
  if (!connection->isUsable()) {
    TRACE("connection not Established or connected yet", connectionKey);
    return {};
  }
  const Ptr<RekeySm>& rekeySm = sm_.paths().rekeySm(connectionKey);
  if (!rekeySm) {
    TRACE("rekeySm not found", connectionKey);
    return {};
  }
  if (!rekeySm->pathConnState()) {
    TRACE("pathConnState not found", connectionKey);
    return {};
  }
  return {rekeySm.get(), rekeySm->pathConnState().get(),
          watched != nullptr && watched->rekeySm == rekeySm.get()};
}

bool SaRekey::isOfPath(const SecurityAssociationKey& key, const LivePath& live) {
  return live.watches || live.path->pathConnSaInfoHas(key);
}

void SaRekey::handleUpdateRekeyTimer() {
  TRACE("handleUpdateRekeyTimer");
  if (!sm_.initialized()) {
    return;
  }
  sm_.updateRekeyTimer()->scheduleTaskDelay(sm_.saRekeyInterval());
  if (sm_.dhRekey().isAnyPathRekeying()) {
    sm_.updateRekeyTimer()->scheduleTaskDelay(sm_.updateRekeyInterval());
  }
  const Ptr<Ike::VrfStatus> vrfStatus = sm_.ipsecStatus()->vrfStatus(L3::kDefaultVrfName);
  if (!vrfStatus) {
    TRACE("ipsecVrfStatus not found", L3::kDefaultVrfName);
    return;
  }
  WorkQueue<SecurityAssociationKey>& backlog = sm_.saBacklog();
  const bool noneWaits = backlog.empty();
  bool queued = false;
  for (const auto& [key, sa] : vrfStatus->tesselSa()) {
    const LivePath live = findLivePath(key, *sa, sm_.securityAssociations().saCounters(key),
                                       "handleUpdateRekeyTimer: connectionKey not found");
    if (live.rekeySm == nullptr) {
      continue;
    }
    if (!isOfPath(key, live)) {
      TRACE("pathConnSaInfo not found", key);
      continue;
    }
    TRACE("scheduling saTask", key);
    if (!queued) {
      backlog.reserve(vrfStatus->tesselSa().size());
    }
    noneWaits ? backlog.addNew(key) : backlog.add(key);
    queued = true;
  }
  if (queued) {
    sm_.saTask()->scheduleTask();
  }
}

void SaRekey::saBacklogProcessElem(const SecurityAssociationKey& saKey) {
  TRACE(" Process saTask for SA", saKey);
  sm_.securityAssociations().setSaInfoEntry(saKey);
  maybeRekeySa(saKey);
}

void SaRekey::maybeRekeySa(const SecurityAssociationKey& saKey) {
  const Ptr<Ike::VrfStatus>& vrfStatus = sm_.ipsecStatus()->vrfStatus(L3::kDefaultVrfName);
  if (!vrfStatus) {
    TRACE("ipsecVrfStatus not found", L3::kDefaultVrfName);
    return;
  }
  if (sm_.dhRekey().dhRekeyState() != DhRekeyState::notRekeying) {
    TRACE("DH rekey has been initiated ");
    return;
  }
  // No handles of its own before there is something to do: the sweep comes here for every SA, and
  // would write to all that it looks at.
  const Ptr<Ike::SecurityAssociation>& found = vrfStatus->tesselSa(saKey);
  if (!found) {
    TRACE("controller SA not exists", saKey);
    return;
  }
  if (found->saType() != SaType::steadyOut) {
    // A retired out-SA may have soft-expired too, but nobody answers a nonce on it.
    TRACE("Not rekeying inSA or DH or SA rekey SAs with spi : ", spiText(saKey.spi));
    return;
  }
  const Paths::WatchedSa* const watched = sm_.paths().watchedSa(saKey);
  RekeySm* const machine = watched != nullptr
                               ? watched->rekeySm
                               : sm_.paths().rekeySm(getConnectionKeyFromSa(*found)).get();
  if (machine == nullptr) {
    TRACE("rekeySm not found", getConnectionKeyFromSa(*found));
    return;
  }
  const Ike::PathConnState* const standing =
      watched != nullptr ? watched->path : machine->pathConnState().get();
  if (standing == nullptr) {
    TRACE("pathConnState not found", getConnectionKeyFromSa(*found));
    return;
  }
  if (standing->saSmState() != SmState::idle) {
    TRACE("Not initiating a rekey as prior rekey is still in progress", saKey);
    return;
  }
  if (!found->softExpire()) {
    TRACE("controller SA not soft expired", saKey);
    return;
  }
  if (found->rekey()) {
    TRACE("controller SA rekey in progress", saKey);
    return;
  }

  const Ptr<Ike::SecurityAssociation> sa = found;
  const Ptr<RekeySm> rekeySm(machine);
  const Ptr<Ike::PathConnState> path = rekeySm->pathConnState();
  const ConnectionKey key = getConnectionKeyFromSa(*sa);
  rekeySm->setSaRekeyNonce(saKey);
  if (path->saLocalNonce().nonceValue == 0) {
    // The generator failed and there is no earlier nonce. The peer would derive from 0, and this
    // side from the nonce that it draws when the answer comes: a later sweep tries again.
    TRACE("Not initiating a rekey without a nonce", saKey);
    return;
  }
  rekeySm->setSaSmState(SmState::initiator);
  sa->nonceIs(htonl(nonceWord(NonceType::initiator, path->saLocalNonce().nonceValue)));
  sa->rekeyIs(true);
  if (const Ptr<Ike::TestKnob>& testKnob = sm_.ipsecStatus()->testKnob()) {
    if (const Ptr<Ike::PathTestKnob>& knob = testKnob->pathTestKnob(key)) {
      knob->saRekeyTriggerIs(false);
    }
  }
  sm_.paths().setPathState(path, DynamicPathState::saInitiatorNonceSent);
  sm_.events().recordSaEvent("maybeRekeySa", saKey, key);
  sm_.events().recordPathEvent("maybeRekeySa", key,
                               sm_.keyDerivation().getCurrentBgpDhKeyPair(sa->remoteIp()));
  TRACE("SA rekey initiated", key);
}

}  // namespace tessel::Ipsec
