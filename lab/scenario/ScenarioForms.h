// ScenarioForms: the descriptions (Form.h) of a scenario file's sections, and what they share.
#pragma once

#include <string>
#include <vector>

#include "lab/scenario/Form.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// What a name in a scenario can stand for.
enum class NameOf { router, path, flow, controller };

/// Whether a reference has to be there, and whether "all" will do.
enum class Need {
  one,
  oneOrAll,
  optional,  ///< Missing means all.
};

/// A name that the scenario must have, which is checked when everything has been read. "all" gives
/// the empty name.
void reference(Form& form, const std::string& key, NameOf kind, Need need, std::string& name);
void checkReference(const Field& field, NameOf kind, const std::string& name);

/// A path, and one of its ends; an end without a path chooses the paths that it is an end of.
void pathAndEnd(Form& form, Need pathNeed, std::string& path, const std::string& endKey,
                std::string& end);

ModelNameKind<EncryptionAlgo> encryptionKind();
ModelNameKind<IntegrityAlgo> integrityKind();
ModelNameKind<IpsecDhGroup> groupKind();
NameKind<std::optional<Ike::ConnectionState>> connectionKind();

/// The longest that a run, or a wait in it, can be.
inline constexpr Duration kLongestRun = Duration(366.0 * 86400);

/// The name of something new: refused when it cannot be told from other text or is taken.
void checkNewName(const Field& field, const std::string& what,
                  const std::vector<std::string>& earlier, const std::string& name);
template <class Plan>
void newName(Form& form, const std::string& what, const std::vector<Plan>& earlier,
             std::string& name) {
  form.required("name", name, TextKind());
  if (form.source() != nullptr && form.source()->has("name")) {
    std::vector<std::string> names;
    names.reserve(earlier.size());
    for (const Plan& plan : earlier) {
      names.push_back(plan.name);
    }
    checkNewName(*form.source()->find("name"), what, names, name);
  }
}

/// Faults a list without items; what is no list has been faulted.
void refuseEmptyList(const Field& list, const std::string& problem);

/// Limits of SAs: "none" stands for 0.
OrWord<uint32_t, SecondsKind> lifetimeKind();
OrWord<uint32_t, CountKind<uint32_t>> packetLimitKind();
OrWord<uint64_t, SizeKind<uint64_t>> byteLimitKind();

/// What a link does to packets.
void describeLink(Form& form, ChangeLink& link);

/// Settings of a router; `unsaid` are those that go without saying.
void describeSettings(Form& form, RouterSettings& settings, const RouterSettings& unsaid);
void describeRouters(Form& form, std::vector<RouterPlan>& routers);
void describePaths(Form& form, std::vector<PathPlan>& paths);
void describeTraffic(Form& form, Scenario& scenario);
void describeTimeline(Form& form, std::vector<TimelineEntry>& timeline);
void describeExpectations(Form& form, std::vector<Expectation>& expectations);
/// The whole file.
void describeScenario(Form& form, Scenario& scenario);

/// An action as it stands under `do`.
YamlNode actionNode(Action action);

}  // namespace tessel::lab
