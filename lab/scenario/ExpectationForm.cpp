// The expectations of a scenario file: every fact with its arguments.
#include "host/model/Events.h"
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

void describeBounds(Form& form, std::optional<Bounds> unsaid, Bounds& bounds) {
  if (form.source() != nullptr) {
    readBounds(*form.source(), unsaid, bounds);
    return;
  }
  if (bounds == unsaid) {
    return;
  }
  if (bounds.atMost == bounds.atLeast) {
    form.addText("is", std::to_string(bounds.atLeast));
    return;
  }
  if (bounds.atLeast > 0 || !bounds.atMost) {
    form.addText("at-least", std::to_string(bounds.atLeast));
  }
  if (bounds.atMost) {
    form.addText("at-most", std::to_string(*bounds.atMost));
  }
}

/// A name out of a list.
struct ListedKind {
  std::string what;
  const std::vector<std::string>& names;
  bool read(const Field& field, std::string& value) const {
    if (!field.read(value)) {
      return false;
    }
    return std::ranges::find(names, value) != names.end() || field.refuseName(what, names);
  }
  std::string text(const std::string& value) const { return value; }
};

/// One state or several; "absent" stands for none.
struct StatesKind {
  bool read(const Field& field, std::vector<DynamicPathState>& states) const {
    if (field.node().kind != YamlNode::Kind::sequence) {
      readOne(field, states);
      return true;
    }
    for (const Field& item : field.items()) {
      readOne(item, states);
    }
    return !field.node().items.empty() ||
           field.refuse("expected a state; \"absent\" says that the path is not there");
  }
  static void readOne(const Field& field, std::vector<DynamicPathState>& states) {
    DynamicPathState state{};
    if (stateKind().read(field, state)) {
      states.push_back(state);
    }
  }
  static ModelNameKind<DynamicPathState> stateKind() {
    static const auto names = modelNames<DynamicPathState>(kDynamicPathStates);
    return {"a state of a path", names};
  }
};

void describePathState(Form& form, ExpectPathState& fact) {
  pathAndEnd(form, Need::oneOrAll, fact.path, "router", fact.router);
  if (form.source() != nullptr) {
    const auto states = form.source()->require("is");
    if (states && !states->isText("absent")) {
      StatesKind().read(*states, fact.states);
    }
    return;
  }
  YamlNode states{.kind = YamlNode::Kind::sequence};
  for (const DynamicPathState state : fact.states) {
    states.items.push_back({.text = StatesKind::stateKind().text(state)});
  }
  if (states.items.empty()) {
    form.addText("is", "absent");
  } else {
    form.add("is", states.items.size() == 1 ? states.items.front() : states);
  }
}

void describeSaRekeyRole(Form& form, ExpectSaRekeyRole& fact) {
  static const auto names = modelNames<SmState>(6);
  pathAndEnd(form, Need::oneOrAll, fact.path, "router", fact.router);
  form.required("is", fact.role, ModelNameKind{"a role in a rekey", names});
}

void describePeer(Form& form, ExpectPeer& fact) {
  static const Names<std::optional<PeerConnStatus>> statuses = {
      {"ready", PeerConnStatus::ready}, {"down", PeerConnStatus::down}, {"absent", std::nullopt}};
  static const auto reasons = modelNames<PeerDownReason>(7);
  reference(form, "router", NameOf::router, Need::oneOrAll, fact.router);
  reference(form, "peer", NameOf::router, Need::optional, fact.peer);
  form.required("is", fact.status, NameKind{"a status of a peer", statuses});
  form.optional("reason", fact.reason, ModelNameKind{"a reason why a peer is down", reasons});
  if (form.source() != nullptr && fact.reason && !fact.status) {
    form.source()->find("reason")->refuse("an absent peer has no reason");
  }
}

void describeCount(Form& form, ExpectCount& fact) {
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
  form.required("of", fact.what, NameKind{"something to count", kinds});
  reference(form, "router", NameOf::router, Need::optional, fact.router);
  if (fact.what == What::sas) {
    reference(form, "path", NameOf::path, Need::optional, fact.path);
    form.optional("type", fact.saType, ModelNameKind{"a type of an SA", types});
  }
  if (fact.what == What::peerGenerations || fact.what == What::cryptoInfos) {
    reference(form, "peer", NameOf::router, Need::optional, fact.peer);
  }
  describeBounds(form, std::nullopt, fact.bounds);
}

template <class OnTraffic>
void describeOnTraffic(Form& form, OnTraffic& fact, std::optional<Bounds> unsaid) {
  reference(form, "flow", NameOf::flow, Need::optional, fact.flow);
  pathAndEnd(form, Need::optional, fact.path, "from", fact.from);
  describeBounds(form, unsaid, fact.bounds);
}

void describeLost(Form& form, ExpectLost& fact) {
  describeOnTraffic(form, fact, Bounds::exactly(0));
}

