// Rekeys on links without loss: every packet that is sent on a path in use is received, whoever
// starts the rekey, however slow links, data paths and controllers are; and nothing is left behind.
#include <random>

#include "lab/check/Invariants.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "sm/DhRekey.h"
#include "sm/LocalKey.h"
#include "sm/PeerKeys.h"
#include "tests/rekey/Runs.h"

namespace tessel::lab {
namespace {

void expectAllSteady(const Lab& lab, const std::string& except = {}) {
  for (const PathPlan& path : lab.scenario().paths) {
    for (const int end : {0, 1}) {
      if (path.name != except) {
        EXPECT_EQ(test::whyNotSteady(lab.router(path.ends[end].router).pathView(path.name),
                                     lab.router(path.ends[1 - end].router).pathView(path.name)),
                  "")
            << path.name << " at " << path.ends[end].router;
      }
    }
  }
}

void expectNothingDropped(const Lab& lab) {
  for (const auto& router : lab.routers()) {
    EXPECT_EQ(lab.history(*router).drops().total(), 0U) << router->name();
  }
}

TEST(Lossless, SaRekeysOfEitherSideAndOfBothAtOnce) {
  for (const double install : {0.0, 0.02, 2.0}) {
    for (const double latency : {0.0, 0.05, 0.5}) {
      SCOPED_TRACE(std::to_string(install) + " s to install, " + std::to_string(latency) + " s");
      LinkSettings link;
      link.latency = seconds(latency);
      Scenario scenario =
          meshScenario({.pathsPerPair = 3, .link = link, .trafficStart = seconds(10)});
      scenario.routers[0].settings.installDelay = seconds(install);
      scenario.routers[1].settings.installDelay = seconds(2.0 - install);
      Lab lab(scenario);
      lab.run(seconds(200));
      // One path's rekey is east's, one west's, one both's; each twice.
      for (int round = 0; round < 2; ++round) {
        lab.apply(ForceSaRekey{.path = "east-west-1", .router = "east"});
        lab.apply(ForceSaRekey{.path = "east-west-2", .router = "west"});
        lab.apply(ForceSaRekey{.path = "east-west-3"});
        const auto spi = lab.router("east").pathView("east-west-3").inSpi();
        lab.run(seconds(250));
        EXPECT_NE(lab.router("east").pathView("east-west-3").inSpi(), spi);
        expectAllSteady(lab);
      }
      EXPECT_EQ(lab.traffic().lost(), 0U);
      expectNothingDropped(lab);
    }
  }
}

/// A hub with spokes, all of which differ in what they take for installing and hearing of a key.
class HubRekeys {
 public:
  explicit HubRekeys(uint64_t seed) : random_(seed), lab_(hub(), {&invariants_}) {
    invariants_.start(lab_);
  }

  void run() {
    SCOPED_TRACE(std::to_string(spokes_) + " spokes, " + std::to_string(paths_) + " paths each");
    const std::string first = "hub-s1-1";
    const std::string last = "hub-s" + std::to_string(spokes_) + "-" + std::to_string(paths_);
    const bool several = spokes_ * paths_ > 2;
    const char* saRekeyer = draw(2) == 0 ? "hub" : "s1";
    const Duration beforeHub = seconds(static_cast<double>(draw(5)));
    const Duration beforeSpoke = seconds(static_cast<double>(draw(3) * 10));
    const bool both = draw(3) > 0;
    lab_.run(seconds(240));
    std::vector<size_t> counts;
    for (uint64_t round = 1; round <= 5; ++round) {
      SCOPED_TRACE(round);
      // The last path is down, or comes up in the middle; the first one is in an SA rekey.
      if (several) {
        lab_.apply(RemovePath{.path = last});
      }
      lab_.apply(ForceSaRekey{.path = first, .router = saRekeyer});
      lab_.run(beforeHub);
      lab_.apply(ForceDhRekey{.router = "hub"});
      lab_.run(beforeSpoke);
      for (uint64_t spoke = 1; both && spoke <= spokes_; ++spoke) {
        lab_.apply(ForceDhRekey{.router = "s" + std::to_string(spoke)});
      }
      if (several) {
        lab_.apply(AddPath{.path = last});
      }
      lab_.run(seconds(600));
      EXPECT_EQ(lab_.router("hub").entities().ipsecLocalKeyDir->rekeyCounter(), round);
      EXPECT_EQ(lab_.router("s1").entities().ipsecLocalKeyDir->rekeyCounter(), both ? round : 0);
      expectAllSteady(lab_);
      expectAtRest();
      const std::vector<size_t> before = std::exchange(counts, objectCounts(!both));
      if (round > 3) {
        EXPECT_EQ(counts, before);
      }
    }
    for (const Violation& violation : invariants_.violations()) {
      ADD_FAILURE() << stringValue(violation);
    }
    for (const PathPlan& path : lab_.scenario().paths) {
      if (!several || path.name != last) {
        EXPECT_EQ(lab_.traffic().counts({}, path.name, {}).lost, 0U) << path.name;
      }
    }
  }

