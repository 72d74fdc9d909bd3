#include "lab/check/Invariants.h"

#include <algorithm>

#include "lab/net/ByteOrder.h"
#include "lab/run/Lab.h"
#include "sm/DhRekey.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::lab {
namespace {

constexpr size_t kGcmIvSize = 8;

// A steady pair, that of an SA rekey, those of a DH rekey of either end; and retired ones, which
// pile up by three with every rekey that is forced until the path is pruned, or is rebuilt for
// silence.
constexpr size_t kMaxSasPerPath = 32;
// What has to go goes at a sanity pass, one a minute; the look that sees it may be late by its
// period.
constexpr Duration kRetirementDelay = seconds(75);

std::string number(size_t value) {
  return std::to_string(value);
}

template <class Event>
bool isContiguous(const EventLog<Event>& log) {
  const size_t expected = std::min<size_t>(log.eventCount(), log.capacity());
  const std::vector<Event> events = log.inOrder();
  return events.size() == expected && log.head() < log.capacity() &&
         std::ranges::is_sorted(events, {}, &Event::time);
}

}  // namespace

std::string stringValue(const Violation& violation) {
  return violation.invariant + " at " + tessel::stringValue(violation.at) + ", " + violation.where +
         ": " + violation.what;
}

/// Watches the packets of a router from one start to the next stop.
class Invariants::Packets final : public DataPlaneObserver {
 public:
  Packets(Invariants& owner, Router& router) : owner_(owner), router_(router) {
    router_.dataPlane().observerAdd(*this);
  }
  Packets(const Packets&) = delete;
  Packets& operator=(const Packets&) = delete;
  ~Packets() override { router_.dataPlane().observerDel(*this); }

  const Router& router() const { return router_; }

 private:
  bool wantsPackets() const override { return true; }
  void handlePacketSent(const PacketSent& packet) override { owner_.checkIv(router_, packet); }

  Invariants& owner_;
  Router& router_;
};

Invariants::Invariants() = default;

Invariants::~Invariants() = default;

void Invariants::start(Lab& lab, Duration every) {
  lab_ = &lab;
  schedule(lab, every);
}

void Invariants::schedule(Lab& lab, Duration every) {
  lab.at(lab.now() + every, [this, &lab, every] {
    look(lab);
    schedule(lab, every);
  });
}

void Invariants::handleRouterUp(Router& router) {
  packets_.push_back(std::make_unique<Packets>(*this, router));
}

void Invariants::handleRouterDown(Router& router) {
  std::erase_if(packets_, [&](const auto& each) { return &each->router() == &router; });
}

void Invariants::handleEnd() {
  packets_.clear();
  lab_ = nullptr;
}

void Invariants::look(Lab& lab) {
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    if (router->up() && router->running().machine) {
      checkTables(*router);
      if (router->running().scheduler->paused()) {
        std::erase_if(superfluousSince_, [&](const auto& each) {
          return each.first.starts_with(router->name() + ",");
        });
      } else {
        checkGenerations(*router, lab.now());
      }
      checkLogs(*router);
    }
  }
  for (const PathPlan& path : lab.scenario().paths) {
    checkPath(lab, path);
  }
}

void Invariants::checkTables(const Router& router) {
  static constexpr const char* agree = "tables-agree";
  static constexpr const char* bounded = "tables-bounded";
  const RouterEntities& entities = router.entities();
  const Ipsec::TesselV1Sm& machine = router.machine();
  const IpsecCommon::TesselV1& handedOver = *entities.tesselV1;
  const Ptr<Ike::VrfStatus>& vrf = entities.ipsecStatus->vrfStatus(L3::kDefaultVrfName);
  size_t paths = 0;
  size_t sas = 0;
  for (const auto& [peer, state] : entities.ipsecStatus->ipsecPeerConnectionState()) {
    for (const auto& [key, path] : state->pathConnState()) {
      const auto atPath = [&] { return router.name() + ", path " + tessel::stringValue(key); };
      const Ptr<Ipsec::RekeySm>& rekeySm = machine.paths().rekeySm(key);
      ++paths;
      sas += path->pathConnSaInfo().size();
      if (violated(rekeySm && rekeySm->pathConnState() == path &&
                   rekeySm->pathConnSaInfo().size() == path->pathConnSaInfo().size())) {
        add(agree, atPath(), "not one rekey machine with one reactor per SA");
      }
      if (violated(path->pathConnSaInfo().size() <= kMaxSasPerPath)) {
        add(bounded, atPath(), number(path->pathConnSaInfo().size()) + " SAs");
      }
      for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
        if (violated(vrf->tesselSa(saKey) == saInfo->sa() && handedOver.sa().has(saKey) &&
                     vrf->lifetimeCfgHas(saKey) && handedOver.cpSa(saKey) == key)) {
          add(agree, atPath(), "SA " + spiText(saKey.spi) + " is not in every table");
        }
      }
    }
  }
  if (violated(vrf->tesselSa().size() == sas && vrf->lifetimeCfg().size() == sas &&
               handedOver.sa().size() == sas && handedOver.cpSa().size() == sas)) {
    add(agree, router.name(), "a table has an SA that belongs to no path");
  }
  if (violated(machine.paths().rekeySm().size() == paths &&
               machine.paths().totalPaths() == paths)) {
    add(agree, router.name(), "a rekey machine belongs to no path");
  }
}

