// What the engine does, each beside its floor, which is measured in turn with it.
//
// A benchmark here takes a batch of operations per round, and does what lies between them (the
// peers' and the data path's part) with the clock stopped. Time is this thread's processor time.
// Counters: `us` per operation, `floor_us`, and `ratio` of the two.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/agent/FabricatedAgent.h"
#include "bench/agent/Floors.h"
#include "host/facility/Trace.h"
#include "sm/EventRecorder.h"
#include "sm/PathHealth.h"
#include "sm/Paths.h"
#include "sm/PeerRecovery.h"
#include "sm/PeriodicLog.h"
#include "sm/SaRekey.h"
#include "sm/SecurityAssociations.h"
#include "sm/WorkQueue.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::bench {
namespace {

/// Adds up the time of several stretches of work.
class Watch {
 public:
  void run(const std::function<void()>& work) {
    const double start = threadSeconds();
    work();
    seconds_ += threadSeconds() - start;
  }
  double seconds() const { return seconds_; }

 private:
  double seconds_ = 0;
};

/// Runs rounds: `operate` does a batch of `operations`, and `floor` as many of the floor.
void measure(benchmark::State& state, uint64_t operations,
             const std::function<void(Watch&)>& operate,
             const std::function<void()>& floor = nullptr) {
  double total = 0;
  double floorTotal = 0;
  for (auto _ : state) {
    Watch watch;
    operate(watch);
    total += watch.seconds();
    state.SetIterationTime(watch.seconds());
    if (floor) {
      Watch floorWatch;
      floorWatch.run(floor);
      floorTotal += floorWatch.seconds();
    }
  }
  const double count = static_cast<double>(operations) * static_cast<double>(state.iterations());
  state.counters["us"] = total / count * 1e6;
  if (floor) {
    state.counters["floor_us"] = floorTotal / count * 1e6;
    state.counters["ratio"] = total / floorTotal;
  }
}

template <class Floor>
std::function<void()> times(uint64_t count, Floor& floor) {
  return [count, &floor] {
    for (uint64_t i = 0; i < count; ++i) {
      floor.compute();
    }
  };
}

std::vector<Ptr<Ike::PathConnState>> pathsOf(const FabricatedAgent& agent) {
  std::vector<Ptr<Ike::PathConnState>> paths;
  for (const auto& [address, peer] : agent.host().ipsecStatus->ipsecPeerConnectionState()) {
    for (const auto& [key, path] : peer->pathConnState()) {
      paths.push_back(path);
    }
  }
  return paths;
}

/// Sanity passes with traffic before each, until whatever was rekeyed is pruned and active. No time
/// passes.
void settle(FabricatedAgent& agent) {
  for (int pass = 0; pass < 3; ++pass) {
    agent.serveDataPath();
    agent.carryTraffic(1);
    agent.machine().pathHealth().sanitizeAllPaths();
    agent.scheduler().runFor(seconds(0));
  }
  agent.serveDataPath();
  for (const Ptr<Ike::PathConnState>& path : pathsOf(agent)) {
    check(path->pathState() == DynamicPathState::active && path->pathConnSaInfo().size() == 2);
  }
}

/// An agent with all paths active.
std::unique_ptr<FabricatedAgent> activeAgent(const AgentSettings& settings) {
  auto agent = std::make_unique<FabricatedAgent>(settings);
  agent->describePaths();
  agent->touchPaths();
  agent->publishPeers();
  agent->scheduler().runFor(seconds(0));
  settle(*agent);
  return agent;
}

constexpr uint32_t kBatch = 200;

// Exchanges.

/// A peer's first record, to two SAs on its one path: validation, derivation, events.
void firstExchange(benchmark::State& state) {
  FabricatedAgent agent(
      {.peers = kBatch, .pathsPerPeer = 1, .group = static_cast<IpsecDhGroup>(state.range(0))});
  agent.describePaths();
  SharedSecretFloor floor(static_cast<DhGroupNum>(state.range(0)));
  measure(
      state, kBatch,
      [&](Watch& watch) {
        watch.run([&] {
          agent.publishPeers();
          agent.scheduler().runFor(seconds(0));
        });
        check(agent.host().tesselV1->sa().size() == size_t{2} * kBatch);
        agent.withdrawPeers();
        agent.scheduler().runFor(seconds(0));
        agent.serveDataPath();
      },
      times(kBatch, floor));
}
BENCHMARK(firstExchange)->Arg(19)->Arg(14)->UseManualTime()->Unit(benchmark::kMillisecond);

/// A peer's next record, to the new in-SA on its one path: derivation for the pair of generations.
void dhRekey(benchmark::State& state) {
  const auto agent = activeAgent(
      {.peers = kBatch, .pathsPerPeer = 1, .group = static_cast<IpsecDhGroup>(state.range(0))});
  SharedSecretFloor floor(static_cast<DhGroupNum>(state.range(0)));
  measure(
      state, kBatch,
      [&](Watch& watch) {
        agent->rekeyPeers();
        watch.run([&] {
          agent->publishPeers();
          agent->scheduler().runFor(seconds(0));
        });
        check(agent->host().tesselV1->sa().size() == size_t{3} * kBatch);
        agent->live(seconds(190));
        check(agent->host().tesselV1->sa().size() == size_t{2} * kBatch);
      },
      times(kBatch, floor));
}
BENCHMARK(dhRekey)->Arg(19)->Arg(14)->UseManualTime()->Unit(benchmark::kMillisecond);

/// One side's work in an SA rekey, step by step, for all of `paths` at once.
class SaRekeyRound {
 public:
  SaRekeyRound(FabricatedAgent& agent, std::vector<Ptr<Ike::PathConnState>> paths)
      : agent_(agent), paths_(std::move(paths)) {}

