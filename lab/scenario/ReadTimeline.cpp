// The timeline and the expectations of a scenario file: both are lists of a time and a choice of
// one named thing with its arguments.
#include <algorithm>

#include "lab/scenario/ScenarioReaders.h"

namespace tessel::lab {
namespace {

/// One thing that can stand under `do` or `expect`.
template <class Variant>
struct Choice {
  const char* name;
  Variant (*read)(MapReader& map);
};

// Actions.

template <class Value>
void readRequired(MapReader& map, const std::string& key, Value& value) {
  if (const auto field = map.require(key)) {
    field->read(value);
  }
}

/// Faults an action that would do nothing, when none of its optional members is there.
void requireOneOf(MapReader& map, std::initializer_list<const char*> keys) {
  if (std::ranges::none_of(keys, [&](const char* key) { return map.has(key); })) {
    std::string list;
    for (const char* key : keys) {
      list += (list.empty() ? "" : ", ") + std::string(key);
    }
    map.field().refuse("changes nothing: give one of " + list);
  }
}

template <class OnPath>
Action readOnPath(MapReader& map) {
  OnPath action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "router", action.router);
  return action;
}

template <class OnLink>
Action readOnLink(MapReader& map) {
  OnLink action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "from", action.from);
  return action;
}

template <class AtRouter>
Action readAtRouter(MapReader& map) {
  AtRouter action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  return action;
}

template <class OnFlow>
Action readOnFlow(MapReader& map) {
  OnFlow action;
  readReference(map, "flow", NameOf::flow, Need::oneOrAll, action.flow);
  readReference(map, "from", NameOf::router, Need::optional, action.from);
  return action;
}

template <class OnRecord>
Action readOnRecord(MapReader& map) {
  OnRecord action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  readReference(map, "at", NameOf::router, Need::optional, action.at);
  return action;
}

template <class OnControllers>
Action readOnControllers(MapReader& map) {
  OnControllers action;
  readReference(map, "router", NameOf::router, Need::optional, action.router);
  readReference(map, "controller", NameOf::controller, Need::optional, action.controller);
  return action;
}

template <bool on>
Action readProbesSwitch(MapReader& map) {
  SetProbes action{.on = on};
  readPathAndEnd(map, Need::oneOrAll, action.path, "router", action.router);
  return action;
}

Action readChangeLink(MapReader& map) {
  ChangeLink action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "from", action.from);
  readLink(map, action);
  requireOneOf(map,
               {"latency", "jitter", "loss", "duplication", "reordering", "corruption", "replay"});
  return action;
}

Action readChangeInstallDelay(MapReader& map) {
  ChangeInstallDelay action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  readRequired(map, "delay", action.delay);
  return action;
}

Action readSetPath(MapReader& map) {
  SetPath action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "router", action.router);
  map.get("up", action.up);
  map.get("allowed", action.allowed);
  map.get("enabled", action.enabled);
  requireOneOf(map, {"up", "allowed", "enabled"});
  return action;
}

Action readSetConnectionStatus(MapReader& map) {
  SetConnectionStatus action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "router", action.router);
  if (const auto state = map.require("is")) {
    state->readName(action.state, "a connection status", connectionNames());
  }
  return action;
}

Action readChangeControllerDelay(MapReader& map) {
  ChangeControllerDelay action;
  readReference(map, "router", NameOf::router, Need::optional, action.router);
  readReference(map, "controller", NameOf::controller, Need::optional, action.controller);
  if (action.router.empty() == action.controller.empty()) {
    map.field().refuse("name a router or a controller, not both");
  }
  readRequired(map, "delay", action.delay);
  return action;
}

Action readSetDhExpiry(MapReader& map) {
  SetDhExpiry action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  Duration time;
  if (const auto field = map.require("time"); field && !field->isText("off") && field->read(time)) {
    action.time = time;
  }
  return action;
}

Action readChangeKeyController(MapReader& map) {
  ChangeKeyController action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  uint32_t wholeSeconds = 0;
  if (const auto field = map.find("dh-key-lifetime");
      field && field->readSeconds(wholeSeconds, 1)) {
    action.dhKeyLifetime = wholeSeconds;
  }
  if (const auto field = map.find("hold-time"); field && field->isText("none")) {
    action.holdTime = 0;
  } else if (field && field->readSeconds(wholeSeconds, 1)) {
    action.holdTime = wholeSeconds;
  }
  IpsecDhGroup group = IpsecDhGroup::none;
  if (const auto field = map.find("group");
      field && field->readModelName(group, "a DH group", groupNames())) {
    action.group = group;
  }
  requireOneOf(map, {"dh-key-lifetime", "hold-time", "group"});
  return action;
}

Action readRestartRouter(MapReader& map) {
  RestartRouter action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  map.get("down-for", action.downFor);
  return action;
}

