// Keyed collections and change notification beside what they are measured against.
//   walk     KeyedCollection against a vector of the same (key, handle) pairs: at most 3 times
//   lookup   KeyedCollection against std::unordered_map with the same hash: at most the same
//   notify   a write that nobody observes, one that changes nothing, one that is observed
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "host/entity/KeyedCollection.h"
#include "host/model/Controller.h"
#include "host/model/IkeSa.h"
#include "host/model/Keys.h"

namespace tessel {
namespace {

using Sa = Ike::SecurityAssociation;

constexpr uint32_t kSeed = 11;

SecurityAssociationKey keyOf(uint32_t number) {
  return {.spi = number * 2654435761U,
          .daddr = IpGenAddr::fromV4(0x0A000000 + number),
          .proto = 50,
          .reqid = number,
          .family = 2};
}

/// Keys in an order that has nothing to do with that of insertion.
std::vector<SecurityAssociationKey> shuffledKeys(uint32_t count) {
  std::vector<SecurityAssociationKey> keys;
  for (uint32_t i = 0; i < count; ++i) {
    keys.push_back(keyOf(static_cast<uint32_t>(uint64_t{i} * 7919 % count)));
  }
  return keys;
}

template <class Members>
void walk(benchmark::State& state, const Members& members) {
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const auto& [key, handle] : members) {
      sum += key.spi + reinterpret_cast<uintptr_t>(handle.get());
    }
    benchmark::DoNotOptimize(sum);
    benchmark::ClobberMemory();  // Or the next round would be this one's result.
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_WalkCollection(benchmark::State& state) {
  KeyedCollection<SecurityAssociationKey, Ptr<Entity>> members;
  const Ptr<Entity> handle = makePtr<Controller::Status>();
  for (uint32_t i = 0; i < state.range(0); ++i) {
    members.emplace(keyOf(i), handle);
  }
  walk(state, members);
}
void BM_WalkVector(benchmark::State& state) {
  std::vector<std::pair<SecurityAssociationKey, Ptr<Entity>>> members;
  const Ptr<Entity> handle = makePtr<Controller::Status>();
  for (uint32_t i = 0; i < state.range(0); ++i) {
    members.emplace_back(keyOf(i), handle);
  }
  walk(state, members);
}
BENCHMARK(BM_WalkCollection)->Arg(1000)->Arg(1000000);
BENCHMARK(BM_WalkVector)->Arg(1000)->Arg(1000000);

struct SameHash {
  size_t operator()(const SecurityAssociationKey& key) const { return hashValue(key, kSeed); }
};

void BM_LookUpInCollection(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  KeyedCollection<SecurityAssociationKey, uint64_t> members;
  for (uint32_t i = 0; i < count; ++i) {
    members.emplace(keyOf(i), i);
  }
  const std::vector<SecurityAssociationKey> keys = shuffledKeys(count);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const SecurityAssociationKey& key : keys) {
      sum += *members.find(key);
    }
    benchmark::DoNotOptimize(sum);
    benchmark::ClobberMemory();  // Or the next round would be this one's result.
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
void BM_LookUpInUnorderedMap(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  std::unordered_map<SecurityAssociationKey, uint64_t, SameHash> members;
  for (uint32_t i = 0; i < count; ++i) {
    members.emplace(keyOf(i), i);
  }
  const std::vector<SecurityAssociationKey> keys = shuffledKeys(count);
  for (auto _ : state) {
    uint64_t sum = 0;
    for (const SecurityAssociationKey& key : keys) {
      sum += members.find(key)->second;
    }
    benchmark::DoNotOptimize(sum);
    benchmark::ClobberMemory();  // Or the next round would be this one's result.
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_LookUpInCollection)->Arg(6)->Arg(1000)->Arg(100000)->Arg(1000000);
BENCHMARK(BM_LookUpInUnorderedMap)->Arg(6)->Arg(1000)->Arg(100000)->Arg(1000000);

class Counter {
 public:
  explicit Counter(const Entity& entity) { subscription_.attach<&Counter::handle>(entity, *this); }
  uint64_t seen() const { return seen_; }

 private:
  void handle(const Change&) { ++seen_; }

  uint64_t seen_ = 0;
  Subscription subscription_;
};

/// Writes of an attribute with `range(0)` observers.
void BM_Notify(benchmark::State& state) {
  const auto sa = makePtr<Sa>(keyOf(1));
  std::vector<std::unique_ptr<Counter>> observers;
  for (int64_t i = 0; i < state.range(0); ++i) {
    observers.push_back(std::make_unique<Counter>(*sa));
  }
  uint32_t value = 0;
  for (auto _ : state) {
    sa->pathIndexIs(++value);
    benchmark::ClobberMemory();
  }
  for (const auto& observer : observers) {
    if (observer->seen() != static_cast<uint64_t>(state.iterations())) {
      state.SkipWithError("an observer missed a change");
    }
  }
}
BENCHMARK(BM_Notify)->Arg(0)->Arg(1)->Arg(4);

void BM_EqualWrite(benchmark::State& state) {
  const auto sa = makePtr<Sa>(keyOf(1));
  const Counter observer(*sa);
  for (auto _ : state) {
    sa->pathIndexIs(0);
    benchmark::ClobberMemory();
  }
  if (observer.seen() != 0) {
    state.SkipWithError("an equal write was told of");
  }
}
BENCHMARK(BM_EqualWrite);

}  // namespace
}  // namespace tessel