  void initiate(Watch& watch) {
    const auto out = sasOf(SaType::steadyOut);
    const auto in = sasOf(SaType::steadyIn);
    watch.run([&] {
      for (const auto& sa : out) {
        sa->softExpireIs(true);
        process(*sa);
      }
    });
    putNonces(in, NonceType::responder);
    watch.run([&] { processAll(in); });
    installAndProcess(watch, SaType::saRekeyIn);
    installAndProcess(watch, SaType::saRekeyOut);
    finish();
  }

  void respond(Watch& watch) {
    const auto in = sasOf(SaType::steadyIn);
    putNonces(in, NonceType::initiator);
    watch.run([&] { processAll(in); });
    const auto fresh = installAndProcess(watch, SaType::saRekeyIn);
    for (const auto& sa : fresh) {
      ++counters(*sa).pkts;
    }
    watch.run([&] { processAll(fresh); });
    installAndProcess(watch, SaType::saRekeyOut);
    finish();
  }

 private:
  using Sas = std::vector<Ptr<Ike::SecurityAssociation>>;

  Sas sasOf(SaType type) const {
    Sas sas;
    for (const auto& path : paths_) {
      const Ptr<Ipsec::RekeySm>& rekeySm = agent_.machine().paths().rekeySm(path->connectionKey());
      sas.push_back(rekeySm->getSaFromType(type));
      check(sas.back() != nullptr);
    }
    return sas;
  }
  IpsecCounters::IpsecSACounterEntry& counters(const Ike::SecurityAssociation& sa) {
    return agent_.host().ipsecCounterTable->saCounterEntryIs(sa.sakey());
  }
  void putNonces(const Sas& sas, NonceType type) {
    for (const auto& sa : sas) {
      counters(*sa).nonceWord = Ipsec::nonceWord(type, (sa->sakey().spi ^ ++nonce_) | 1U);
    }
  }
  void process(const Ike::SecurityAssociation& sa) {
    agent_.machine().saRekey().saBacklogProcessElem(sa.sakey());
  }
  void processAll(const Sas& sas) {
    for (const auto& sa : sas) {
      process(*sa);
    }
  }
  Sas installAndProcess(Watch& watch, SaType type) {
    Sas sas = sasOf(type);
    agent_.serveDataPath();
    watch.run([&] { processAll(sas); });
    return sas;
  }
  void finish() {
    for (const auto& path : paths_) {
      check(path->saSmState() == SmState::idle && path->pathConnSaInfo().size() == 4);
    }
  }

