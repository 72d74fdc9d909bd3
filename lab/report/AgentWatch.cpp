#include "lab/report/AgentWatch.h"

#include <utility>

#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

std::string nonceKind(uint32_t nonceWord) {
  const uint32_t kind = nonceWord >> 28U;
  return kind <= static_cast<uint32_t>(NonceType::responder)
             ? plainName(static_cast<NonceType>(kind))
             : "unknown kind " + std::to_string(kind);
}

}  // namespace

/// Follows the state of one path.
class EventStream::AgentWatch::PathWatch {
 public:
  PathWatch(AgentWatch& agent, const Ike::PathConnState& path)
      : agent_(agent), path_(path), told_(path.pathState()) {
    subscription_.attach<&PathWatch::handlePath>(path, *this);
  }

  DynamicPathState told() const { return told_; }

 private:
  void handlePath(const Change& change) {
    if (change.is(Ike::PathConnState::pathStateName)) {
      const DynamicPathState before = std::exchange(told_, path_.pathState());
      agent_.tellOfPath(path_.connectionKey(), event::PathState{.from = before, .to = told_});
    }
  }

  AgentWatch& agent_;
  const Ike::PathConnState& path_;
  DynamicPathState told_;
  Subscription subscription_;
};

/// Follows one peer: whether it is ready, and its paths.
class EventStream::AgentWatch::PeerWatch {
 public:
  PeerWatch(AgentWatch& agent, const Ike::PeerConnectionState& peer) : agent_(agent), peer_(peer) {
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
    } else if (const auto path = paths_.find(key);
               kind == Change::Kind::removed && path != paths_.end()) {
      const event::PathGone gone{.from = path->second->told()};
      paths_.erase(path);
      agent_.tellOfPath(key, gone);
    }
  }

  void handleReadiness() {
    // Status and reason are written one after the other: down without a reason is not the end. The
    // reason outlasts it: a peer that is ready again still has it.
    const bool down = peer_.peerConnStatus() == PeerConnStatus::down;
    const PeerDownReason reason = down ? peer_.peerDownReason() : PeerDownReason::none;
    if (told_ != reason && (!down || reason != PeerDownReason::none)) {
      told_ = reason;
      agent_.tellOfPeer(peer_.peerAddr(),
                        event::PeerStatus{.status = peer_.peerConnStatus(), .reason = reason});
    }
  }

  AgentWatch& agent_;
  const Ike::PeerConnectionState& peer_;
  PeerDownReason told_ = PeerDownReason::none;  // None: ready.
  std::map<ConnectionKey, std::unique_ptr<PathWatch>> paths_;
  Subscription subscription_;
};

/// Follows the type of one SA.
class EventStream::AgentWatch::SaWatch {
 public:
  SaWatch(AgentWatch& agent, const SaReport& report, Ptr<Ike::SecurityAssociation> sa)
      : agent_(agent), key_(report.key), sa_(std::move(sa)), told_(report.saType) {
    subscription_.attach<&SaWatch::handleSa>(*sa_, *this);
  }

  DhKeyPair generations() const { return sa_->dhKeyPair(); }

 private:
  void handleSa(const Change& change) {
    if (!change.is(Ike::SecurityAssociation::saTypeName) || !agent_.stream_.everything_) {
      return;
    }
    const std::optional<SaReport> report = agent_.router_.dataPlane().sa(key_);
    const SaType before = std::exchange(told_, sa_->saType());
    if (report) {
      agent_.tellOfPath(report->path, event::SaStep{.step = event::SaStep::Step::retyped,
                                                    .sa = agent_.facts(*report),
                                                    .before = before});
    }
  }

  AgentWatch& agent_;
  const SecurityAssociationKey key_;
  const Ptr<Ike::SecurityAssociation> sa_;
  SaType told_;
  Subscription subscription_;
};

EventStream::AgentWatch::AgentWatch(EventStream& stream, Router& router)
    : stream_(stream), router_(router) {
  status_.attach<&AgentWatch::handleStatus>(*router.entities().ipsecStatus, *this);
  router.dataPlane().observerAdd(*this);
}

EventStream::AgentWatch::~AgentWatch() {
  router_.dataPlane().observerDel(*this);
}

void EventStream::AgentWatch::handleInnerPacket(const ConnectionKey& key) {
  if (pathsWithPackets_.insert(key).second) {
    tellOfPath(key, event::FirstPacket{});
  }
}

