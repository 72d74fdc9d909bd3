// The timeline of a scenario file: every action with its arguments.
#include "lab/scenario/Choices.h"

namespace tessel::lab {
namespace {

// Arguments that several actions have.

template <class OnPath>
void onPath(Form& form, OnPath& action) {
  pathAndEnd(form, Need::oneOrAll, action.path, "router", action.router);
}

template <class OnLink>
void onLink(Form& form, OnLink& action) {
  pathAndEnd(form, Need::oneOrAll, action.path, "from", action.from);
}

template <class AtRouter>
void atRouter(Form& form, AtRouter& action) {
  reference(form, "router", NameOf::router, Need::oneOrAll, action.router);
}

template <class OnFlow>
void onFlow(Form& form, OnFlow& action) {
  reference(form, "flow", NameOf::flow, Need::oneOrAll, action.flow);
  reference(form, "from", NameOf::router, Need::optional, action.from);
}

template <class OnRecord>
void onRecord(Form& form, OnRecord& action) {
  atRouter(form, action);
  reference(form, "at", NameOf::router, Need::optional, action.at);
}

template <class OnControllers>
void onControllers(Form& form, OnControllers& action) {
  reference(form, "router", NameOf::router, Need::optional, action.router);
  reference(form, "controller", NameOf::controller, Need::optional, action.controller);
}

bool hasProfile(const RouterPlan& router, const std::string& profile) {
  const auto& others = router.settings.otherProfiles;
  return router.settings.profile.name == profile ||
         std::ranges::find(others, profile, &ProfileSettings::name) != others.end();
}

/// A profile that each of the action's routers must have.
template <class OnProfile>
void checkProfile(MapReader& map, const OnProfile& action) {
  if (action.profile.empty()) {
    return;
  }
  const Field profile = *map.find("profile");
  profile.state().checks.push_back([profile, action](const Scenario& scenario) {
    for (const RouterPlan& router : scenario.routers) {
      const bool meant = action.router.empty() || router.name == action.router;
      if (meant && !hasProfile(router, action.profile)) {
        profile.refuse("router \"" + router.name + "\" has no such profile");
        return;
      }
    }
  });
}

template <class OnProfile>
void onProfile(Form& form, OnProfile& action) {
  atRouter(form, action);
  form.defaulted("profile", action.profile, std::string(), TextKind());
  if (form.source() != nullptr) {
    checkProfile(*form.source(), action);
  }
}

// The actions.

void describeChangeLink(Form& form, ChangeLink& action) {
  onLink(form, action);
  describeLink(form, action);
  form.requireAnOptional();
}

void describeChangeInstallDelay(Form& form, ChangeInstallDelay& action) {
  atRouter(form, action);
  form.required("delay", action.delay, TimeKind());
}

void describeSetPath(Form& form, SetPath& action) {
  onPath(form, action);
  form.optional("up", action.up, SwitchKind());
  form.optional("allowed", action.allowed, SwitchKind());
  form.optional("enabled", action.enabled, SwitchKind());
  form.requireAnOptional();
}

void describeSetConnectionStatus(Form& form, SetConnectionStatus& action) {
  onPath(form, action);
  form.required("is", action.state, connectionKind());
}

void describeChangeControllerDelay(Form& form, ChangeControllerDelay& action) {
  onControllers(form, action);
  if (form.source() != nullptr && action.router.empty() == action.controller.empty()) {
    form.source()->field().refuse("name a router or a controller, not both");
  }
  form.required("delay", action.delay, TimeKind());
}

void describeSetDhExpiry(Form& form, SetDhExpiry& action) {
  atRouter(form, action);
  form.required("time", action.time, OrNothing{"off", TimeKind()});
}

void describeChangeKeyController(Form& form, ChangeKeyController& action) {
  atRouter(form, action);
  form.optional("dh-key-lifetime", action.dhKeyLifetime, SecondsKind());
  form.optional("hold-time", action.holdTime, OrWord{"none", uint32_t{0}, SecondsKind()});
  form.optional("group", action.group, groupKind());
  form.requireAnOptional();
}

void describeRestartRouter(Form& form, RestartRouter& action) {
  atRouter(form, action);
  form.defaulted("down-for", action.downFor, Duration(), TimeKind());
}

void describeChangeRouterId(Form& form, ChangeRouterId& action) {
  reference(form, "router", NameOf::router, Need::one, action.router);
  form.required("router-id", action.routerId, OrWord{"none", IpGenAddr(), AddressKind()});
  if (form.source() == nullptr || action.routerId.isUnspecified()) {
    return;
  }
  const Field id = *form.source()->find("router-id");
  id.state().checks.push_back([id, action](const Scenario& scenario) {
    for (const RouterPlan& router : scenario.routers) {
      if (router.routerId == action.routerId && router.name != action.router) {
        id.refuse("router \"" + router.name + "\" has this router id");
      }
    }
  });
}

void describeChangeProfile(Form& form, ChangeProfile& action) {
  atRouter(form, action);
  form.required("profile", action.profile, OrWord{"none", std::string(), TextKind()});
  if (form.source() != nullptr) {
    checkProfile(*form.source(), action);
  }
}

void describeChangeSa(Form& form, ChangeSa& action) {
  onProfile(form, action);
  form.optional("encryption", action.encryption, encryptionKind());
  form.optional("integrity", action.integrity, integrityKind());
  form.optional("lifetime", action.lifetime, lifetimeKind());
  form.optional("packet-limit", action.packetLimit, packetLimitKind());
  form.optional("byte-limit", action.byteLimit, byteLimitKind());
  form.requireAnOptional();
}

void describeCorruptRecord(Form& form, CorruptRecord& action) {
  static const Names<RecordFault> faults = {{"bad-public-key", RecordFault::badPublicKey},
                                            {"bad-key-length", RecordFault::badKeyLength},
                                            {"bad-nonce-length", RecordFault::badNonceLength},
                                            {"other-encryption", RecordFault::otherEncryption},
                                            {"other-integrity", RecordFault::otherIntegrity},
                                            {"other-group", RecordFault::otherGroup}};
  static const Names<bool> times = {{"now", false}, {"next-publication", true}};
  onRecord(form, action);
  form.required("fault", action.fault, NameKind{"a fault of a record", faults});
  form.defaulted("when", action.nextPublication, false, NameKind{"a time", times});
}

void describeFailGeneration(Form& form, FailGeneration& action) {
  static const Names<FailGeneration::What> kinds = {{"nonce", FailGeneration::What::nonce},
                                                    {"dh-key", FailGeneration::What::dhKey}};
  atRouter(form, action);
  form.required("what", action.what, NameKind{"something that is generated", kinds});
  form.defaulted("times", action.times, FailGeneration().times, CountKind<uint32_t>{});
}

void describeFailInstallation(Form& form, FailInstallation& action) {
  using How = FailInstallation::How;
  using Which = FailInstallation::Which;
  static const Names<How> ways = {{"refused", How::refused}, {"unreported", How::unreported}};
  static const Names<Which> kinds = {{"both", Which::both}, {"in", Which::in}, {"out", Which::out}};
  onPath(form, action);
  form.defaulted("how", action.how, How::refused, NameKind{"a way to fail", ways});
  form.defaulted("which", action.which, Which::both, NameKind{"a kind of SA", kinds});
  form.optional("times", action.times, CountKind<uint32_t>{.least = 1});
}

void describeForcePathActive(Form& form, ForcePathActive& action) {
  atRouter(form, action);
  form.defaulted("on", action.on, true, SwitchKind());
}

void describeDisturbDelivery(Form& form, DisturbDelivery& action) {
  atRouter(form, action);
  form.optional("repeat", action.repeat, ShareKind());
  form.optional("reorder", action.reorder, ShareKind());
  form.optional("stale", action.stale, ShareKind());
  form.optional("coalesce", action.coalesce, TimeKind());
  form.requireAnOptional();
  form.defaulted("late", action.late, DisturbDelivery().late, TimeKind());
}

void describeDisturbInstallation(Form& form, DisturbInstallation& action) {
  atRouter(form, action);
  form.optional("delay", action.delay, TimeKind());
  form.optional("fail", action.fail, ShareKind());
  form.requireAnOptional();
}

/// Probes have a name for on and one for off.
Choice<Action> probesSwitch(const char* name, bool on) {
  Choice<Action> made = choice<Action>(name, onPath<SetProbes>);
  made.start = SetProbes{.on = on};
  made.means = [on](const Action& action) { return std::get<SetProbes>(action).on == on; };
  return made;
}

const std::vector<Choice<Action>>& actions() {
  static const std::vector<Choice<Action>> all = {
      choice<Action>("force-sa-rekey", onPath<ForceSaRekey>),
      choice<Action>("start-traffic", onFlow<StartTraffic>),
      choice<Action>("stop-traffic", onFlow<StopTraffic>),
      probesSwitch("start-probes", true),
      probesSwitch("stop-probes", false),
      choice<Action>("cut-link", onLink<CutLink>),
      choice<Action>("restore-link", onLink<RestoreLink>),
      choice<Action>("change-link", describeChangeLink),
      choice<Action>("clear-path", onPath<ClearPath>),
      choice<Action>("change-install-delay", describeChangeInstallDelay),
      choice<Action>("set-path", describeSetPath),
      choice<Action>("change-merge-data", onPath<ChangeMergeData>),
      choice<Action>("set-connection-status", describeSetConnectionStatus),
      choice<Action>("lose-controllers", onControllers<LoseControllers>),
      choice<Action>("restore-controllers", onControllers<RestoreControllers>),
      choice<Action>("change-controller-delay", describeChangeControllerDelay),
      choice<Action>("force-dh-rekey", atRouter<ForceDhRekey>),
      choice<Action>("set-dh-expiry", describeSetDhExpiry),
      choice<Action>("change-key-controller", describeChangeKeyController),
      choice<Action>("restart-router", describeRestartRouter),
      choice<Action>("remove-router", atRouter<RemoveRouter>),
      choice<Action>("add-router", atRouter<AddRouter>),
      choice<Action>("pause-router", atRouter<PauseRouter>),
      choice<Action>("resume-router", atRouter<ResumeRouter>),
      choice<Action>("remove-path", onPath<RemovePath>),
      choice<Action>("add-path", onPath<AddPath>),
      choice<Action>("change-router-id", describeChangeRouterId),
      choice<Action>("change-profile", describeChangeProfile),
      choice<Action>("remove-profile", onProfile<RemoveProfile>),
      choice<Action>("restore-profile", onProfile<RestoreProfile>),
      choice<Action>("change-sa", describeChangeSa),
      choice<Action>("corrupt-record", describeCorruptRecord),
      choice<Action>("withdraw-record", onRecord<WithdrawRecord>),
      choice<Action>("restore-record", onRecord<RestoreRecord>),
      choice<Action>("fail-generation", describeFailGeneration),
      choice<Action>("fail-installation", describeFailInstallation),
      choice<Action>("restore-installation", onPath<RestoreInstallation>),
      choice<Action>("disturb-delivery", describeDisturbDelivery),
      choice<Action>("settle-delivery", atRouter<SettleDelivery>),
      choice<Action>("disturb-installation", describeDisturbInstallation),
      choice<Action>("settle-installation", atRouter<SettleInstallation>),
      choice<Action>("restart-counters", onPath<RestartCounters>),
      choice<Action>("force-path-active", describeForcePathActive)};
  return all;
}

}  // namespace

void describeTimeline(Form& form, std::vector<TimelineEntry>& timeline) {
  if (form.target() != nullptr) {
    form.list("timeline", timeline, {}, {}, [](Form& item, TimelineEntry& entry) {
      item.required("at", entry.at, TimeKind());
      item.add("do", actionNode(entry.action));
    });
    return;
  }
  const auto field = form.source()->find("timeline");
  for (const Field& item : field ? field->items() : std::vector<Field>()) {
    MapReader map(item);
    Duration at;
    if (const auto time = map.require("at"); time && time->read(at)) {
      checkTime(*time, at);
    }
    readChoices(map, "do", "an action", actions(), [&](Action action, std::string text, int line) {
      timeline.push_back(
          {.at = at, .action = std::move(action), .text = std::move(text), .line = line});
    });
  }
  std::ranges::stable_sort(timeline, {}, &TimelineEntry::at);
}

YamlNode actionNode(Action action) {
  return choiceNode(std::move(action), actions());
}

}  // namespace tessel::lab
