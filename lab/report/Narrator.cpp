#include "lab/report/Narrator.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "lab/dataplane/InnerPacket.h"
#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

constexpr std::string_view kLab = "lab";

std::string saText(const SaReport& sa) {
  return fmt::format("SA {} {}", spiText(sa.key.spi), sa.inbound ? "in" : "out");
}

std::string pathNameAt(const Router& router, const ConnectionKey& key) {
  const RouterPath* path = router.path(key);
  return path == nullptr ? stringValue(key) : path->end.name;
}

std::string recordText(const Controller::PeerKeyInfo& record) {
  return fmt::format("key {}: {}, {} and {}", record.rekeyCounter,
                     plainName(static_cast<IpsecDhGroup>(record.dhGroup)),
                     plainName(static_cast<IpsecEspAlgorithm>(record.encryptAlgo)),
                     plainName(static_cast<IpsecHmacAlgorithm>(record.hashAlgo)));
}

const char* limitUnit(HardLimitFinding::Limit limit) {
  return limit == HardLimitFinding::Limit::time ? "seconds" : hardLimitName(limit);
}

}  // namespace

/// Watches one agent from its start to its stop.
class Narrator::AgentWatch final : public DataPlaneObserver {
 public:
  AgentWatch(Narrator& narrator, Router& router) : narrator_(narrator), router_(router) {
    status_.attach<&AgentWatch::handleStatus>(*router.entities().ipsecStatus, *this);
    router.dataPlane().observerAdd(*this);
  }
  AgentWatch(const AgentWatch&) = delete;
  AgentWatch& operator=(const AgentWatch&) = delete;
  ~AgentWatch() override { router_.dataPlane().observerDel(*this); }

  void handleInnerPacket(const ConnectionKey& key) {
    if (pathsWithPackets_.insert(key).second) {
      tell(fmt::format("path {}: first packet decrypted", pathNameAt(router_, key)));
    }
  }

 private:
  /// Follows the state of one path.
  class PathWatch {
   public:
    PathWatch(AgentWatch& agent, const Ike::PathConnState& path)
        : agent_(agent), path_(path), told_(path.pathState()) {
      subscription_.attach<&PathWatch::handlePath>(path, *this);
    }

   private:
    void handlePath(const Change& change) {
      if (!change.is(Ike::PathConnState::pathStateName)) {
        return;
      }
      const DynamicPathState before = std::exchange(told_, path_.pathState());
      agent_.tell(fmt::format("path {}: {} -> {}",
                              pathNameAt(agent_.router_, path_.connectionKey()), plainName(before),
                              plainName(told_)));
    }

    AgentWatch& agent_;
    const Ike::PathConnState& path_;
    DynamicPathState told_;
    Subscription subscription_;
  };

  /// Follows one peer: whether it is ready, and its paths.
  class PeerWatch {
   public:
    PeerWatch(AgentWatch& agent, const Ike::PeerConnectionState& peer)
        : agent_(agent), peer_(peer) {
      subscription_.attach<&PeerWatch::handlePeer>(peer, *this);
    }

   private:
    void handlePeer(const Change& change) {
      if (const ConnectionKey* key = change.memberOf(Ike::PeerConnectionState::pathConnStateName)) {
        handlePathMember(*key, change.kind());
      } else if (change.is(Ike::PeerConnectionState::peerConnStatusName) ||
                 change.is(Ike::PeerConnectionState::peerDownReasonName)) {
        handleReadiness();
      }
    }

    void handlePathMember(const ConnectionKey& key, Change::Kind kind) {
      if (kind == Change::Kind::added) {
        paths_[key] = std::make_unique<PathWatch>(agent_, *peer_.pathConnState(key));
      } else if (kind == Change::Kind::removed) {
        paths_.erase(key);
        agent_.tell(fmt::format("path {}: gone", pathNameAt(agent_.router_, key)));
      }
    }

    void handleReadiness() {
      // Status and reason are written one after the other: down without a reason is not the end.
      const std::pair now(peer_.peerConnStatus(), peer_.peerDownReason());
      const bool down = now.first == PeerConnStatus::down;
      if ((down && now.second == PeerDownReason::none) || (!down && !told_)) {
        return;
      }
      if (std::exchange(told_, down ? std::optional(now.second) : std::nullopt) !=
          std::optional(now.second)) {
        const std::string text = down ? "down, " + plainName(now.second) : plainName(now.first);
        agent_.tell(
            fmt::format("peer {}: {}", agent_.narrator_.routerName(peer_.peerAddr()), text));
      }
    }

    AgentWatch& agent_;
    const Ike::PeerConnectionState& peer_;
    std::optional<PeerDownReason> told_;  // None: ready, as far as was told.
    std::map<ConnectionKey, std::unique_ptr<PathWatch>> paths_;
    Subscription subscription_;
  };

