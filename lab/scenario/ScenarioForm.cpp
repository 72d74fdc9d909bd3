// The scenario file as a whole, and its sections of a few lines.
#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {
namespace {

void describeControllers(Form& form, std::vector<ControllerPlan>& controllers) {
  const ControllerPlan usual;
  form.list("controllers", controllers, {usual}, {}, [&](Form& item, ControllerPlan& controller) {
    newName(item, "controller", controllers, controller.name);
    item.defaulted("delay", controller.delay, usual.delay, TimeKind());
  });
  if (MapReader* const file = form.source(); file != nullptr && file->has("controllers")) {
    refuseEmptyList(*file->find("controllers"), "at least one controller is needed");
  }
}

void describeProbes(Form& form, ProbePlan& probes) {
  if (form.target() != nullptr && !probes.on) {
    form.addText("probes", "off");
    return;
  }
  if (MapReader* const file = form.source()) {
    if (const auto field = file->find("probes"); field && field->isText("off")) {
      probes.on = false;
      return;
    }
  }
  form.part("probes", [&](Form& part) {
    part.defaulted("interval", probes.interval, ProbePlan().interval,
                   TimeKind{.least = seconds(0.001), .most = kLongestRun});
  });
}

void describeToggles(Form& form, std::map<std::string, bool>& toggles) {
  form.part("toggles", [&](Form& part) {
    for (const char* name : {"PfConnectionLoss", "TrellisSnapshot"}) {
      const auto found = toggles.find(name);
      std::optional<bool> state;
      if (found != toggles.end()) {
        state = found->second;
      }
      part.optional(name, state, SwitchKind());
      if (state) {
        toggles[name] = *state;
      }
    }
  });
}

}  // namespace

void describeScenario(Form& form, Scenario& scenario) {
  static const Names<Distribution> distributions = {{"everyone", Distribution::everyone},
                                                    {"neighbours", Distribution::neighbours}};
  form.defaulted("name", scenario.name, std::string(), TextKind());
  form.defaulted("description", scenario.description, std::string(), TextKind());
  form.defaulted("seed", scenario.seed, Scenario().seed, CountKind<uint64_t>());
  form.defaulted("duration", scenario.duration, Scenario().duration,
                 TimeKind{.least = seconds(0.001), .most = kLongestRun});
  describeRouters(form, scenario.routers);
  describePaths(form, scenario.paths);
  describeControllers(form, scenario.controllers);
  form.defaulted("distribution", scenario.distribution, Scenario().distribution,
                 NameKind{"a distribution", distributions});
  describeTraffic(form, scenario);
  describeProbes(form, scenario.probes);
  describeToggles(form, scenario.toggles);
  describeTimeline(form, scenario.timeline);
  describeExpectations(form, scenario.expectations);
}

}  // namespace tessel::lab