  FabricatedAgent& agent_;
  const std::vector<Ptr<Ike::PathConnState>> paths_;
  uint32_t nonce_ = 0;
};

/// An SA rekey of one path on one side, from the nonce to steady SAs; 0 initiates, 1 responds.
void saRekey(benchmark::State& state) {
  const auto agent = activeAgent({.peers = kBatch, .pathsPerPeer = 1});
  SaRekeyRound round(*agent, pathsOf(*agent));
  PrfFloor floor(true);
  measure(
      state, kBatch,
      [&](Watch& watch) {
        if (state.range(0) == 0) {
          round.initiate(watch);
        } else {
          round.respond(watch);
        }
        settle(*agent);
      },
      times(kBatch, floor));
}
BENCHMARK(saRekey)
    ->ArgName("responder")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// Two SAs of one path, made and deleted; 1 measures the deletion.
void saCreationAndDeletion(benchmark::State& state) {
  const auto agent = activeAgent({.peers = kBatch, .pathsPerPeer = 1});
  const auto paths = pathsOf(*agent);
  const bool deletion = state.range(0) != 0;
  Ipsec::SecurityAssociations& sas = agent->machine().securityAssociations();
  PrfFloor floor(true);
  measure(
      state, kBatch,
      [&](Watch& watch) {
        Watch ignored;
        (deletion ? watch : ignored).run([&] {
          for (const auto& path : paths) {
            sas.doDeleteIpsecControllerSAs(path);
          }
        });
        check(agent->host().tesselV1->sa().empty());
        (deletion ? ignored : watch).run([&] {
          for (const auto& path : paths) {
            sas.doCreateIpsecControllerSAs(path->connectionKey(), {}, "overlay", 0,
                                           SaType::steadyPair);
          }
        });
        check(agent->host().tesselV1->sa().size() == size_t{2} * kBatch);
        agent->serveDataPath();
      },
      times(kBatch, floor));
}
BENCHMARK(saCreationAndDeletion)
    ->ArgName("deletion")
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Sweeps, over 100,000 paths with 200,000 SAs. Aged: every path's SAs were rekeyed in an order that
// has nothing to do with that of the paths, and then the tables have no order in common.

constexpr uint32_t kSweepPeers = 10000;
constexpr uint32_t kSweepSas = 200000;

FabricatedAgent& sweepAgent(bool aged) {
  static std::unique_ptr<FabricatedAgent> agent;
  static bool isAged = false;
  if (!agent || isAged != aged) {
    agent = nullptr;
    agent = activeAgent({.peers = kSweepPeers, .pathsPerPeer = 10});
    if (aged) {
      auto paths = pathsOf(*agent);
      std::shuffle(paths.begin(), paths.end(), std::mt19937(7));
      Watch ignored;
      SaRekeyRound(*agent, paths).initiate(ignored);
      settle(*agent);
    }
    isAged = aged;
  }
  check(agent->host().tesselV1->sa().size() == kSweepSas);
  return *agent;
}

LookupFloor& sweepFloor() {
  static LookupFloor floor(kSweepSas);
  return floor;
}

/// One round of a sweep that traffic has preceded, per SA, beside a lookup.
void sweep(benchmark::State& state, const std::function<void(FabricatedAgent&)>& run) {
  FabricatedAgent& agent = sweepAgent(state.range(0) != 0);
  LookupFloor& floor = sweepFloor();
  measure(
      state, kSweepSas,
      [&](Watch& watch) {
        agent.carryTraffic(1);
        agent.scheduler().runFor(seconds(0));
        watch.run([&] { run(agent); });
      },
      [&] { floor.lookUpAll(); });
}

void sweepForSaRekeys(benchmark::State& state) {
  sweep(state, [](FabricatedAgent& agent) {
    agent.machine().saRekey().handleSaRekeyTimer();
    agent.machine().saRekey().handleUpdateRekeyTimer();
    agent.scheduler().runFor(seconds(0));
  });
}
void sweepSaRekeyTimer(benchmark::State& state) {
  sweep(state, [](FabricatedAgent& agent) { agent.machine().saRekey().handleSaRekeyTimer(); });
}
void sweepUpdateTimer(benchmark::State& state) {
  sweep(state, [](FabricatedAgent& agent) { agent.machine().saRekey().handleUpdateRekeyTimer(); });
}
void sweepSanity(benchmark::State& state) {
  sweep(state, [](FabricatedAgent& agent) {
    agent.machine().pathHealth().sanitizeAllPaths();
    agent.machine().peerRecovery().recoverPeers();
    agent.machine().securityAssociations().deleteOldCryptoInfos();
    agent.scheduler().runFor(seconds(0));
  });
}
void sweepLog(benchmark::State& state) {
  sweep(state, [](FabricatedAgent& agent) { agent.machine().periodicLog().handleLogTimer(); });
}

#define TESSEL_SWEEP(aged)                                                                  \
  BENCHMARK(sweepForSaRekeys)->ArgName("aged")->Arg(aged)->UseManualTime()->Iterations(5);  \
  BENCHMARK(sweepSaRekeyTimer)->ArgName("aged")->Arg(aged)->UseManualTime()->Iterations(5); \
  BENCHMARK(sweepUpdateTimer)->ArgName("aged")->Arg(aged)->UseManualTime()->Iterations(5);  \
  BENCHMARK(sweepSanity)->ArgName("aged")->Arg(aged)->UseManualTime()->Iterations(5);       \
  BENCHMARK(sweepLog)->ArgName("aged")->Arg(aged)->UseManualTime()->Iterations(5)
TESSEL_SWEEP(0);
TESSEL_SWEEP(1);

// Events, queues, traces.

enum class Event : uint8_t { peer, path, sa };

void recordEvent(benchmark::State& state) {
  const auto agent = activeAgent({.peers = kBatch, .pathsPerPeer = 1});
  const auto kind = static_cast<Event>(state.range(0));
  std::vector<std::pair<ConnectionKey, SecurityAssociationKey>> keys;
  for (const auto& path : pathsOf(*agent)) {
    keys.emplace_back(path->connectionKey(), (*path->pathConnSaInfo().begin()).key);
  }
  const IpGenAddr peer = agent->peerAddress(0);
  Ipsec::EventRecorder& events = agent->machine().events();
  measure(state, keys.size(), [&](Watch& watch) {
    watch.run([&] {
      for (const auto& [path, sa] : keys) {
        switch (kind) {
          case Event::peer:
            events.recordPeerEvent("createPeerKeyInfo", peer);
            break;
          case Event::path:
            events.recordPathEvent("handlePath", path, {});
            break;
          case Event::sa:
            events.recordSaEvent("handleSaInstalled", sa, path);
            break;
        }
      }
    });
  });
}
BENCHMARK(recordEvent)->ArgName("kind")->Arg(0)->Arg(1)->Arg(2)->UseManualTime();

/// Keys added to a queue and drained by its task, with nothing done about them.
void drainQueue(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  const auto scheduler = makePtr<BenchScheduler>();
  const auto task = makePtr<Task>(scheduler, 3, "task");
  Ipsec::WorkQueue<SecurityAssociationKey> queue;
  uint64_t done = 0;
  task->handlerIs([&] { queue.drain(*task, [&](const SecurityAssociationKey&) { ++done; }); });
  measure(state, count, [&](Watch& watch) {
    watch.run([&] {
      for (uint32_t i = 0; i < count; ++i) {
        queue.add({.spi = i * 2654435761U, .daddr = {}, .proto = 50, .reqid = i, .family = 2});
      }
      task->scheduleTask();
      scheduler->runFor(seconds(0));
    });
    check(queue.empty());
  });
  check(done == uint64_t{count} * static_cast<uint64_t>(state.iterations()));
}
BENCHMARK(drainQueue)->Arg(1000)->Arg(200000)->UseManualTime();

class CountingSink final : public TraceSink {
 public:
  explicit CountingSink(bool on) { Trace::sinkIs(on ? this : nullptr); }
  ~CountingSink() override { Trace::sinkIs(nullptr); }
  uint64_t lines() const { return lines_; }