  /// Drops of one kind: what was told of them, and when to tell the rest.
  struct DropRun {
    uint64_t untold = 0;
    size_t step = 0;
    bool waiting = false;
  };
  using DropKind = std::tuple<std::string, DropReason, bool>;  // Path, reason, sending.

  void tell(std::string_view text) { narrator_.tell(router_.name(), text); }

  void handleStatus(const Change& change) {
    const IpGenAddr* peer = change.memberOf(Ike::Status::ipsecPeerConnectionStateName);
    if (peer == nullptr) {
      return;
    }
    const Ike::Status& status = *router_.entities().ipsecStatus;
    if (change.kind() == Change::Kind::added) {
      peers_[*peer] = std::make_unique<PeerWatch>(*this, *status.ipsecPeerConnectionState(*peer));
    } else if (change.kind() == Change::Kind::removed) {
      peers_.erase(*peer);
      tell(fmt::format("peer {}: gone", narrator_.routerName(*peer)));
    }
  }

  void handleSaHandedOver(const SaReport& sa) override {
    tell(fmt::format("{}: handed over for path {}, {}", saText(sa), pathNameAt(router_, sa.path),
                     plainName(sa.saType)));
  }
  void handleSaInstalled(const SaReport& sa) override { tell(saText(sa) + ": installed"); }
  void handleSaNotInstalled(const SaReport& sa) override {
    tell(fmt::format("{}: {}, {}", saText(sa), saInstallStateName(sa.state), sa.refusal));
  }
  void handleSaRemoved(const SaReport& sa) override { tell(saText(sa) + ": removed"); }
  void handleNonceSent(const SaReport& sa, uint32_t nonceWord) override {
    tell(fmt::format("{}: first packet with a nonce of the {} sent", saText(sa),
                     nonceKind(nonceWord)));
  }
  void handleNonceReceived(const SaReport& sa, uint32_t nonceWord) override {
    tell(fmt::format("{}: nonce of the {} received", saText(sa), nonceKind(nonceWord)));
  }
  void handleHardLimit(const HardLimitFinding& finding) override {
    tell(fmt::format("SA {}: passed its hard limit of {} {}", spiText(finding.key.spi),
                     finding.allowed, limitUnit(finding.limit)));
  }

  void handleDrop(const PacketDrop& drop) override {
    const DropKind kind(drop.path ? pathNameAt(router_, *drop.path) : "", drop.reason,
                        drop.sending);
    DropRun& run = drops_[kind];
    if (run.waiting) {
      ++run.untold;
      return;
    }
    tell(fmt::format("dropped a packet {}", dropText(kind)));
    run = {.waiting = true};
    wait(kind, run);
  }

  /// Tells the drops that came since the last line, or ends the run when there were none.
  void handleDropInterval(const DropKind& kind) {
    DropRun& run = drops_[kind];
    if (run.untold == 0) {
      run.waiting = false;
      return;
    }
    tell(fmt::format("dropped {} more {}", std::exchange(run.untold, 0), dropText(kind)));
    wait(kind, run);
  }

  void wait(const DropKind& kind, DropRun& run) {
    static constexpr std::array<double, 3> intervals = {1, 10, 60};  // Seconds.
    const Duration now = narrator_.clock_->monotonicTime();
    // The agent may have gone down by then.
    router_.running().dataScheduler->at(
        now + seconds(intervals[run.step]),
        [narrator = &narrator_, name = router_.name(), start = router_.starts(), kind] {
          const auto agent = narrator->agents_.find(name);
          if (agent != narrator->agents_.end() && agent->second->router_.starts() == start) {
            agent->second->handleDropInterval(kind);
          }
        });
    run.step = std::min(run.step + 1, intervals.size() - 1);
  }

  static std::string dropText(const DropKind& kind) {
    const auto& [path, reason, sending] = kind;
    return fmt::format("{}{}: {}", sending ? "to send" : "received",
                       path.empty() ? "" : " on path " + path, dropReasonName(reason));
  }
  static std::string nonceKind(uint32_t nonceWord) {
    const uint32_t kind = nonceWord >> 28U;
    return kind <= static_cast<uint32_t>(NonceType::responder)
               ? plainName(static_cast<NonceType>(kind))
               : fmt::format("unknown kind {}", kind);
  }

  Narrator& narrator_;
  Router& router_;
  std::map<IpGenAddr, std::unique_ptr<PeerWatch>> peers_;
  std::set<ConnectionKey> pathsWithPackets_;
  std::map<DropKind, DropRun> drops_;
  Subscription status_;
};

Narrator::Narrator(const Scenario& scenario, Write write)
    : write_(std::move(write)), nameWidth_(kLab.size()) {
  for (const RouterPlan& router : scenario.routers) {
    nameWidth_ = std::max(nameWidth_, router.name.size());
    namesByAddress_[router.routerId] = router.name;
  }
}

