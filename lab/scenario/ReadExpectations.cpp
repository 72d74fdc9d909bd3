// The expectations of a scenario file: every fact with its arguments.
#include "lab/scenario/Choices.h"

namespace tessel::lab {
namespace {

/// `is`, or `at-least` and `at-most`. Without any of them `bounds` stays as it is when it has a
/// value that goes without saying.
void readBounds(MapReader& map, std::optional<Bounds> unsaid, Bounds& bounds) {
  constexpr uint64_t most = std::numeric_limits<uint64_t>::max();
  const auto exact = map.find("is");
  const auto least = map.find("at-least");
  const auto atMost = map.find("at-most");
  if (exact && (least || atMost)) {
    exact->refuse("goes without at-least and at-most");
  } else if (exact) {
    uint64_t count = 0;
    exact->readCount(count, 0, most);
    bounds = Bounds::exactly(count);
  } else if (least || atMost) {
    bounds = {};
    if (least) {
      least->readCount(bounds.atLeast, 0, most);
    }
    uint64_t count = 0;
    if (atMost && atMost->readCount(count, 0, most)) {
      bounds.atMost = count;
      if (count < bounds.atLeast) {
        atMost->refuse("less than at-least");
      }
    }
  } else if (unsaid) {
    bounds = *unsaid;
  } else {
    map.field().refuse("give is, at-least or at-most");
  }
}

ExpectedFact readPathState(MapReader& map) {
  static const auto names = modelNames<DynamicPathState>(kDynamicPathStates);
  ExpectPathState fact;
  readPathAndEnd(map, Need::oneOrAll, fact.path, "router", fact.router);
  const auto states = map.require("is");
  if (!states || states->isText("absent")) {
    return fact;
  }
  const bool several = states->node().kind == YamlNode::Kind::sequence;
  for (const Field& item : several ? states->items() : std::vector<Field>{*states}) {
    DynamicPathState state{};
    if (item.readModelName(state, "a state of a path", names)) {
      fact.states.push_back(state);
    }
  }
  if (several && states->node().items.empty()) {
    states->refuse("expected a state; \"absent\" says that the path is not there");
  }
  return fact;
}

ExpectedFact readSaRekeyRole(MapReader& map) {
  static const auto names = modelNames<SmState>(6);
  ExpectSaRekeyRole fact;
  readPathAndEnd(map, Need::oneOrAll, fact.path, "router", fact.router);
  if (const auto role = map.require("is")) {
    role->readModelName(fact.role, "a role in a rekey", names);
  }
  return fact;
}

ExpectedFact readPeer(MapReader& map) {
  static const Names<std::optional<PeerConnStatus>> statuses = {
      {"ready", PeerConnStatus::ready}, {"down", PeerConnStatus::down}, {"absent", std::nullopt}};
  static const auto reasons = modelNames<PeerDownReason>(7);
  ExpectPeer fact;
  readReference(map, "router", NameOf::router, Need::oneOrAll, fact.router);
  readReference(map, "peer", NameOf::router, Need::optional, fact.peer);
  if (const auto status = map.require("is")) {
    status->readName(fact.status, "a status of a peer", statuses);
  }
  PeerDownReason reason{};
  const auto field = map.find("reason");
  if (field && field->readModelName(reason, "a reason why a peer is down", reasons)) {
    fact.reason = reason;
    if (!fact.status) {
      field->refuse("an absent peer has no reason");
    }
  }
  return fact;
}

ExpectedFact readCount(MapReader& map) {
  using What = ExpectCount::What;
  static const Names<What> kinds = {{"peers", What::peers},
                                    {"ready-peers", What::readyPeers},
                                    {"paths", What::paths},
                                    {"sas", What::sas},
                                    {"lifetimes", What::lifetimes},
                                    {"sa-counters", What::saCounters},
                                    {"local-generations", What::localGenerations},
                                    {"peer-generations", What::peerGenerations},
                                    {"crypto-infos", What::cryptoInfos}};
  static const auto types = modelNames<SaType>(10);
  ExpectCount fact;
  if (const auto what = map.require("of")) {
    what->readName(fact.what, "something to count", kinds);
  }
  readReference(map, "router", NameOf::router, Need::optional, fact.router);
  if (fact.what == What::sas) {
    readReference(map, "path", NameOf::path, Need::optional, fact.path);
    SaType type{};
    if (const auto field = map.find("type");
        field && field->readModelName(type, "a type of an SA", types)) {
      fact.saType = type;
    }
  }
  if (fact.what == What::peerGenerations || fact.what == What::cryptoInfos) {
    readReference(map, "peer", NameOf::router, Need::optional, fact.peer);
  }
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

template <class OnTraffic>
ExpectedFact readOnTraffic(MapReader& map, std::optional<Bounds> unsaid) {
  OnTraffic fact;
  readReference(map, "flow", NameOf::flow, Need::optional, fact.flow);
  readPathAndEnd(map, Need::optional, fact.path, "from", fact.from);
  readBounds(map, unsaid, fact.bounds);
  return fact;
}

ExpectedFact readLost(MapReader& map) {
  return readOnTraffic<ExpectLost>(map, Bounds::exactly(0));
}

ExpectedFact readReceived(MapReader& map) {
  return readOnTraffic<ExpectReceived>(map, std::nullopt);
}

void readListedName(MapReader& map, const std::string& key, const std::string& what,
                    const std::vector<std::string>& names, std::string& value) {
  const auto field = map.find(key);
  if (!field || !field->read(value)) {
    return;
  }
  if (std::ranges::find(names, value) == names.end()) {
    field->refuseName(what, names);
  }
}

const Names<DropReason>& dropReasonNames() {
  static const auto names = [] {
    Names<DropReason> reasons;
    for (size_t number = 0; number < kDropReasons; ++number) {
      const auto reason = static_cast<DropReason>(number);
      reasons.emplace_back(dropReasonName(reason), reason);
    }
    return reasons;
  }();
  return names;
}

ExpectedFact readDrops(MapReader& map) {
  ExpectDrops fact;
  readReference(map, "router", NameOf::router, Need::optional, fact.router);
  DropReason reason{};
  const auto field = map.find("reason");
  if (field && field->readName(reason, "a reason to drop a packet", dropReasonNames())) {
    fact.reason = reason;
  }
  readBounds(map, Bounds::exactly(0), fact.bounds);
  return fact;
}

ExpectedFact readLog(MapReader& map) {
  ExpectLog fact;
  readReference(map, "router", NameOf::router, Need::optional, fact.router);
  map.require("message");
  readListedName(map, "message", "a message of the agent's log", logMessages(), fact.message);
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

ExpectedFact readCounter(MapReader& map) {
  ExpectCounter fact;
  readReference(map, "router", NameOf::router, Need::optional, fact.router);
  map.require("name");
  readListedName(map, "name", "a counter of the machine", machineCounters(), fact.counter);
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

ExpectedFact readEvents(MapReader& map) {
  ExpectEvents fact;
  readPathAndEnd(map, Need::optional, fact.path, "router", fact.router);
  map.require("name");
  readListedName(map, "name", "an event of the machine",
                 {std::begin(kEventNames), std::end(kEventNames)}, fact.event);
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

ExpectedFact readHardLimits(MapReader& map) {
  ExpectHardLimits fact;
  readReference(map, "router", NameOf::router, Need::optional, fact.router);
  readBounds(map, Bounds::exactly(0), fact.bounds);
  return fact;
}

ExpectedFact readGeneration(MapReader& map) {
  ExpectGeneration fact;
  readReference(map, "router", NameOf::router, Need::one, fact.router);
  if (map.has("peer")) {
    readReference(map, "peer", NameOf::router, Need::one, fact.peer);
  }
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

ExpectedFact readRekeys(MapReader& map) {
  static const Names<ExpectRekeys::Kind> kinds = {{"sa", ExpectRekeys::Kind::sa},
                                                  {"dh", ExpectRekeys::Kind::dh}};
  ExpectRekeys fact;
  if (const auto kind = map.require("of")) {
    kind->readName(fact.kind, "a kind of rekey", kinds);
  }
  if (fact.kind == ExpectRekeys::Kind::sa) {
    readPathAndEnd(map, Need::optional, fact.path, "router", fact.router);
  } else {
    readReference(map, "router", NameOf::router, Need::optional, fact.router);
  }
  readBounds(map, std::nullopt, fact.bounds);
  return fact;
}

ExpectedFact readDhState(MapReader& map) {
  static const auto names = modelNames<DhRekeyState>(5);
  ExpectDhState fact;
  readReference(map, "router", NameOf::router, Need::oneOrAll, fact.router);
  if (const auto state = map.require("is")) {
    state->readModelName(fact.state, "a state of a DH rekey", names);
  }
  return fact;
}

ExpectedFact readHoldTimer(MapReader& map) {
  static const Names<bool> states = {{"running", true}, {"stopped", false}};
  ExpectHoldTimer fact;
  readReference(map, "router", NameOf::router, Need::oneOrAll, fact.router);
  if (const auto state = map.require("is")) {
    state->readName(fact.running, "a state of a timer", states);
  }
  return fact;
}

const std::vector<Choice<ExpectedFact>>& facts() {
  static const std::vector<Choice<ExpectedFact>> all = {{"path-state", readPathState},
                                                        {"sa-rekey-role", readSaRekeyRole},
                                                        {"peer", readPeer},
                                                        {"count", readCount},
                                                        {"lost", readLost},
                                                        {"received", readReceived},
                                                        {"drops", readDrops},
                                                        {"log", readLog},
                                                        {"counter", readCounter},
                                                        {"events", readEvents},
                                                        {"hard-limits", readHardLimits},
                                                        {"generation", readGeneration},
                                                        {"rekeys", readRekeys},
                                                        {"dh-state", readDhState},
                                                        {"hold-timer", readHoldTimer}};
  return all;
}

}  // namespace

void readExpectations(const Field& field, std::vector<Expectation>& expectations) {
  for (const Field& item : field.items()) {
    MapReader map(item);
    Duration at = Duration::never();
    if (const auto time = map.require("at"); time && !time->isText("end")) {
      readTime(*time, at);
    }
    readChoices(map, "expect", "an expectation", facts(),
                [&](ExpectedFact fact, std::string text, int line) {
                  expectations.push_back(
                      {.at = at, .fact = std::move(fact), .text = std::move(text), .line = line});
                });
  }
}

}  // namespace tessel::lab
