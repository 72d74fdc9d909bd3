#include "lab/report/JsonReport.h"

#include <nlohmann/json.hpp>

#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

using Json = nlohmann::json;  // Members sorted by name.

template <class T>
Json orNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json asJson(const DhKeyPair& pair) {
  return {{"local", pair.localRekeyCount}, {"peer", pair.peerRekeyCount}};
}

Json asJson(const DropCounts& drops) {
  Json json = Json::object();
  for (size_t i = 0; i < kDropReasons; ++i) {
    const auto reason = static_cast<DropReason>(i);
    json[dropReasonName(reason)] = drops[reason];
  }
  return json;
}

Json asJson(const PeerSummary& peer) {
  return {{"name", peer.name},
          {"address", peer.address.stringValue()},
          {"status", plainName(peer.status)},
          {"down_reason", plainName(peer.reason)},
          {"generation", peer.generation},
          {"initiator", peer.initiator}};
}

Json lossesOf(const LinkCounts& link) {
  Json json = Json::object();
  for (size_t i = 0; i < kLinkLosses; ++i) {
    const auto reason = static_cast<LinkLoss>(i);
    json[linkLossName(reason)] = link.lost(reason);
  }
  return json;
}

Json asJson(const PathSummary& path) {
  return {{"name", path.name},
          {"peer", path.peer},
          {"local_address", path.localAddr.stringValue()},
          {"local_port", path.localPort},
          {"remote_address", path.remoteAddr.stringValue()},
          {"remote_port", path.remotePort},
          {"wanted", path.wanted},
          {"state", path.state ? Json(plainName(*path.state)) : Json(nullptr)},
          {"sa_rekey_role", plainName(path.saRekeyRole)},
          {"generations", asJson(path.generations)},
          {"sent_packets", path.packets.sent},
          {"received_packets", path.packets.received},
          {"send_drops", asJson(path.packets.sendDrops)},
          {"receive_drops", asJson(path.packets.receiveDrops)},
          {"network_losses", lossesOf(path.link)}};
}

Json asJson(const SaSummary& sa) {
  return {{"path", sa.path},
          {"direction", sa.inbound ? "in" : "out"},
          {"type", plainName(sa.type)},
          {"spi", spiText(sa.spi)},
          {"generations", asJson(sa.generations)},
          {"encryption", sa.encryption},
          {"integrity", sa.integrity},
          {"installation", saInstallStateName(sa.state)},
          {"age_seconds", sa.age ? Json(sa.age->seconds()) : Json(nullptr)},
          {"packets", sa.packets},
          {"bytes", sa.bytes}};
}

Json asJson(const EventSummary& event) {
  Json json = {
      {"log", eventLogName(event.log)}, {"at_seconds", event.time.seconds()}, {"name", event.name}};
  if (!event.subject.empty()) {
    json[event.log == EventSummary::Log::peer ? "peer" : "path"] = event.subject;
  }
  if (event.spi) {
    json["spi"] = spiText(*event.spi);
  }
  if (event.pathState) {
    json["path_state"] = plainName(*event.pathState);
  }
  if (event.generations) {
    json["generations"] = asJson(*event.generations);
  }
  if (event.number) {
    json["number"] = *event.number;
  }
  return json;
}

Json asJson(const Verdict& verdict) {
  return {{"at_seconds", verdict.at.seconds()},
          {"line", verdict.line},
          {"expected", verdict.expected},
          {"held", verdict.held},
          {"found", verdict.found}};
}

Json asJson(const Violation& violation) {
  return {{"invariant", violation.invariant},
          {"at_seconds", violation.at.seconds()},
          {"where", violation.where},
          {"what", violation.what}};
}

Json asJson(const Finding::Before& before) {
  Json json = {{"at_seconds", before.at.seconds()}, {"text", before.text}};
  if (!before.router.empty()) {
    json["router"] = before.router;
  }
  return json;
}

