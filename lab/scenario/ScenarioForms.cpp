#include "lab/scenario/ScenarioForms.h"

#include <algorithm>

namespace tessel::lab {
namespace {

template <class Plan>
std::vector<std::string> namesOf(const std::vector<Plan>& plans) {
  std::vector<std::string> names;
  std::ranges::transform(plans, std::back_inserter(names), &Plan::name);
  return names;
}

std::vector<std::string> knownNames(const Scenario& scenario, NameOf kind) {
  switch (kind) {
    case NameOf::router:
      return namesOf(scenario.routers);
    case NameOf::path:
      return namesOf(scenario.paths);
    case NameOf::flow:
      return namesOf(scenario.traffic);
    case NameOf::controller:
      return namesOf(scenario.controllers);
  }
  return {};
}

const char* description(NameOf kind) {
  switch (kind) {
    case NameOf::router:
      return "a router of this scenario";
    case NameOf::path:
      return "a path of this scenario";
    case NameOf::flow:
      return "a flow of this scenario";
    case NameOf::controller:
      return "a controller of this scenario";
  }
  return "";
}

const Names<EncryptionAlgo>& encryptionNames() {
  static const auto names = modelNames<EncryptionAlgo>(8);
  return names;
}

const Names<IntegrityAlgo>& integrityNames() {
  static const auto names = modelNames<IntegrityAlgo>(7);
  return names;
}

const Names<IpsecDhGroup>& groupNames() {
  static const auto names = [] {
    auto groups = modelNames<IpsecDhGroup>(25);
    std::erase_if(groups, [](const auto& group) { return group.second == IpsecDhGroup::none; });
    return groups;
  }();
  return names;
}

}  // namespace

void checkReference(const Field& field, NameOf kind, const std::string& name) {
  field.state().checks.push_back([=](const Scenario& scenario) {
    const std::vector<std::string> names = knownNames(scenario, kind);
    if (std::ranges::find(names, name) == names.end()) {
      field.refuseName(description(kind), names);
    }
  });
}

void reference(Form& form, const std::string& key, NameOf kind, Need need, std::string& name) {
  if (form.target() != nullptr) {
    if (!name.empty() || need == Need::oneOrAll) {
      form.addText(key, name.empty() ? "all" : name);
    }
    return;
  }
  const auto field =
      need == Need::optional ? form.source()->find(key) : form.source()->require(key);
  if (!field || (need != Need::one && field->isText("all"))) {
    return;
  }
  if (field->read(name)) {
    checkReference(*field, kind, name);
  }
}

void pathAndEnd(Form& form, Need pathNeed, std::string& path, const std::string& endKey,
                std::string& end) {
  reference(form, "path", NameOf::path, pathNeed, path);
  reference(form, endKey, NameOf::router, Need::optional, end);
  if (form.source() == nullptr || path.empty() || end.empty()) {
    return;
  }
  const Field field = *form.source()->find(endKey);
  field.state().checks.push_back([field, path, end](const Scenario& scenario) {
    const PathPlan* plan = scenario.path(path);
    if (plan != nullptr && scenario.router(end) != nullptr && plan->ends[0].router != end &&
        plan->ends[1].router != end) {
      field.refuse("not an end of path \"" + path + "\"");
    }
  });
}

void checkNewName(const Field& field, const std::string& what,
                  const std::vector<std::string>& earlier, const std::string& name) {
  constexpr const char* allowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.";
  if (!field.isText()) {
    return;  // Told already.
  }
  if (name.empty() || name.find_first_not_of(allowed) != std::string::npos) {
    field.refuse("a name consists of letters, digits, '-', '_' and '.'");
  } else if (name == "all" || name == "none") {
    field.refuse("this name has a meaning of its own");
  } else if (std::ranges::find(earlier, name) != earlier.end()) {
    field.refuse("another " + what + " has this name");
  }
}

void refuseEmptyList(const Field& list, const std::string& problem) {
  if (list.node().kind == YamlNode::Kind::sequence && list.node().items.empty()) {
    list.refuse(problem);
  }
}

ModelNameKind<EncryptionAlgo> encryptionKind() {
  return {"an encryption algorithm", encryptionNames()};
}

ModelNameKind<IntegrityAlgo> integrityKind() {
  return {"an integrity algorithm", integrityNames()};
}

ModelNameKind<IpsecDhGroup> groupKind() {
  return {"a DH group", groupNames()};
}

NameKind<std::optional<Ike::ConnectionState>> connectionKind() {
  static const Names<std::optional<Ike::ConnectionState>> names = {
      {"missing", std::nullopt},
      {"down", Ike::ConnectionState::down},
      {"established", Ike::ConnectionState::established},
      {"connected", Ike::ConnectionState::connected}};
  return {"a connection status", names};
}

OrWord<uint32_t, SecondsKind> lifetimeKind() {
  return {"none", 0, SecondsKind{}};
}

OrWord<uint32_t, CountKind<uint32_t>> packetLimitKind() {
  return {"none", 0, CountKind<uint32_t>{.least = 1}};
}

OrWord<uint64_t, SizeKind<uint64_t>> byteLimitKind() {
  return {"none", 0, SizeKind<uint64_t>{}};
}

void describeLink(Form& form, ChangeLink& link) {
  form.optional("latency", link.latency, TimeKind());
  form.optional("jitter", link.jitter, TimeKind());
  form.optional("loss", link.loss, ShareKind());
  form.optional("burst-start", link.burstStart, ShareKind());
  form.optional("burst-end", link.burstEnd, ShareKind());
  form.optional("duplication", link.duplication, ShareKind());
  form.optional("duplicate-delay", link.duplicateDelay, TimeKind());
  form.optional("reordering", link.reordering, ShareKind());
  form.optional("reorder-delay", link.reorderDelay, TimeKind());
  form.optional("corruption", link.corruption, ShareKind());
  form.optional("replay", link.replay, ShareKind());
  form.optional("replay-depth", link.replayDepth, CountKind<uint32_t>{.least = 1, .most = 100'000});
}

}  // namespace tessel::lab
