#include "lab/fuzz/FuzzCase.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "lab/fuzz/Draws.h"
#include "lab/run/Mesh.h"

namespace tessel::lab {
namespace {

// Streams of random numbers within a seed: those of the fault kinds are their numbers.
constexpr uint64_t kMeshStream = 1000;

// Packets of a run, in all: what a run costs is decided by them and by the rekeys.
constexpr double kPacketBudget = 60'000;
constexpr uint32_t kMaxPaths = 150;

SmallRandom stream(uint64_t seed, uint64_t number) {
  return SmallRandom(SmallRandom(seed).next() + number * 0xD1B54A32D192ED03U);
}

uint32_t drawRouters(SmallRandom& random, const FuzzRange& range) {
  // Small meshes are drawn more often: what goes wrong needs two routers, hardly ever ten.
  const double share = random.uniform();
  const double size = 2 + 14 * share * share * share;
  return std::clamp(static_cast<uint32_t>(size + 0.5), range.minRouters, range.maxRouters);
}

uint32_t drawPathsPerPair(SmallRandom& random, uint32_t routers) {
  const uint32_t pairs = routers * (routers - 1) / 2;
  const uint64_t drawn = 1 + std::min(random.below(5), random.below(4));
  return std::clamp(static_cast<uint32_t>(drawn), 1U, std::max(1U, kMaxPaths / pairs));
}

IpsecDhGroup drawGroup(SmallRandom& random) {
  using enum IpsecDhGroup;
  static constexpr std::array others{modp768,  modp1024, modp1536, modp2048, modp3072,
                                     modp4096, modp6144, ecp384,   ecp521,   modp2048s256};
  return random.chance(0.9) ? ecp256 : drawOne(random, others);
}

SaSettings drawSa(SmallRandom& random, bool longLived, double packetsPerSecond) {
  using enum IpsecEspAlgorithm;
  static constexpr std::array encryptions{aes128Cbc,    aes192Cbc,    aes256Cbc,     aes128Gcm64,
                                          aes128Gcm128, aes256Gcm128, nullEncryption};
  static constexpr std::array integrities{IntegrityAlgo::md5, IntegrityAlgo::sha1,
                                          IntegrityAlgo::sha256, IntegrityAlgo::sha384,
                                          IntegrityAlgo::sha512};
  SaSettings sa{.encryption = drawOne(random, encryptions),
                .integrity = drawOne(random, integrities)};
  sa.lifetime =
      static_cast<uint32_t>(longLived ? 3600 + random.below(86400) : 900 + random.below(901));
  // Limits that are reached about when the lifetime is.
  if (random.chance(0.25)) {
    sa.packetLimit = static_cast<uint32_t>(drawBetween(random, 900, 3600) * packetsPerSecond) + 50;
  }
  if (random.chance(0.25)) {
    sa.byteLimit =
        static_cast<uint64_t>(drawBetween(random, 900, 3600) * packetsPerSecond * 600) + 20'000;
  }
  return sa;
}

RouterSettings drawSettings(SmallRandom& random, double packetsPerSecond) {
  RouterSettings settings;
  settings.group = drawGroup(random);
  const bool longLived = random.chance(0.2);
  settings.profile.sa = drawSa(random, longLived, packetsPerSecond);
  settings.dhKeyLifetime = static_cast<uint32_t>(random.chance(0.2) ? 3600 + random.below(86400)
                                                                    : 900 + random.below(901));
  settings.holdTime = random.chance(0.5) ? 0 : static_cast<uint32_t>(60 + random.below(3600));
  settings.installDelay = drawSpan(random, 0.001, 2);
  settings.maxEventRecord = static_cast<uint32_t>(4 + random.below(61));
  if (random.chance(0.5)) {
    settings.yieldAfter = 1 + random.below(20);
  }
  return settings;
}

Scenario drawMesh(uint64_t seed, const FuzzRange& range) {
  SmallRandom random = stream(seed, kMeshStream);
  MeshSpec spec{.seed = seed, .routers = {}};
  const uint32_t routers = drawRouters(random, range);
  for (uint32_t i = 1; i <= routers; ++i) {
    spec.routers.push_back(fmt::format("r{}", i));
  }
  spec.pathsPerPair = drawPathsPerPair(random, routers);
  spec.underlay =
      drawOne(random, std::array{Underlay::own, Underlay::shared, Underlay::translated});
  spec.link.latency = drawSpan(random, 0.001, 0.5);
  const double streams = routers * (routers - 1) * spec.pathsPerPair;
  spec.trafficInterval = seconds(
      std::max(drawBetween(random, 0.5, 20), range.duration.seconds() * streams / kPacketBudget));
  spec.settings = drawSettings(random, 1 / spec.trafficInterval.seconds());

  Scenario mesh = meshScenario(spec);
  mesh.name = fmt::format("seed-{}", seed);
  mesh.duration = range.duration;
  mesh.controllers.clear();
  for (uint64_t i = 1 + random.below(3); i > 0; --i) {
    mesh.controllers.push_back(
        {.name = fmt::format("pf{}", i), .delay = drawSpan(random, 0.01, 2)});
  }
  // Paths without a flow have nothing but probes.
  FlowPlan& flow = mesh.traffic.front();
  const double quiet = random.chance(0.5) ? 0 : 0.5;
  std::erase_if(flow.paths, [&](const std::string&) { return random.chance(quiet); });
  if (flow.paths.empty()) {
    mesh.traffic.clear();
  }
  return mesh;
}

}  // namespace

Scenario FuzzCase::scenario() const {
  Scenario scenario = mesh;
  for (const Fault& fault : faults) {
    scenario.timeline.push_back(fault.begin);
    if (fault.end) {
      scenario.timeline.push_back(*fault.end);
    }
  }
  std::ranges::stable_sort(scenario.timeline, {}, &TimelineEntry::at);
  return scenario;
}

FuzzCase drawCase(uint64_t seed, const FuzzRange& range) {
  if (range.duration < kShortestFuzzRun || range.minRouters < 2 ||
      range.minRouters > range.maxRouters) {
    throw std::invalid_argument("a run needs two routers and more time");
  }
  // Every path gets its first SAs in peace.
  const Duration faultsBegin = seconds(60);
  FuzzCase drawn{.mesh = drawMesh(seed, range), .faultsEnd = range.duration - kQuietTime};
  for (size_t i = 0; i < kFaultKinds; ++i) {
    SmallRandom random = stream(seed, i);
    if (random.chance(0.5)) {
      std::vector<Fault> faults =
          drawFaults(static_cast<FaultKind>(i), drawn.mesh, random, faultsBegin, drawn.faultsEnd);
      drawn.faults.insert(drawn.faults.end(), std::make_move_iterator(faults.begin()),
                          std::make_move_iterator(faults.end()));
    }
  }
  std::ranges::stable_sort(drawn.faults, {}, [](const Fault& fault) { return fault.begin.at; });
  return drawn;
}

}  // namespace tessel::lab
