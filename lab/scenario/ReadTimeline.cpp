// The timeline of a scenario file: every action with its arguments.
#include "lab/scenario/Choices.h"

namespace tessel::lab {
namespace {

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

}  // namespace tessel::lab