Json asJson(const Finding& finding) {
  Json json = {{"kind", findingKindName(finding.kind)},
               {"router", finding.router},
               {"from_seconds", finding.from.seconds()},
               {"to_seconds", finding.to ? Json(finding.to->seconds()) : Json(nullptr)},
               {"title", finding.title},
               {"explanation", finding.explanation},
               {"before", Json::array()}};
  for (const Finding::Before& before : finding.before) {
    json["before"].push_back(asJson(before));
  }
  const auto put = [&](const char* name, const std::string& value) {
    if (!value.empty()) {
      json[name] = value;
    }
  };
  put("path", finding.path);
  put("peer", finding.peer);
  put("reason", finding.reason);
  if (finding.spi) {
    json["spi"] = spiText(*finding.spi);
  }
  if (finding.kind == Finding::Kind::drops || finding.kind == Finding::Kind::installation) {
    json["direction"] = finding.sending ? "out" : "in";
  }
  if (finding.kind == Finding::Kind::drops) {
    json["packets"] = finding.count;
  }
  return json;
}

Json asJson(const StreamCounts& stream) {
  return {{"flow", stream.flow},
          {"path", stream.path},
          {"from", stream.from},
          {"sent_packets", stream.packets.sent},
          {"received_packets", stream.packets.received},
          {"lost_packets", stream.packets.lost}};
}

template <class Members>
Json asList(const Members& members) {
  Json list = Json::array();
  for (const auto& member : members) {
    list.push_back(asJson(member));
  }
  return list;
}

Json logOf(const Lab& lab, const std::string& router) {
  Json list = Json::array();
  for (const LoggedLine& line : lab.log()) {
    if (line.router == router) {
      list.push_back({{"at_seconds", line.time.seconds()},
                      {"identifier", line.identifier},
                      {"severity", line.severity},
                      {"text", line.text}});
    }
  }
  return list;
}

Json asJson(const Lab& lab, const RouterSummary& router) {
  Json counters = Json::object();
  for (const auto& [name, value] : router.counters) {
    counters[name] = value;
  }
  return {{"name", router.name},
          {"router_id", router.routerId.stringValue()},
          {"up", router.up},
          {"connected", router.connected},
          {"published_generation", orNull(router.generation)},
          {"dh_rekey_state", plainName(router.dhRekeyState)},
          {"hold_timer_running", router.holdTimerRunning},
          {"counters", counters},
          {"peers", asList(router.peers)},
          {"paths", asList(router.paths)},
          {"sas", asList(router.sas)},
          {"events", asList(router.events)},
          {"log", logOf(lab, router.name)},
          {"drops", asJson(router.drops)},
          {"sas_past_hard_limit", router.sasPastHardLimit}};
}

}  // namespace

nlohmann::json jsonDocument(const Lab& lab, const Examination& examination) {
  std::vector<RouterSummary> routers;
  for (const std::unique_ptr<Router>& router : lab.routers()) {
    routers.push_back(summaryOf(lab, *router));
  }
  std::ranges::sort(routers, {}, &RouterSummary::name);
  Json routerList = Json::array();
  for (const RouterSummary& router : routers) {
    routerList.push_back(asJson(lab, router));
  }
  uint64_t evaluated = 0;
  Json byName = Json::object();
  for (const auto& [invariant, count] : examination.evaluated) {
    evaluated += count;
    byName[invariant] = count;
  }
  const Scenario& scenario = lab.scenario();
  return {{"format", "tessel-lab-report"},
          {"version", 2},
          {"scenario",
           {{"name", scenario.name},
            {"seed", scenario.seed},
            {"duration_seconds", scenario.duration.seconds()}}},
          {"end_seconds", lab.now().seconds()},
          {"held", lab.held()},
          {"expectations", asList(lab.verdicts())},
          {"invariants",
           {{"evaluated", evaluated},
            {"by_name", byName},
            {"violations", asList(examination.violations)}}},
          {"findings", asList(examination.findings)},
          {"routers", routerList},
          {"traffic", asList(lab.traffic().streams())}};
}

std::string jsonReport(const Lab& lab, const Examination& examination) {
  return jsonDocument(lab, examination).dump(2) + "\n";
}

}  // namespace tessel::lab
