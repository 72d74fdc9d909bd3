#include "lab/run/Mesh.h"

#include <utility>

namespace tessel::lab {
namespace {

constexpr uint32_t kRouterIds = 0xC0000200;        // 192.0.2.0, RFC 5737.
constexpr uint32_t kUnderlay = 0x0A000000;         // 10.0.0.0.
constexpr uint32_t kPublicAddresses = 0xC6336400;  // 198.51.100.0, RFC 5737.
constexpr uint16_t kFirstPort = 4500;

PathPlan pathPlan(const MeshSpec& spec, uint32_t pair, uint32_t nth, const std::string& first,
                  const std::string& second, uint32_t number) {
  const bool shared = spec.underlay == Underlay::shared;
  const uint32_t addresses = kUnderlay + 4 * (shared ? pair : number);
  const auto port = static_cast<uint16_t>(kFirstPort + (shared ? nth : 0));
  PathPlan plan{.name = first + "-" + second + "-" + std::to_string(nth + 1)};
  plan.ends[0] = {.router = first, .address = IpGenAddr::fromV4(addresses + 1), .port = port};
  plan.ends[1] = {.router = second, .address = IpGenAddr::fromV4(addresses + 2), .port = port};
  if (spec.underlay == Underlay::translated) {
    plan.ends[0].publicAddress = IpGenAddr::fromV4(kPublicAddresses + number);
  }
  plan.link = spec.link;
  return plan;
}

}  // namespace

Scenario meshScenario(const MeshSpec& spec) {
  Scenario scenario{.name = "mesh", .seed = spec.seed, .duration = Duration()};
  for (const std::string& name : spec.routers) {
    const auto number = static_cast<uint32_t>(scenario.routers.size() + 1);
    scenario.routers.push_back({.name = name,
                                .routerId = IpGenAddr::fromV4(kRouterIds + number),
                                .settings = spec.settings});
  }
  FlowPlan traffic{.name = "traffic", .interval = spec.trafficInterval, .start = spec.trafficStart};
  uint32_t pair = 0;
  for (size_t first = 0; first < spec.routers.size(); ++first) {
    for (size_t second = first + 1; second < spec.routers.size(); ++second, ++pair) {
      for (uint32_t nth = 0; nth < spec.pathsPerPair; ++nth) {
        const auto number = static_cast<uint32_t>(scenario.paths.size() + 1);
        scenario.paths.push_back(
            pathPlan(spec, pair, nth, spec.routers[first], spec.routers[second], number));
        traffic.paths.push_back(scenario.paths.back().name);
      }
    }
  }
  scenario.traffic.push_back(std::move(traffic));
  scenario.controllers = {{.name = "pf", .delay = spec.controllerDelay}};
  return scenario;
}

}  // namespace tessel::lab