 private:
  void trace(const TraceLine& line) override {
    ++lines_;
    benchmark::DoNotOptimize(line.text.data());
  }
  uint64_t lines_ = 0;
};

/// A sanity pass over active paths; with the trace on, `us_per_line` is what a line adds.
void trace(benchmark::State& state) {
  const auto agent = activeAgent({.peers = kBatch, .pathsPerPeer = 1});
  const auto paths = pathsOf(*agent);
  const auto pass = [&] {
    for (const auto& path : paths) {
      agent->machine().pathHealth().sanitizePath(path->connectionKey());
    }
  };
  Watch off;
  uint64_t lines = 0;
  measure(state, kBatch, [&](Watch& watch) {
    agent->carryTraffic(1);
    off.run(pass);
    agent->carryTraffic(1);
    CountingSink sink(state.range(0) != 0);
    watch.run(pass);
    lines += sink.lines();
  });
  if (lines > 0) {
    const double total =
        state.counters["us"] * 1e-6 * kBatch * static_cast<double>(state.iterations());
    state.counters["lines"] =
        static_cast<double>(lines) / static_cast<double>(state.iterations()) / kBatch;
    state.counters["us_per_line"] = (total - off.seconds()) / static_cast<double>(lines) * 1e6;
  }
}
BENCHMARK(trace)->ArgName("on")->Arg(0)->Arg(1)->UseManualTime();

/// A trace line that is off, with arguments that would be dear: per line.
void traceOff(benchmark::State& state) {
  const ConnectionKey key;
  for (auto _ : state) {
    TRACE("connection not Established or connected yet", key);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(traceOff);

}  // namespace
}  // namespace tessel::bench