Narrator::~Narrator() = default;

void Narrator::handleEnd() {
  agents_.clear();
}

void Narrator::handleRouterUp(Router& router) {
  clock_ = &router.running().scheduler->clock();
  namesByAddress_[router.routerId()] = router.name();
  agents_[router.name()] = std::make_unique<AgentWatch>(*this, router);
  const std::string& profile = router.appliedProfile();
  tell(router.name(), fmt::format("up as {}, {}, group {}", router.routerId().stringValue(),
                                  profile.empty() ? "no profile" : "profile " + profile,
                                  plainName(router.settings().group)));
}

void Narrator::handleRouterDown(Router& router) {
  agents_.erase(router.name());
  tell(router.name(), "down");
}

void Narrator::handleInnerPacket(Router& router, const ConnectionKey& path, BytesView) {
  agents_.at(router.name())->handleInnerPacket(path);
}

void Narrator::handlePublished(const std::string& router, const Controller::PeerKeyInfo* record) {
  if (record == nullptr) {
    tell(router, "key withdrawn");
    return;
  }
  namesByAddress_[record->originatorId] = router;
  tell(router, "published " + recordText(*record));
}

void Narrator::handleDelivered(const std::string& router, const IpGenAddr& originator,
                               const Controller::PeerKeyInfo* record) {
  const std::string name = routerName(originator);
  tell(router, record == nullptr ? name + "'s key is withdrawn"
                                 : fmt::format("received {}'s {}", name, recordText(*record)));
}

void Narrator::handleConnected(const std::string& router, bool connected) {
  tell(router, connected ? "controllers: connected" : "controllers: connection lost");
}

void Narrator::handleAction(const TimelineEntry& entry) {
  tellAt(entry.at, kLab, entry.text.empty() ? "timeline" : "timeline: " + entry.text);
}

void Narrator::handleVerdict(const Verdict& verdict) {
  if (!verdict.held) {
    tellAt(verdict.at, kLab, "not held: " + stringValue(verdict));
  }
}

void Narrator::handleEvent(const Router& router, const LocalEvent& event) {
  static const std::map<std::string_view, std::string_view> texts = {
      {"dhRekeyInitiated", "DH rekey started"},
      {"dhRekeyInSaInstalled", "DH rekey: every path has its new in-SA"},
      {"dhRekeyNotRekeying", "DH rekey done"},
      {"generateDhKey", "local key generated"},
      {"destroyDhKey", "local key destroyed"}};
  if (const auto text = texts.find(event.eventName.text()); text != texts.end()) {
    tell(router.name(), fmt::format("{}, key {}", text->second, event.number));
  }
}

void Narrator::handleEvent(const Router& router, const PeerEvent& event) {
  static const std::map<std::string_view, std::string_view> texts = {
      {"firstDhExchange", "first DH exchange done"},
      {"initiatorDhRekey", "DH rekey as initiator"},
      {"responderDhRekey", "DH rekey as responder"}};
  if (const auto text = texts.find(event.eventName.text()); text != texts.end()) {
    tell(router.name(), fmt::format("peer {}: {}, keys {}", routerName(event.peer), text->second,
                                    pairText(event.dhKeyPair)));
  }
}

void Narrator::handleEvent(const Router& router, const PathEvent& event) {
  static const std::map<std::string_view, std::string_view> texts = {
      {"maybeRekeySa", "SA rekey started"}, {"markRekeyComplete", "rekey complete"}};
  if (const auto text = texts.find(event.eventName.text()); text != texts.end()) {
    tell(router.name(), fmt::format("path {}: {}, keys {}", pathNameAt(router, event.connectionKey),
                                    text->second, pairText(event.dhKeyPair)));
  }
}

void Narrator::handleLog(const AgentLogLine& line) {
  tellAt(line.time, line.context,
         fmt::format("log: %{}-{}: {}", line.severity, line.identifier, line.text));
}

void Narrator::handleTrace(const TraceLine& line) {
  tellAt(line.time, line.context, fmt::format("| {}", line.text));
}

void Narrator::tell(std::string_view router, std::string_view text) {
  tellAt(clock_ == nullptr ? Duration() : clock_->monotonicTime(), router, text);
}

void Narrator::tellAt(Duration time, std::string_view router, std::string_view text) {
  write_(fmt::format("{:>11.3f} s  {:<{}}  {}\n", time.seconds(), router, nameWidth_, text));
}

std::string Narrator::routerName(const IpGenAddr& address) const {
  const auto found = namesByAddress_.find(address);
  return found == namesByAddress_.end() ? address.stringValue() : found->second;
}

}  // namespace tessel::lab
