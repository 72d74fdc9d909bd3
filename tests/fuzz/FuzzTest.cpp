// Drawn runs: what a seed stands for, that what goes wrong in one is found, and that it can be made
// small and written down.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include <gtest/gtest.h>

#include "lab/fuzz/FuzzRun.h"
#include "lab/fuzz/Shrink.h"
#include "lab/fuzz/Workers.h"
#include "lab/scenario/LoadScenario.h"
#include "lab/scenario/WriteScenario.h"

namespace tessel::lab {
namespace {

/// Two routers, one path, as much time as a run needs.
FuzzCase smallCase(uint64_t seed = 7) {
  return drawCase(seed, {.minRouters = 2, .maxRouters = 2, .duration = kShortestFuzzRun});
}

/// A small case without faults, whose links keep their packets.
FuzzCase calmCase() {
  FuzzCase calm = smallCase();
  calm.faults.clear();
  return calm;
}

Fault faultAt(Duration at, Action action) {
  return {.kind = FaultKind::twoWayCut, .begin = {.at = at, .action = std::move(action)}};
}

TEST(Fuzz, ASeedIsARun) {
  const FuzzOutcome first = playCase(smallCase());
  EXPECT_EQ(playCase(smallCase()).digest, first.digest);
  EXPECT_NE(playCase(smallCase(8)).digest, first.digest);
  EXPECT_TRUE(first.held());
  EXPECT_GT(first.packets, 0U);
  const FuzzOutcome read = readOutcome(outcomeText(first));
  EXPECT_EQ(read.digest, first.digest);
  EXPECT_EQ(read.faults, first.faults);
}

TEST(Fuzz, DrawsEveryKindOfFaultAndEndsThemInTime) {
  std::set<FaultKind> seen;
  for (uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    const FuzzCase drawn = drawCase(seed, {});
    for (const Fault& fault : drawn.faults) {
      seen.insert(fault.kind);
      EXPECT_GE(fault.begin.at, seconds(60));
      EXPECT_LE(fault.end.value_or(fault.begin).at, drawn.faultsEnd);
    }
    const LoadedScenario read = readScenario(scenarioText(drawn.scenario()));
    ASSERT_TRUE(read.errors.empty()) << stringValue(read.errors.front());
    EXPECT_EQ(scenarioText(read.scenario), scenarioText(drawn.scenario()));
  }
  EXPECT_EQ(seen.size(), kFaultKinds);
}

TEST(Fuzz, FindsAPathThatStaysDownAndAPacketThatIsLostAtRest) {
  const FuzzCase calm = calmCase();
  const std::string path = calm.mesh.paths.front().name;
  EXPECT_TRUE(playCase(calm).held());

  FuzzCase down = calm;
  down.faults.push_back(faultAt(seconds(100), CutLink{.path = path}));
  const FuzzOutcome stays = playCase(down);
  ASSERT_EQ(stays.violations.size(), 1U);
  EXPECT_EQ(stays.violations.front().invariant, "comes-to-rest");
  EXPECT_TRUE(stays.violations.front().where.ends_with("path " + path));
  EXPECT_FALSE(stays.violations.front().events.empty());

  FuzzCase lossy = calm;
  const Duration late = calm.mesh.duration - seconds(600);
  lossy.faults.push_back(faultAt(late, CutLink{.path = path}));
  lossy.faults.push_back(faultAt(late + seconds(60), RestoreLink{.path = path}));
  const FuzzOutcome loses = playCase(lossy);
  ASSERT_FALSE(loses.held());
  EXPECT_EQ(loses.violations.front().invariant, "rest-loses-nothing");
}

TEST(Shrink, KeepsExactlyTheFaultsThatItTakes) {
  const FuzzCase whole = drawCase(3, {});
  ASSERT_GT(whole.faults.size(), 100U);
  const Duration one = whole.faults[11].begin.at;
  const Duration other = whole.faults[90].begin.at;
  uint64_t asked = 0;
  const FuzzCase smallest = shrink(whole, [&](const FuzzCase& smaller) {
    ++asked;
    const auto has = [&](Duration at) {
      return std::ranges::any_of(smaller.faults,
                                 [&](const Fault& fault) { return fault.begin.at == at; });
    };
    return has(one) && has(other);
  });
  ASSERT_EQ(smallest.faults.size(), 2U);
  EXPECT_EQ(smallest.faults[0].begin.at, one);
  EXPECT_EQ(smallest.faults[1].begin.at, other);
  EXPECT_LT(asked, 200U);
}

TEST(Shrink, EndsACaseSoonAfterItsFailure) {
  FuzzCase drawn = smallCase();
  const Duration failed = drawn.faults[drawn.faults.size() / 3].begin.at;
  ASSERT_TRUE(cutShort(drawn, failed));
  ASSERT_FALSE(drawn.faults.empty());
  for (const Fault& fault : drawn.faults) {
    EXPECT_LE(fault.begin.at, failed);
    EXPECT_TRUE(!fault.end || fault.end->at <= failed + seconds(600));
  }
  const FuzzOutcome outcome = playCase(drawn);
  EXPECT_EQ(outcome.played, failed + seconds(600));
  EXPECT_TRUE(outcome.held()) << "no time to rest is no failure";
  // One that fails in its quiet part stays whole.
  const FuzzCase whole = smallCase();
  FuzzCase late = smallCase();
  EXPECT_FALSE(cutShort(late, late.faultsEnd));
  EXPECT_EQ(scenarioText(late.scenario()), scenarioText(whole.scenario()));
}

/// Which of blocks allocated one after another lie behind the one before.
std::string addressOrder() {
  std::array<std::unique_ptr<std::byte[]>, 64> blocks;
  std::string order;
  for (size_t i = 0; i < blocks.size(); ++i) {
    blocks[i] = std::make_unique<std::byte[]>(100);
    order += i > 0 && std::less<>()(blocks[i - 1].get(), blocks[i].get()) ? '>' : '<';
  }
  return order;
}

TEST(Workers, AShuffledHeapOrdersAllocationsInAnotherWay) {
  std::map<uint64_t, std::string> orders;
  forEachInWorkers(
      std::vector<uint64_t>{0, 1, 2}, 1,
      [](uint64_t item) {
        if (item == 2) {
          shuffleHeap();
        }
        return addressOrder();
      },
      [&](const WorkResult& result) { orders[result.item] = result.text; });
  EXPECT_EQ(orders[0], orders[1]) << "copies of one process";
  EXPECT_NE(orders[0], orders[2]);
}

TEST(Workers, TellWorkThatReturnsFromWorkThatDoesNot) {
  std::map<uint64_t, WorkResult> results;
  const std::vector<uint64_t> items{1, 2, 3, 4, 5};
  forEachInWorkers(
      items, 2,
      [](uint64_t item) -> std::string {
        if (item == 2) {
          throw std::runtime_error("no two");
        }
        if (item == 3) {
          std::abort();
        }
        return std::string(item * 100'000, 'x');
      },
      [&](const WorkResult& result) { results[result.item] = result; });
  ASSERT_EQ(results.size(), 5U);
  EXPECT_EQ(results[1].text.size(), 100'000U);
  EXPECT_EQ(results[5].text.size(), 500'000U);
  EXPECT_EQ(results[5].failure, "");
  EXPECT_EQ(results[2].failure, "exit status 3: no two");
  EXPECT_EQ(results[3].failure, "signal 6");
}

}  // namespace
}  // namespace tessel::lab