void Invariants::checkGenerations(const Router& router, Duration now) {
  static constexpr const char* retired = "generations-retired";
  const Ipsec::TesselV1Sm& machine = router.machine();
  const size_t local = machine.localKey().localKeyInfo().size();
  if (violated(local <= 1 || machine.dhRekey().dhRekeyState() != DhRekeyState::notRekeying)) {
    add(retired, router.name(), number(local) + " local generations without a rekey");
  }
  for (const auto& [peer, state] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    const std::string place = router.name() + ", peer " + peer.stringValue();
    const Controller::PeerKeyInfo& record =
        router.entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(peer);
    const Ptr<TesselPeerKeyInfoList> list = machine.peerKeys().localPeerKeyInfoList(peer);
    std::set<uint64_t> inUse;
    for (const auto& [key, path] : state->pathConnState()) {
      for (const auto& [saKey, saInfo] : path->pathConnSaInfo()) {
        inUse.insert(saInfo->sa()->dhKeyPair().peerRekeyCount);
      }
    }
    for (const uint64_t count : list ? list->peerKeyInfo().keys() : std::vector<uint64_t>()) {
      const std::string generation = place + ", generation " + std::to_string(count);
      if (record.valid == 0 || count + 1 >= record.rekeyCounter || inUse.contains(count)) {
        superfluousSince_.erase(generation);
        continue;
      }
      const Duration since = superfluousSince_.emplace(generation, now).first->second;
      if (violated(now - since <= kRetirementDelay)) {
        add(retired, generation, "is stored though nothing needs it");
      }
    }
  }
}

void Invariants::checkLogs(const Router& router) {
  static constexpr const char* contiguous = "logs-contiguous";
  const RecordEvents& events = *router.entities().recordEvents;
  if (const Ptr<LocalEventLog>& local = events.localEvents()) {
    if (violated(isContiguous(*local))) {
      add(contiguous, router.name(), "the local log has a gap");
    }
  }
  for (const auto& [peer, log] : events.peerEvents()) {
    if (violated(isContiguous(*log))) {
      add(contiguous, router.name() + ", peer " + peer.stringValue(), "the log has a gap");
    }
  }
  for (const auto& [path, log] : events.pathEvents()) {
    if (violated(isContiguous(*log))) {
      add(contiguous, router.name() + ", path " + tessel::stringValue(path), "the log has a gap");
    }
  }
  for (const auto& [sa, log] : events.saEvents()) {
    if (violated(isContiguous(*log))) {
      add(contiguous, router.name() + ", SA " + spiText(sa.spi), "the log has a gap");
    }
  }
}

void Invariants::checkPath(const Lab& lab, const PathPlan& path) {
  for (const LinkEnd end : {LinkEnd::a, LinkEnd::b}) {
    const LinkCounts counts = lab.link(path.name).counts(end);
    if (violated(counts.sent + counts.duplicated + counts.replayed ==
                 counts.delivered + counts.lost() + counts.inFlight)) {
      add("packets-accounted", "path " + path.name, "the link has lost count");
    }
  }
  const Router& first = lab.router(path.ends[0].router);
  const Router& second = lab.router(path.ends[1].router);
  if (!first.up() || !second.up()) {
    return;
  }
  const std::vector<SaReport> theirs = second.dataPlane().sas(second.path(path.name)->end.key);
  for (const SaReport& ours : first.dataPlane().sas(first.path(path.name)->end.key)) {
    for (const SaReport& other : theirs) {
      if (ours.state == SaInstallState::installed && other.state == SaInstallState::installed &&
          ours.inbound != other.inbound && ours.key.spi == other.key.spi) {
        if (violated(ours.keyTag == other.keyTag)) {
          add("equal-spi-equal-key", "path " + path.name,
              "SA " + spiText(ours.key.spi) + " has another key at each end");
        }
      }
    }
  }
}

void Invariants::checkIv(const Router& router, const PacketSent& packet) {
  if (packet.iv.size() != kGcmIvSize) {
    return;  // Random ones, as for CBC, repeat by chance alone.
  }
  const uint64_t iv = (static_cast<uint64_t>(get32(packet.iv.data())) << 32U) |
                      get32(packet.iv.data() + sizeof(uint32_t));
  std::vector<IvRange>& ranges = ivs_[packet.sa->keyTag];
  IvRange* continued = nullptr;
  bool repeated = false;
  for (IvRange& range : ranges) {
    repeated |= iv - range.first < range.end - range.first;
    if (range.end == iv) {
      continued = &range;
    }
  }
  if (continued != nullptr) {
    ++continued->end;
  } else {
    ranges.push_back({iv, iv + 1});
  }
  if (violated(!repeated)) {
    add("iv-never-twice", router.name(),
        "SA " + spiText(packet.sa->key.spi) + " sent packet " + std::to_string(packet.sequence) +
            " with an IV that its key has had before");
  }
}

bool Invariants::violated(bool held) {
  ++evaluated_;
  return !held;
}

void Invariants::add(const char* invariant, const std::string& where, const std::string& what) {
  if (known_.insert(invariant + where).second) {
    violations_.push_back({.invariant = invariant,
                           .at = lab_ != nullptr ? lab_->now() : Duration(),
                           .where = where,
                           .what = what});
  }
}

}  // namespace tessel::lab
