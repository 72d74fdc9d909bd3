#include "lab/scenario/ScenarioReaders.h"

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

/// 0 written as "none".
template <class Number, class Read>
void readLimit(MapReader& map, const char* key, std::optional<Number>& limit, Read read) {
  const auto field = map.find(key);
  if (!field) {
    return;
  }
  if (field->isText("none")) {
    limit = 0;
    return;
  }
  Number value = 0;
  if (read(*field, value)) {
    limit = value;
  }
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

void readReference(MapReader& map, const std::string& key, NameOf kind, Need need,
                   std::string& value) {
  const auto field = need == Need::optional ? map.find(key) : map.require(key);
  if (!field || (need != Need::one && field->isText("all"))) {
    return;
  }
  if (field->read(value)) {
    checkReference(*field, kind, value);
  }
}

void readPathAndEnd(MapReader& map, Need pathNeed, std::string& path, const std::string& endKey,
                    std::string& end) {
  readReference(map, "path", NameOf::path, pathNeed, path);
  readReference(map, endKey, NameOf::router, Need::optional, end);
  if (path.empty() || end.empty()) {
    return;
  }
  const Field field = *map.find(endKey);
  field.state().checks.push_back([field, path, end](const Scenario& scenario) {
    const PathPlan* plan = scenario.path(path);
    if (plan != nullptr && scenario.router(end) != nullptr && plan->ends[0].router != end &&
        plan->ends[1].router != end) {
      field.refuse("not an end of path \"" + path + "\"");
    }
  });
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

const Names<std::optional<Ike::ConnectionState>>& connectionNames() {
  static const Names<std::optional<Ike::ConnectionState>> names = {
      {"missing", std::nullopt},
      {"down", Ike::ConnectionState::down},
      {"established", Ike::ConnectionState::established},
      {"connected", Ike::ConnectionState::connected}};
  return names;
}

void readSaLimits(MapReader& map, std::optional<uint32_t>& lifetime,
                  std::optional<uint32_t>& packetLimit, std::optional<uint64_t>& byteLimit) {
  readLimit(map, "lifetime", lifetime,
            [](const Field& field, uint32_t& value) { return field.readSeconds(value, 1); });
  readLimit(map, "packet-limit", packetLimit,
            [](const Field& field, uint32_t& value) { return field.readCount(value, 1U); });
  readLimit(map, "byte-limit", byteLimit, [](const Field& field, uint64_t& value) {
    return field.readSize(value, 1, std::numeric_limits<uint64_t>::max());
  });
}

void readLink(MapReader& map, ChangeLink& link) {
  map.get("latency", link.latency);
  map.get("jitter", link.jitter);
  const std::pair<const char*, std::optional<double>&> shares[] = {
      {"loss", link.loss},
      {"duplication", link.duplication},
      {"reordering", link.reordering},
      {"corruption", link.corruption},
      {"replay", link.replay}};
  for (const auto& [key, target] : shares) {
    double share = 0;
    if (const auto field = map.find(key); field && field->readPercentage(share)) {
      target = share;
    }
  }
}

}  // namespace tessel::lab
