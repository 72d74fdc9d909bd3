#include "bench/scale/Population.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>

#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include "bench/agent/Floors.h"
#include "bench/scale/CryptoTime.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/Paths.h"

namespace tessel::bench {

namespace {

/// Bytes of this process that are in memory, without what malloc could give back.
double residentBytes() {
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  double pages = 0;
  double resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

template <size_t N>
void put(std::array<char, N>& field, const std::string& text) {
  std::snprintf(field.data(), N, "%s", text.c_str());
}

/// The least thread time of several rounds of `work`, per item.
double leastSeconds(uint32_t items, const std::function<void()>& work) {
  double least = 1e9;
  for (int round = 0; round < 7; ++round) {
    const double start = threadSeconds();
    work();
    least = std::min(least, threadSeconds() - start);
  }
  return least / items;
}

class Run {
 public:
  explicit Run(const PopulationSettings& settings) : settings_(settings) {
    result_.peers = settings.agent.peers;
    result_.pathsPerPeer = settings.agent.pathsPerPeer;
  }

  PopulationResult play() {
    measureFloors();
    const double empty = residentBytes();
    agent_.emplace(settings_.agent);
    const double made = residentBytes();
    const uint64_t paths = result_.paths();

    agent_->describePaths();
    phase("configure paths", paths, [&] {
      agent_->touchPaths();
      return 0.0;
    });
    // Records lie in the agent and, once published, in the directory: counted twice here, as a
    // router would not.
    const double described = residentBytes();
    phase("first exchange", paths, [&] {
      agent_->publishPeers();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    expectPaths(DynamicPathState::established);
    phase("become active", paths, [&] { return agent_->live(seconds(185)); });
    expectPaths(DynamicPathState::active);
    fillLogs();
    const double full = residentBytes();
    result_.hostBytesPerPath = (described - made) / static_cast<double>(paths);
    result_.engineBytesPerPath = (full - described) / static_cast<double>(paths);
    (void)empty;

    phase("hour with SA rekeys", paths,
          [&] { return agent_->live(seconds(settings_.trafficSeconds)); });
    noteSweeps();
    if (settings_.trafficSeconds >= 3600) {
      expectRekeyed();
    }
    for (uint32_t i = 1; i <= settings_.dhRekeys; ++i) {
      phase(i == 1 ? "DH rekey" : fmt::format("DH rekey {}", i), paths, [&] { return dhRekey(); });
      result_.rekeyResident.push_back(residentBytes());
    }
    phase("DH rekey of all peers", paths, [&] {
      agent_->rekeyPeers();
      agent_->publishPeers();
      return agent_->live(seconds(190));
    });
    expectPaths(DynamicPathState::active);
    phase("merged data of all paths", paths, [&] {
      agent_->touchPaths();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    agent_->live(seconds(130));
    phase("new local key", paths, [&] {
      agent_->changeSettings();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    agent_->live(seconds(130));
    expectPaths(DynamicPathState::active);
    phase("remove paths", paths, [&] {
      agent_->removePaths();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    agent_->describePaths();
    phase("add paths to peers", paths, [&] {
      agent_->touchPaths();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    expectPaths(DynamicPathState::established);
    agent_->live(seconds(130));
    phase("remove peers", paths, [&] {
      agent_->withdrawPeers();
      agent_->scheduler().runFor(seconds(0));
      return 0.0;
    });
    check(agent_->machine().paths().totalPaths() == 0);
    return result_;
  }

 private:
  void measureFloors() {
    SharedSecretFloor secret(static_cast<DhGroupNum>(settings_.agent.group));
    result_.sharedSecretFloor = leastSeconds(100, [&] {
      for (int i = 0; i < 100; ++i) {
        secret.compute();
      }
    });
    PrfFloor prf(true);
    result_.prfFloor = leastSeconds(1000, [&] {
      for (int i = 0; i < 1000; ++i) {
        prf.compute();
      }
    });
    LookupFloor lookups(static_cast<uint32_t>(2 * result_.paths()));
    result_.lookupFloor = leastSeconds(lookups.count(), [&] { lookups.lookUpAll(); });
  }

  /// `work` returns the thread time that was not the machine's.
  void phase(const std::string& name, uint64_t operations, const std::function<double()>& work) {
    std::fprintf(stderr, "%u x %u: %s\n", result_.peers, result_.pathsPerPeer, name.c_str());
    agent_->scheduler().reset();
    const uint64_t startTicks = ticks();
    const uint64_t startCrypto = cryptoTicks();
    const double start = threadSeconds();
    const double others = work();
    const double total = threadSeconds() - start;
    const auto elapsed = static_cast<double>(ticks() - startTicks);
    const double own = total - others;

    Phase& made = result_.phases.emplace_back();
    put(made.name, name);
    made.operations = operations;
    made.seconds = own;
    // Elapsed time on both sides of the division: what else runs on the machine delays both alike.
    made.cryptoShare = static_cast<double>(cryptoTicks() - startCrypto) / (elapsed * (own / total));
    Durations all;
    for (const auto& [job, durations] : agent_->scheduler().jobs()) {
      all.add(durations);
      if (durations.max() > made.longest) {
        made.longest = durations.max();
        put(made.longestJob, job.substr(job.rfind(':') + 1));
      }
    }
    made.nearlyAll = all.quantile(0.999);
    made.residentBytes = residentBytes();
  }

  void noteSweeps() {
    for (const auto& [job, durations] : agent_->scheduler().jobs()) {
      Sweep& sweep = result_.sweeps.emplace_back();
      put(sweep.name, job.substr(job.rfind(':') + 1));
      sweep.runs = durations.count();
      sweep.seconds = durations.total();
      sweep.longest = durations.max();
    }
  }

  double dhRekey() {
    Ipsec::DhRekey& rekey = agent_->machine().dhRekey();
    const uint64_t before = agent_->host().ipsecLocalKeyDir->rekeyCounter();
    agent_->forceDhRekey();
    const auto done = [&] {
      return agent_->host().ipsecLocalKeyDir->rekeyCounter() == before + 1 &&
             rekey.dhRekeyState() == DhRekeyState::notRekeying;
    };
    double taken = 0;
    for (int i = 0; i < 60 && !done(); ++i) {
      taken += agent_->live(seconds(10));
    }
    check(done());
    // Two sanity passes: the old SAs are pruned, the new ones active.
    taken += agent_->live(seconds(130));
    expectPaths(DynamicPathState::active);
    return taken;
  }

  template <class Each>
  void forEachPath(const Each& each) {
    for (const auto& [address, peer] : agent_->host().ipsecStatus->ipsecPeerConnectionState()) {
      for (const auto& [key, path] : peer->pathConnState()) {
        each(*peer, *path);
      }
    }
  }

  /// Fills every log to its capacity.
  void fillLogs() {
    Ipsec::EventRecorder& events = agent_->machine().events();
    const uint32_t capacity = settings_.agent.maxEventRecord;
    forEachPath([&](const Ike::PeerConnectionState& peer, const Ike::PathConnState& path) {
      for (uint32_t i = 0; i < capacity; ++i) {
        events.recordPeerEvent("createPeerKeyInfo", peer.peerAddr());
        events.recordPathEvent("handlePath", path.connectionKey(), {});
        for (const auto& [key, saInfo] : path.pathConnSaInfo()) {
          events.recordSaEvent("handleSaInstalled", key, path.connectionKey());
        }
      }
    });
  }

  void expectPaths(DynamicPathState state) {
    uint64_t found = 0;
    forEachPath([&](const Ike::PeerConnectionState&, const Ike::PathConnState& path) {
      found += path.pathState() == state && path.pathConnSaInfo().size() == 2 ? 1 : 0;
    });
    if (found != result_.paths()) {
      std::fprintf(stderr, "%lu of %lu paths are %s with two SAs\n",
                   static_cast<unsigned long>(found), static_cast<unsigned long>(result_.paths()),
                   stringValue(state).c_str());
      check(false);
    }
  }

  /// That every path's SAs come from an SA rekey.
  void expectRekeyed() {
    uint64_t found = 0;
    forEachPath([&](const Ike::PeerConnectionState&, const Ike::PathConnState& path) {
      found += path.saCryptoInfo().size() == 1 ? 1 : 0;
    });
    check(found == result_.paths());
  }

  const PopulationSettings settings_;
  PopulationResult result_;
  std::optional<FabricatedAgent> agent_;
};

}  // namespace

PopulationResult runPopulation(const PopulationSettings& settings) {
  return Run(settings).play();
}

}  // namespace tessel::bench
