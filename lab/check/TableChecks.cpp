#include "lab/check/TableChecks.h"

#include <algorithm>
#include <set>

#include "sm/DhRekey.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::lab {
namespace {

// A generation goes when the paths that used it are pruned, or have expired and been rebuilt:
// within five minutes of the rekey that replaced it. Rekeys that are forced by the test knob can
// follow each other at once, two in a minute on average.
constexpr size_t kMaxGenerations = 10;
constexpr uint64_t kAnyGeneration = UINT64_MAX;
constexpr size_t kMaxPairs = kMaxGenerations * kMaxGenerations;
// Of one pair of generations a path has its own two SAs and those of SA rekeys, which go likewise.
constexpr size_t kMaxSasPerPair = 12;
// A rekey makes an in-SA for each generation of the other side, and one out-SA: when both sides
// rekey in turn, 1, 1, 2, 2, 3, 3 and so on.
constexpr size_t kMaxSasPerPath = kMaxGenerations * (kMaxGenerations + 1) + 2 * kMaxGenerations;
// What has to go goes at a sanity pass, one a minute; the look that sees it may be late by its
// period.
constexpr Duration kRetirementDelay = seconds(75);

std::string number(size_t value) {
  return std::to_string(value);
}

Place placeOf(const Router& router, const ConnectionKey& key) {
  const RouterPath* const path = router.path(key);
  return {.routers = {router.name()}, .path = path != nullptr ? path->end.name : stringValue(key)};
}

template <class Event>
bool isContiguous(const EventLog<Event>& log) {
  const size_t expected = std::min<size_t>(log.eventCount(), log.capacity());
  const std::vector<Event>& slots = log.events();
  if (slots.size() != expected || log.head() >= log.capacity()) {
    return false;
  }
  const size_t oldest = expected == 0 ? 0 : log.head() % expected;
  for (size_t i = 1; i < expected; ++i) {
    if (slots[(oldest + i) % expected].time < slots[(oldest + i - 1) % expected].time) {
      return false;
    }
  }
  return true;
}

}  // namespace

void TableChecks::look(const Router& router, Duration now) {
  checkSas(router);
  checkGenerations(router, now);
}

void TableChecks::checkSas(const Router& router) {
  using enum Invariant;
  const RouterEntities& entities = router.entities();
  const Ipsec::TesselV1Sm& machine = router.machine();
  const IpsecCommon::TesselV1& handedOver = *entities.tesselV1;
  const Ptr<Ike::VrfStatus>& vrf = entities.ipsecStatus->vrfStatus(L3::kDefaultVrfName);
  size_t paths = 0;
  size_t sas = 0;
  for (const auto& [peer, state] : entities.ipsecStatus->ipsecPeerConnectionState()) {
    checkPeer(router, peer, *state);
    for (const auto& [key, path] : state->pathConnState()) {
      ++paths;
      sas += path->pathConnSaInfo().size();
      checkPath(router, *path);
    }
  }
  if (findings_.violated(tablesAgree,
                         vrf->tesselSa().size() == sas && vrf->lifetimeCfg().size() == sas &&
                             handedOver.sa().size() == sas && handedOver.cpSa().size() == sas)) {
    findings_.add(tablesAgree, {.routers = {router.name()}},
                  "a table has an SA that belongs to no path");
  }
  if (findings_.violated(tablesAgree, machine.paths().rekeySm().size() == paths &&
                                          machine.paths().totalPaths() == paths)) {
    findings_.add(tablesAgree, {.routers = {router.name()}}, "a rekey machine belongs to no path");
  }
}

void TableChecks::checkPeer(const Router& router, const IpGenAddr& peer,
                            const Ike::PeerConnectionState& state) {
  const Ipsec::TesselV1Sm& machine = router.machine();
  const Ptr<TesselPeerKeyInfoList> list = machine.peerKeys().localPeerKeyInfoList(peer);
  const size_t own = machine.localKey().localKeyInfo().size();
  const size_t theirs = list ? list->peerKeyInfo().size() : 0;
  const size_t records = state.dhCryptoInfo().size();
  if (findings_.violated(Invariant::tablesBounded,
                         std::max(own, theirs) <= kMaxGenerations && records <= kMaxPairs)) {
    findings_.add(Invariant::tablesBounded,
                  {.routers = {router.name()}, .detail = "peer " + peer.stringValue()},
                  number(own) + " own generations, " + number(theirs) + " of the peer, " +
                      number(records) + " crypto records");
  }
}

