// The form in which a process tells another one what came of a case.
#include <nlohmann/json.hpp>

#include "lab/fuzz/FuzzRun.h"

namespace tessel::lab {

std::string outcomeText(const FuzzOutcome& outcome) {
  nlohmann::json violations = nlohmann::json::array();
  for (const Violation& violation : outcome.violations) {
    violations.push_back({violation.invariant, violation.at.seconds(), violation.where,
                          violation.what, violation.events});
  }
  const nlohmann::json json = {{"seed", outcome.seed},
                               {"violations", violations},
                               {"digest", outcome.digest},
                               {"routers", outcome.routers},
                               {"paths", outcome.paths},
                               {"played", outcome.played.seconds()},
                               {"restAfter", outcome.restAfter.seconds()},
                               {"restBound", outcome.restBound.seconds()},
                               {"packets", outcome.packets},
                               {"saRekeys", outcome.saRekeys},
                               {"dhRekeys", outcome.dhRekeys},
                               {"evaluated", outcome.evaluated},
                               {"faults", outcome.faults},
                               {"splitRoles", outcome.splitRoles},
                               {"refusedPaths", outcome.refusedPaths},
                               {"leftoverPaths", outcome.leftoverPaths},
                               {"routersNoKey", outcome.routersNoKey}};
  return json.dump();
}

FuzzOutcome readOutcome(const std::string& text) {
  const nlohmann::json json = nlohmann::json::parse(text);
  FuzzOutcome outcome{.seed = json.at("seed"),
                      .digest = json.at("digest"),
                      .routers = json.at("routers"),
                      .paths = json.at("paths"),
                      .played = seconds(json.at("played")),
                      .restAfter = seconds(json.at("restAfter")),
                      .restBound = seconds(json.at("restBound")),
                      .packets = json.at("packets"),
                      .saRekeys = json.at("saRekeys"),
                      .dhRekeys = json.at("dhRekeys"),
                      .evaluated = json.at("evaluated"),
                      .faults = json.at("faults"),
                      .splitRoles = json.at("splitRoles"),
                      .refusedPaths = json.at("refusedPaths"),
                      .leftoverPaths = json.at("leftoverPaths"),
                      .routersNoKey = json.at("routersNoKey")};
  for (const nlohmann::json& violation : json.at("violations")) {
    outcome.violations.push_back({.invariant = violation.at(0),
                                  .at = seconds(violation.at(1)),
                                  .where = violation.at(2),
                                  .what = violation.at(3),
                                  .events = violation.at(4)});
  }
  return outcome;
}

}  // namespace tessel::lab