 private:
  uint64_t draw(uint64_t n) { return random_() % n; }

  Scenario hub() {
    spokes_ = 1 + draw(8);
    paths_ = 1 + draw(4);
    MeshSpec spec{.seed = random_(),
                  .routers = {"hub"},
                  .trafficStart = seconds(40),
                  .trafficInterval = seconds(1)};
    spec.pathsPerPair = static_cast<uint32_t>(paths_);
    for (uint64_t spoke = 1; spoke <= spokes_; ++spoke) {
      spec.routers.push_back("s" + std::to_string(spoke));
    }
    Scenario scenario = meshScenario(spec);
    std::erase_if(scenario.paths,
                  [](const PathPlan& path) { return path.ends[0].router != "hub"; });
    std::erase_if(scenario.traffic[0].paths,
                  [](const std::string& path) { return path[0] != 'h'; });
    for (RouterPlan& router : scenario.routers) {
      router.settings.installDelay = seconds(static_cast<double>(draw(21)) / 10);
      router.settings.controllerDelay = seconds(static_cast<double>(draw(31)));
    }
    return scenario;
  }

  /// What every router and every path has of everything. How many pairs of generations have crypto
  /// depends on how two rekeys cross, between three and four.
  std::vector<size_t> objectCounts(bool withCrypto) const {
    std::vector<size_t> counts;
    for (const auto& router : lab_.routers()) {
      const RouterEntities& entities = router->entities();
      const auto& vrf = entities.ipsecStatus->vrfStatus("default");
      counts.insert(counts.end(), {entities.tesselV1->sa().size(), vrf->tesselSa().size(),
                                   vrf->lifetimeCfg().size(),
                                   router->machine().localKey().localKeyInfo().size()});
      for (const auto& [peer, state] : entities.ipsecStatus->ipsecPeerConnectionState()) {
        const auto generations = router->machine().peerKeys().localPeerKeyInfoList(peer);
        counts.insert(counts.end(), {withCrypto ? state->dhCryptoInfo().size() : 0,
                                     generations->peerKeyInfo().size()});
        for (const auto& [key, path] : state->pathConnState()) {
          counts.insert(counts.end(), {path->dhState().size(), path->saCryptoInfo().size(),
                                       path->pathConnSaInfo().size()});
        }
      }
    }
    return counts;
  }
  /// One local generation, at most two of each peer, crypto of the newest two generations alone.
  void expectAtRest() {
    for (const auto& router : lab_.routers()) {
      SCOPED_TRACE(router->name());
      const Ipsec::TesselV1Sm& machine = router->machine();
      const uint64_t local = router->entities().ipsecLocalKeyDir->rekeyCounter();
      EXPECT_EQ(machine.dhRekey().dhRekeyState(), DhRekeyState::notRekeying);
      EXPECT_EQ(machine.localKey().localKeyInfo().size(), 1U);
      for (const auto& [peer, state] : router->entities().ipsecStatus->ipsecPeerConnectionState()) {
        const auto generations = machine.peerKeys().localPeerKeyInfoList(peer);
        ASSERT_TRUE(generations);
        EXPECT_LE(generations->peerKeyInfo().size(), 2U);
        const uint64_t newest =
            router->entities().ipsecPeerKeyDir->ipsecPeerKeyInfo(peer).rekeyCounter;
        for (const auto& [pair, crypto] : state->dhCryptoInfo()) {
          EXPECT_LE(local - pair.localRekeyCount, 1U);
          EXPECT_LE(newest - pair.peerRekeyCount, 1U);
        }
      }
    }
  }

  std::mt19937_64 random_;
  uint64_t spokes_ = 0;
  uint64_t paths_ = 0;
  Invariants invariants_;
  Lab lab_;
};

TEST(Lossless, DhRekeysOfOneSideAndOfBothAtOnce) {
  for (uint64_t seed = 1; seed <= test::seedsToRun(4); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    HubRekeys rekeys(seed);
    rekeys.run();
  }
}

}  // namespace
}  // namespace tessel::lab