void TableChecks::checkPath(const Router& router, const Ike::PathConnState& path) {
  using enum Invariant;
  const ConnectionKey& key = path.connectionKey();
  const IpsecCommon::TesselV1& handedOver = *router.entities().tesselV1;
  const Ptr<Ike::VrfStatus>& vrf = router.entities().ipsecStatus->vrfStatus(L3::kDefaultVrfName);
  const Ptr<Ipsec::RekeySm>& rekeySm = router.machine().paths().rekeySm(key);
  const size_t sas = path.pathConnSaInfo().size();
  if (findings_.violated(tablesAgree, rekeySm && rekeySm->pathConnState().get() == &path &&
                                          rekeySm->pathConnSaInfo().size() == sas)) {
    findings_.add(tablesAgree, placeOf(router, key),
                  "not one rekey machine with one reactor per SA");
  }
  if (findings_.violated(tablesBounded, sas <= kMaxSasPerPath)) {
    findings_.add(tablesBounded, placeOf(router, key), number(sas) + " SAs");
  }
  const size_t records = std::max(path.saCryptoInfo().size(), path.dhState().size());
  if (findings_.violated(tablesBounded, records <= kMaxPairs)) {
    findings_.add(tablesBounded, placeOf(router, key),
                  number(records) + " records of key generations");
  }
  for (const auto& [saKey, saInfo] : path.pathConnSaInfo()) {
    if (findings_.violated(tablesAgree,
                           vrf->tesselSa(saKey) == saInfo->sa() && handedOver.sa().has(saKey) &&
                               vrf->lifetimeCfgHas(saKey) && handedOver.cpSa(saKey) == key)) {
      findings_.add(tablesAgree, placeOf(router, key),
                    "SA " + spiText(saKey.spi) + " is not in every table");
    }
    size_t alike = 0;
    for (const auto& [otherKey, other] : path.pathConnSaInfo()) {
      alike += other->sa()->dhKeyPair() == saInfo->sa()->dhKeyPair() ? 1 : 0;
    }
    if (findings_.violated(tablesBounded, alike <= kMaxSasPerPair)) {
      findings_.add(tablesBounded, placeOf(router, key),
                    number(alike) + " SAs of one pair of generations");
    }
  }
}

void TableChecks::checkGenerations(const Router& router, Duration now) {
  using enum Invariant;
  const Ipsec::TesselV1Sm& machine = router.machine();
  const auto& own = machine.localKey().localKeyInfo();
  if (findings_.violated(generationsRetired, own.size() <= 1 || machine.dhRekey().dhRekeyState() !=
                                                                    DhRekeyState::notRekeying)) {
    findings_.add(generationsRetired, {.routers = {router.name()}},
                  number(own.size()) + " local generations without a rekey");
  }
  std::map<Stored, Duration> superfluous;
  std::map<Stored, Duration>& before = superfluousSince_[router.index()];
  const auto check = [&](const IpGenAddr& peer, const DhKeyPair& pair, const std::string& what) {
    const auto known = before.find({peer, pair});
    const Duration since = known == before.end() ? now : known->second;
    superfluous.emplace(Stored(peer, pair), since);
    if (findings_.violated(generationsRetired, now - since <= kRetirementDelay)) {
      findings_.add(generationsRetired,
                    {.routers = {router.name()}, .detail = "peer " + peer.stringValue() + what},
                    "is stored though nothing needs it");
    }
  };
  const uint64_t published = router.entities().ipsecLocalKeyDir->rekeyCounter();
  for (const auto& [peer, state] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    const Controller::PeerKeyInfo& record =
        router.entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(peer);
    const Ptr<TesselPeerKeyInfoList> list = machine.peerKeys().localPeerKeyInfoList(peer);
    if (!list || record.valid == 0 || router.running().scheduler->paused()) {
      continue;
    }
    std::set<DhKeyPair> inUse;
    std::set<uint64_t> theirsInUse;
    for (const auto& [key, path] : state->pathConnState()) {
      for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
        inUse.insert(saInfo->sa()->dhKeyPair());
        theirsInUse.insert(saInfo->sa()->dhKeyPair().peerRekeyCount);
      }
    }
    for (const auto& [count, generation] : list->peerKeyInfo()) {
      if (count + 1 < record.rekeyCounter && !theirsInUse.contains(count)) {
        check(peer, {.localRekeyCount = kAnyGeneration, .peerRekeyCount = count},
              ", generation " + std::to_string(count));
      }
    }
    for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
      const bool isOld = pair.localRekeyCount + 1 < published && !own.has(pair.localRekeyCount);
      const bool hasPeerKey = list->peerKeyInfo().has(pair.peerRekeyCount);
      if ((isOld || !hasPeerKey) && !inUse.contains(pair)) {
        check(peer, pair, ", crypto of generations " + stringValue(pair));
      }
    }
  }
  before = std::move(superfluous);
}

void TableChecks::lookAtLogs(const Router& router) {
  const auto check = [&](const auto& log, const Place& place) {
    if (findings_.violated(Invariant::logsContiguous, isContiguous(*log))) {
      findings_.add(Invariant::logsContiguous, place, "the log has a gap");
    }
  };
  const RecordEvents& events = *router.entities().recordEvents;
  const Place here = {.routers = {router.name()}};
  if (const Ptr<LocalEventLog>& local = events.localEvents()) {
    check(local, here);
  }
  for (const auto& [peer, log] : events.peerEvents()) {
    check(log, here);
  }
  for (const auto& [path, log] : events.pathEvents()) {
    check(log, here);
  }
  for (const auto& [sa, log] : events.saEvents()) {
    check(log, here);
  }
  const size_t gone = std::max<size_t>(router.settings().maxGoneSaLogs, 1);
  const size_t logs = router.entities().tesselV1->sa().size() + gone * router.paths().size();
  if (findings_.violated(Invariant::tablesBounded,
                         events.saEvents().size() <= logs &&
                             events.pathEvents().size() <= router.paths().size())) {
    findings_.add(Invariant::tablesBounded, here,
                  number(events.saEvents().size()) + " logs of SAs, " +
                      number(events.pathEvents().size()) + " of paths");
  }
}

}  // namespace tessel::lab