Action readChangeRouterId(MapReader& map) {
  ChangeRouterId action;
  readReference(map, "router", NameOf::router, Need::one, action.router);
  const auto id = map.require("router-id");
  if (!id || id->isText("none") || !id->read(action.routerId)) {
    return action;
  }
  id->state().checks.push_back([field = *id, action](const Scenario& scenario) {
    for (const RouterPlan& router : scenario.routers) {
      if (router.routerId == action.routerId && router.name != action.router) {
        field.refuse("router \"" + router.name + "\" has this router id");
      }
    }
  });
  return action;
}

bool hasProfile(const RouterPlan& router, const std::string& profile) {
  const auto& others = router.settings.otherProfiles;
  return router.settings.profile.name == profile ||
         std::ranges::find(others, profile, &ProfileSettings::name) != others.end();
}

/// The router and the profile that must be among its own.
template <class OnProfile>
void readRouterProfile(MapReader& map, const std::optional<Field>& profile, OnProfile& action) {
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  if (!profile || !profile->read(action.profile)) {
    return;
  }
  profile->state().checks.push_back([field = *profile, action](const Scenario& scenario) {
    for (const RouterPlan& router : scenario.routers) {
      const bool meant = action.router.empty() || router.name == action.router;
      if (meant && !hasProfile(router, action.profile)) {
        field.refuse("router \"" + router.name + "\" has no such profile");
        return;
      }
    }
  });
}

Action readChangeProfile(MapReader& map) {
  ChangeProfile action;
  std::optional<Field> profile = map.require("profile");
  if (profile && profile->isText("none")) {
    profile.reset();
  }
  readRouterProfile(map, profile, action);
  return action;
}

template <class OnProfile>
Action readOnProfile(MapReader& map) {
  OnProfile action;
  readRouterProfile(map, map.find("profile"), action);
  return action;
}

Action readChangeSa(MapReader& map) {
  ChangeSa action;
  readRouterProfile(map, map.find("profile"), action);
  EncryptionAlgo encryption{};
  if (const auto field = map.find("encryption");
      field && field->readModelName(encryption, "an encryption algorithm", encryptionNames())) {
    action.encryption = encryption;
  }
  IntegrityAlgo integrity{};
  if (const auto field = map.find("integrity");
      field && field->readModelName(integrity, "an integrity algorithm", integrityNames())) {
    action.integrity = integrity;
  }
  readSaLimits(map, action.lifetime, action.packetLimit, action.byteLimit);
  requireOneOf(map, {"encryption", "integrity", "lifetime", "packet-limit", "byte-limit"});
  return action;
}

Action readCorruptRecord(MapReader& map) {
  static const Names<RecordFault> faults = {{"bad-public-key", RecordFault::badPublicKey},
                                            {"bad-key-length", RecordFault::badKeyLength},
                                            {"bad-nonce-length", RecordFault::badNonceLength},
                                            {"other-encryption", RecordFault::otherEncryption},
                                            {"other-integrity", RecordFault::otherIntegrity},
                                            {"other-group", RecordFault::otherGroup}};
  static const Names<bool> times = {{"now", false}, {"next-publication", true}};
  CorruptRecord action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  readReference(map, "at", NameOf::router, Need::optional, action.at);
  if (const auto fault = map.require("fault")) {
    fault->readName(action.fault, "a fault of a record", faults);
  }
  if (const auto when = map.find("when")) {
    when->readName(action.nextPublication, "a time", times);
  }
  return action;
}

Action readFailGeneration(MapReader& map) {
  static const Names<FailGeneration::What> kinds = {{"nonce", FailGeneration::What::nonce},
                                                    {"dh-key", FailGeneration::What::dhKey}};
  FailGeneration action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  if (const auto what = map.require("what")) {
    what->readName(action.what, "something that is generated", kinds);
  }
  if (const auto times = map.find("times")) {
    times->readCount(action.times, 1U);
  }
  return action;
}

Action readFailInstallation(MapReader& map) {
  using How = FailInstallation::How;
  using Which = FailInstallation::Which;
  static const Names<How> ways = {{"refused", How::refused}, {"unreported", How::unreported}};
  static const Names<Which> kinds = {{"both", Which::both}, {"in", Which::in}, {"out", Which::out}};
  FailInstallation action;
  readPathAndEnd(map, Need::oneOrAll, action.path, "router", action.router);
  if (const auto how = map.find("how")) {
    how->readName(action.how, "a way to fail", ways);
  }
  if (const auto which = map.find("which")) {
    which->readName(action.which, "a kind of SA", kinds);
  }
  uint32_t count = 0;
  if (const auto times = map.find("times"); times && times->readCount(count, 1U)) {
    action.times = count;
  }
  return action;
}

Action readForcePathActive(MapReader& map) {
  ForcePathActive action;
  readReference(map, "router", NameOf::router, Need::oneOrAll, action.router);
  map.get("on", action.on);
  return action;
}