void describeReceived(Form& form, ExpectReceived& fact) {
  describeOnTraffic(form, fact, std::nullopt);
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

void describeDrops(Form& form, ExpectDrops& fact) {
  reference(form, "router", NameOf::router, Need::optional, fact.router);
  form.optional("reason", fact.reason, NameKind{"a reason to drop a packet", dropReasonNames()});
  describeBounds(form, Bounds::exactly(0), fact.bounds);
}

void describeLog(Form& form, ExpectLog& fact) {
  reference(form, "router", NameOf::router, Need::optional, fact.router);
  form.required("message", fact.message, ListedKind{"a message of the agent's log", logMessages()});
  describeBounds(form, std::nullopt, fact.bounds);
}

void describeCounter(Form& form, ExpectCounter& fact) {
  reference(form, "router", NameOf::router, Need::optional, fact.router);
  form.required("name", fact.counter, ListedKind{"a counter of the machine", machineCounters()});
  describeBounds(form, std::nullopt, fact.bounds);
}

void describeEvents(Form& form, ExpectEvents& fact) {
  static const std::vector<std::string> names(std::begin(kEventNames), std::end(kEventNames));
  pathAndEnd(form, Need::optional, fact.path, "router", fact.router);
  form.required("name", fact.event, ListedKind{"an event of the machine", names});
  describeBounds(form, std::nullopt, fact.bounds);
}

void describeHardLimits(Form& form, ExpectHardLimits& fact) {
  reference(form, "router", NameOf::router, Need::optional, fact.router);
  describeBounds(form, Bounds::exactly(0), fact.bounds);
}

void describeGeneration(Form& form, ExpectGeneration& fact) {
  reference(form, "router", NameOf::router, Need::one, fact.router);
  if (form.source() != nullptr ? form.source()->has("peer") : !fact.peer.empty()) {
    reference(form, "peer", NameOf::router, Need::one, fact.peer);
  }
  describeBounds(form, std::nullopt, fact.bounds);
}

void describeRekeys(Form& form, ExpectRekeys& fact) {
  static const Names<ExpectRekeys::Kind> kinds = {{"sa", ExpectRekeys::Kind::sa},
                                                  {"dh", ExpectRekeys::Kind::dh}};
  form.required("of", fact.kind, NameKind{"a kind of rekey", kinds});
  if (fact.kind == ExpectRekeys::Kind::sa) {
    pathAndEnd(form, Need::optional, fact.path, "router", fact.router);
  } else {
    reference(form, "router", NameOf::router, Need::optional, fact.router);
  }
  describeBounds(form, std::nullopt, fact.bounds);
}

void describeDhState(Form& form, ExpectDhState& fact) {
  static const auto names = modelNames<DhRekeyState>(5);
  reference(form, "router", NameOf::router, Need::oneOrAll, fact.router);
  form.required("is", fact.state, ModelNameKind{"a state of a DH rekey", names});
}

void describeHoldTimer(Form& form, ExpectHoldTimer& fact) {
  static const Names<bool> states = {{"running", true}, {"stopped", false}};
  reference(form, "router", NameOf::router, Need::oneOrAll, fact.router);
  form.required("is", fact.running, NameKind{"a state of a timer", states});
}

const std::vector<Choice<ExpectedFact>>& facts() {
  static const std::vector<Choice<ExpectedFact>> all = {
      choice<ExpectedFact>("path-state", describePathState),
      choice<ExpectedFact>("sa-rekey-role", describeSaRekeyRole),
      choice<ExpectedFact>("peer", describePeer),
      choice<ExpectedFact>("count", describeCount),
      choice<ExpectedFact>("lost", describeLost),
      choice<ExpectedFact>("received", describeReceived),
      choice<ExpectedFact>("drops", describeDrops),
      choice<ExpectedFact>("log", describeLog),
      choice<ExpectedFact>("counter", describeCounter),
      choice<ExpectedFact>("events", describeEvents),
      choice<ExpectedFact>("hard-limits", describeHardLimits),
      choice<ExpectedFact>("generation", describeGeneration),
      choice<ExpectedFact>("rekeys", describeRekeys),
      choice<ExpectedFact>("dh-state", describeDhState),
      choice<ExpectedFact>("hold-timer", describeHoldTimer)};
  return all;
}

}  // namespace

void describeExpectations(Form& form, std::vector<Expectation>& expectations) {
  const OrWord time{"end", Duration::never(), TimeKind()};
  if (form.target() != nullptr) {
    form.list("expectations", expectations, {}, {}, [&](Form& item, Expectation& expectation) {
      item.required("at", expectation.at, time);
      item.add("expect", choiceNode(expectation.fact, facts()));
    });
    return;
  }
  const auto list = form.source()->find("expectations");
  for (const Field& item : list ? list->items() : std::vector<Field>()) {
    MapReader map(item);
    Duration at = Duration::never();
    if (const auto field = map.require("at"); field && time.read(*field, at) && !at.isNever()) {
      checkTime(*field, at);
    }
    readChoices(map, "expect", "an expectation", facts(),
                [&](ExpectedFact fact, std::string text, int line) {
                  expectations.push_back(
                      {.at = at, .fact = std::move(fact), .text = std::move(text), .line = line});
                });
  }
}

}  // namespace tessel::lab