void EventStream::AgentWatch::handleStatus(const Change& change) {
  const IpGenAddr* peer = change.memberOf(Ike::Status::ipsecPeerConnectionStateName);
  if (peer == nullptr) {
    return;
  }
  const Ike::Status& status = *router_.entities().ipsecStatus;
  if (change.kind() == Change::Kind::added) {
    peers_[*peer] = std::make_unique<PeerWatch>(*this, *status.ipsecPeerConnectionState(*peer));
  } else if (change.kind() == Change::Kind::removed) {
    peers_.erase(*peer);
    tellOfPeer(*peer, event::PeerGone{});
  }
}

void EventStream::AgentWatch::handleSaHandedOver(const SaReport& sa) {
  if (const Ptr<Ike::SecurityAssociation>* entity =
          router_.entities().tesselV1->sa().find(sa.key)) {
    sas_[sa.key] = std::make_unique<SaWatch>(*this, sa, *entity);
  }
  tellSa(sa, event::SaStep::Step::handedOver);
}

void EventStream::AgentWatch::handleSaInstalled(const SaReport& sa) {
  tellSa(sa, event::SaStep::Step::installed);
}

void EventStream::AgentWatch::handleSaNotInstalled(const SaReport& sa) {
  tellSa(sa, event::SaStep::Step::notInstalled);
}

void EventStream::AgentWatch::handleSaRemoved(const SaReport& sa) {
  tellSa(sa, event::SaStep::Step::removed);
  sas_.erase(sa.key);
}

void EventStream::AgentWatch::handleNonceSent(const SaReport& sa, uint32_t nonceWord) {
  tellNonce(sa, nonceWord, true);
}

void EventStream::AgentWatch::handleNonceReceived(const SaReport& sa, uint32_t nonceWord) {
  tellNonce(sa, nonceWord, false);
}

void EventStream::AgentWatch::handleHardLimit(const HardLimitFinding& finding) {
  tellOfPath(
      finding.path,
      event::HardLimit{.spi = finding.key.spi, .limit = finding.limit, .allowed = finding.allowed});
}

void EventStream::AgentWatch::handleDrop(const PacketDrop& drop) {
  const event::Drop what{
      .reason = drop.reason, .sending = drop.sending, .spi = drop.spi, .sequence = drop.sequence};
  if (drop.path) {
    tellOfPath(*drop.path, what);
  } else if (const RouterPath* path = pathOf(drop.ends)) {
    tellOfPath(path->end.key, what);
  } else {
    stream_.tell({.at = stream_.now(), .router = router_.name(), .what = what});
  }
}

SaFacts EventStream::AgentWatch::facts(const SaReport& report) const {
  const auto watch = sas_.find(report.key);
  return {.spi = report.key.spi,
          .inbound = report.inbound,
          .type = report.saType,
          .generations = watch == sas_.end() ? DhKeyPair() : watch->second->generations(),
          .handOver = report.handOver,
          .state = report.state,
          .packets = report.pkts,
          .bytes = report.bytes,
          .keyTag = report.keyTag};
}

void EventStream::AgentWatch::tellSa(const SaReport& sa, event::SaStep::Step step) {
  tellOfPath(sa.path, event::SaStep{.step = step, .sa = facts(sa), .why = sa.refusal});
}

void EventStream::AgentWatch::tellNonce(const SaReport& sa, uint32_t nonceWord, bool sent) {
  tellOfPath(sa.path, event::Nonce{.sa = facts(sa), .sent = sent, .kind = nonceKind(nonceWord)});
}

void EventStream::AgentWatch::tellOfPath(const ConnectionKey& key, LabEvent::What what) {
  const RouterPath* path = router_.path(key);
  stream_.tell({.at = stream_.now(),
                .router = router_.name(),
                .path = path == nullptr ? stringValue(key) : path->end.name,
                .peer = path == nullptr ? "" : path->end.peer,
                .what = std::move(what)});
}

void EventStream::AgentWatch::tellOfPeer(const IpGenAddr& peer, LabEvent::What what) {
  stream_.tell({.at = stream_.now(),
                .router = router_.name(),
                .peer = stream_.routerName(peer),
                .what = std::move(what)});
}

const RouterPath* EventStream::AgentWatch::pathOf(const UdpEnds& ends) const {
  for (const std::unique_ptr<RouterPath>& path : router_.paths()) {
    const PathEnd& end = path->end;
    if (end.key.srcAddr == ends.dst && end.key.dstAddr == ends.src &&
        end.localPort == ends.dstPort && end.remotePort == ends.srcPort) {
      return path.get();
    }
  }
  return nullptr;
}

}  // namespace tessel::lab