const std::vector<Choice<Action>>& actions() {
  static const std::vector<Choice<Action>> all = {
      {"force-sa-rekey", readOnPath<ForceSaRekey>},
      {"start-traffic", readOnFlow<StartTraffic>},
      {"stop-traffic", readOnFlow<StopTraffic>},
      {"start-probes", readProbesSwitch<true>},
      {"stop-probes", readProbesSwitch<false>},
      {"cut-link", readOnLink<CutLink>},
      {"restore-link", readOnLink<RestoreLink>},
      {"change-link", readChangeLink},
      {"clear-path", readOnPath<ClearPath>},
      {"change-install-delay", readChangeInstallDelay},
      {"set-path", readSetPath},
      {"change-merge-data", readOnPath<ChangeMergeData>},
      {"set-connection-status", readSetConnectionStatus},
      {"lose-controllers", readOnControllers<LoseControllers>},
      {"restore-controllers", readOnControllers<RestoreControllers>},
      {"change-controller-delay", readChangeControllerDelay},
      {"force-dh-rekey", readAtRouter<ForceDhRekey>},
      {"set-dh-expiry", readSetDhExpiry},
      {"change-key-controller", readChangeKeyController},
      {"restart-router", readRestartRouter},
      {"remove-router", readAtRouter<RemoveRouter>},
      {"add-router", readAtRouter<AddRouter>},
      {"pause-router", readAtRouter<PauseRouter>},
      {"resume-router", readAtRouter<ResumeRouter>},
      {"remove-path", readOnPath<RemovePath>},
      {"add-path", readOnPath<AddPath>},
      {"change-router-id", readChangeRouterId},
      {"change-profile", readChangeProfile},
      {"remove-profile", readOnProfile<RemoveProfile>},
      {"restore-profile", readOnProfile<RestoreProfile>},
      {"change-sa", readChangeSa},
      {"corrupt-record", readCorruptRecord},
      {"withdraw-record", readOnRecord<WithdrawRecord>},
      {"restore-record", readOnRecord<RestoreRecord>},
      {"fail-generation", readFailGeneration},
      {"fail-installation", readFailInstallation},
      {"restore-installation", readOnPath<RestoreInstallation>},
      {"force-path-active", readForcePathActive}};
  return all;
}

// Expectations.

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
  readRequired(map, "name", fact.event);
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

// What both lists share.

/// The chosen thing: its name alone, or a map of its name and its arguments.
template <class Variant>
std::optional<Variant> readChoice(const Field& field, const std::string& what,
                                  const std::vector<Choice<Variant>>& choices) {
  const YamlNode& node = field.node();
  const bool isMap = node.kind == YamlNode::Kind::map;
  if (isMap && node.members.size() != 1) {
    field.refuse("one at a time: several stand in a list");
    return std::nullopt;
  }
  const Field name = isMap ? Field(field.state(), node.members[0].first, field.path()) : field;
  const auto choice = std::ranges::find_if(
      choices, [&](const Choice<Variant>& each) { return name.isText(each.name); });
  if (choice == choices.end()) {
    std::vector<std::string> names;
    std::ranges::transform(choices, std::back_inserter(names), &Choice<Variant>::name);
    name.refuseName(what, names);
    return std::nullopt;
  }
  const YamlNode* arguments = nullptr;
  if (isMap) {
    arguments = &node.members[0].second;
  } else {
    arguments = &field.state().madeNodes.emplace_back(
        YamlNode{.blank = true, .line = node.line, .column = node.column});
  }
  MapReader map(Field(field.state(), *arguments, field.path() + "." + choice->name));
  return choice->read(map);
}

/// The one thing or the list of things under `key`.
template <class Variant, class Take>
void readChoices(MapReader& item, const std::string& key, const std::string& what,
                 const std::vector<Choice<Variant>>& choices, Take take) {
  const auto field = item.require(key);
  if (!field) {
    return;
  }
  const bool several = field->node().kind == YamlNode::Kind::sequence;
  for (const Field& each : several ? field->items() : std::vector<Field>{*field}) {
    if (std::optional<Variant> chosen = readChoice(each, what, choices)) {
      take(std::move(*chosen), flowText(each.node()), each.node().line);
    }
  }
}

void readTime(const Field& field, Duration& at) {
  if (!field.read(at)) {
    return;
  }
  field.state().checks.push_back([field, at](const Scenario& scenario) {
    if (at > scenario.duration) {
      field.refuse("after the end of the run, " + stringValue(scenario.duration));
    }
  });
}

}  // namespace

void readTimeline(const Field& field, std::vector<TimelineEntry>& timeline) {
  for (const Field& item : field.items()) {
    MapReader map(item);
    Duration at;
    if (const auto time = map.require("at")) {
      readTime(*time, at);
    }
    readChoices(map, "do", "an action", actions(), [&](Action action, std::string text, int line) {
      timeline.push_back(
          {.at = at, .action = std::move(action), .text = std::move(text), .line = line});
    });
  }
  std::ranges::stable_sort(timeline, {}, &TimelineEntry::at);
}

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
