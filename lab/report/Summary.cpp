#include "lab/report/Summary.h"

#include <algorithm>
#include <tuple>

#include "lab/run/Expectations.h"
#include "sm/DhRekey.h"

namespace tessel::lab {
namespace {

std::string pathNameOf(const Router& router, const ConnectionKey& key) {
  const RouterPath* path = router.path(key);
  return path == nullptr ? stringValue(key) : path->end.name;
}

void addPeers(const Lab& lab, const Router& router, RouterSummary& summary) {
  for (const auto& [address, peer] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    summary.peers.push_back({.name = routerNameOf(lab, address),
                             .address = address,
                             .status = peer->peerConnStatus(),
                             .reason = peer->peerDownReason(),
                             .generation = peer->rekeyCounter(),
                             .initiator = peer->initiator()});
  }
  std::ranges::sort(summary.peers, {}, &PeerSummary::address);
}

void addPaths(const Router& router, RouterSummary& summary) {
  for (const std::unique_ptr<RouterPath>& path : router.paths()) {
    const PathEnd& end = path->end;
    PathSummary each{.name = end.name,
                     .peer = end.peer,
                     .localAddr = end.key.srcAddr,
                     .remoteAddr = end.key.dstAddr,
                     .localPort = end.localPort,
                     .remotePort = end.remotePort,
                     .wanted = path->wanted(),
                     .link = path->link->counts(path->linkEnd)};
    if (router.up()) {
      const PathView view = router.pathView(end.name);
      each.state = view.exists() ? std::optional(view.state()) : std::nullopt;
      each.saRekeyRole = view.saSmState();
      each.generations = view.dhKeyPair();
      each.packets = view.statistics();
    }
    summary.paths.push_back(std::move(each));
  }
  std::ranges::sort(summary.paths, {}, &PathSummary::name);
}

void addSas(const Lab& lab, const Router& router, RouterSummary& summary) {
  for (const SaReport& report : router.dataPlane().sas()) {
    const Ptr<Ike::SecurityAssociation>* sa = router.entities().tesselV1->sa().find(report.key);
    SaSummary each{.path = pathNameOf(router, report.path),
                   .inbound = report.inbound,
                   .type = report.saType,
                   .spi = report.key.spi,
                   .state = report.state,
                   .packets = report.pkts,
                   .bytes = report.bytes};
    if (sa != nullptr) {
      each.generations = (*sa)->dhKeyPair();
      each.encryption = (*sa)->cryptoAlgo();
      each.integrity = (*sa)->authAlgo();
    }
    if (report.state == SaInstallState::installed) {
      each.age = lab.now() - report.installedAt;
    }
    summary.sas.push_back(std::move(each));
  }
  std::ranges::sort(summary.sas, {},
                    [](const SaSummary& sa) { return std::tuple(sa.path, !sa.inbound, sa.spi); });
}

class EventCollector {
 public:
  EventCollector(const Lab& lab, const Router& router, std::vector<EventSummary>& out)
      : lab_(lab), router_(router), out_(out) {}

  void collect() {
    using Log = EventSummary::Log;
    const RecordEvents& logs = *router_.entities().recordEvents;
    for (const LocalEvent& event : logs.localEvents()->inOrder()) {
      add(Log::local, event).number = event.number;
    }
    for (const auto& [peer, log] : logs.peerEvents()) {
      for (const PeerEvent& event : log->inOrder()) {
        EventSummary& each = add(Log::peer, event);
        each.subject = routerNameOf(lab_, event.peer);
        each.generations = event.dhKeyPair;
      }
    }
    for (const auto& [path, log] : logs.pathEvents()) {
      for (const PathEvent& event : log->inOrder()) {
        addPathData(add(Log::path, event), event, path);
      }
    }
    for (const auto& [key, log] : logs.saEvents()) {
      for (const SaEvent& event : log->inOrder()) {
        EventSummary& each = add(Log::sa, event);
        addPathData(each, event, router_.entities().tesselV1->cpSa(key));
        each.spi = event.spi;
      }
    }
    std::ranges::stable_sort(out_, {}, &EventSummary::time);
  }

 private:
  template <class Event>
  EventSummary& add(EventSummary::Log log, const Event& event) {
    return out_.emplace_back(EventSummary{.log = log,
                                          .time = event.time - VirtualTime::defaultUtcStart(),
                                          .name = event.eventName.string()});
  }
  template <class Event>
  void addPathData(EventSummary& each, const Event& event, const ConnectionKey& path) {
    // An SA that is gone is linked to no path any more.
    each.subject = path == ConnectionKey{} ? "" : pathNameOf(router_, path);
    each.pathState = event.pathState;
    each.generations = event.dhKeyPair;
  }

  const Lab& lab_;
  const Router& router_;
  std::vector<EventSummary>& out_;
};

}  // namespace

RouterSummary summaryOf(const Lab& lab, const Router& router) {
  RouterSummary summary{.name = router.name(), .routerId = router.routerId(), .up = router.up()};
  const RouterHistory& history = lab.history(router);
  summary.drops = history.drops();
  summary.sasPastHardLimit = history.sasPastHardLimit();
  addPaths(router, summary);
  if (!router.up()) {
    return summary;
  }
  const Controller::LocalKeyDir& published = *router.entities().ipsecLocalKeyDir;
  const Ipsec::TesselV1Sm& machine = router.machine();
  summary.connected = router.entities().controllerStatus->connected();
  summary.generation = published.valid() ? std::optional(published.rekeyCounter()) : std::nullopt;
  summary.dhRekeyState = machine.dhRekey().dhRekeyState();
  summary.holdTimerRunning = machine.dhRekey().isHoldTimerRunning();
  for (const std::string& counter : machineCounters()) {
    summary.counters.emplace_back(counter, machineCounter(machine, counter));
  }
  addPeers(lab, router, summary);
  addSas(lab, router, summary);
  EventCollector(lab, router, summary.events).collect();
  return summary;
}

std::string pairText(const DhKeyPair& pair) {
  return std::to_string(pair.localRekeyCount) + "/" + std::to_string(pair.peerRekeyCount);
}

const char* eventLogName(EventSummary::Log log) {
  switch (log) {
    case EventSummary::Log::local:
      return "local";
    case EventSummary::Log::peer:
      return "peer";
    case EventSummary::Log::path:
      return "path";
    case EventSummary::Log::sa:
      return "sa";
  }
  return "";
}

std::string routerNameOf(const Lab& lab, const IpGenAddr& address) {
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    if (router->routerId() == address) {
      return router->name();
    }
  }
  return address.stringValue();
}

}  // namespace tessel::lab
