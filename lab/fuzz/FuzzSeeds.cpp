#include "lab/fuzz/FuzzSeeds.h"

#include <array>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "lab/fuzz/FuzzRun.h"
#include "lab/fuzz/Shrink.h"
#include "lab/fuzz/Workers.h"
#include "lab/scenario/WriteScenario.h"

namespace tessel::lab {
namespace {

constexpr uint64_t kPlayedTwice = 20;  // One seed in so many.

// What is judged of a run as a whole.
constexpr const char* kEndsWell = "ends-well";
constexpr const char* kSameRun = "same-seed-same-run";

/// 1234567 as "1,234,567".
std::string grouped(uint64_t value) {
  if (value < 1000) {
    return fmt::format("{}", value);
  }
  return fmt::format("{},{:03}", grouped(value / 1000), value % 1000);
}

class Fuzz {
 public:
  Fuzz(const FuzzOptions& options, std::ostream& out, std::ostream& err)
      : options_(options), out_(out), err_(err) {}

  bool run() {
    std::vector<Play> plays;
    for (uint64_t seed = options_.from; seed < options_.from + options_.seeds; ++seed) {
      plays.push_back({.seed = seed});
      if (seed % kPlayedTwice == 0) {
        plays.push_back({.seed = seed, .again = true});
      }
    }
    std::vector<uint64_t> items(plays.size());
    std::iota(items.begin(), items.end(), 0);
    forEachInWorkers(
        items, options_.jobs,
        [&](uint64_t item) {
          if (plays[item].again) {
            shuffleHeap();
          }
          return outcomeText(playCase(drawCase(plays[item].seed, options_.range)));
        },
        [&](const WorkResult& result) { take(outcomeOf(plays[result.item].seed, result)); });
    if (options_.progress) {
      err_ << "\r\x1b[K" << std::flush;
    }
    report();
    return failed_ == 0;
  }

 private:
  struct Play {
    uint64_t seed = 0;
    bool again = false;  ///< To see whether it is the same.
  };

  void take(const FuzzOutcome& outcome) {
    const auto [first, added] = outcomes_.emplace(outcome.seed, outcome);
    if (!added) {
      ++playedTwice_;
    }
    if (!added && first->second.digest != outcome.digest) {
      first->second.violations.push_back({.invariant = kSameRun,
                                          .at = outcome.played,
                                          .where = "the run",
                                          .what = "played again it was another one"});
      reportFailure(first->second);
    } else if (added && !outcome.held()) {
      reportFailure(outcome);
    }
    if (options_.progress) {
      showProgress();
    }
  }

  static FuzzOutcome outcomeOf(uint64_t seed, const WorkResult& result) {
    if (result.failure.empty()) {
      return readOutcome(result.text);
    }
    FuzzOutcome outcome{.seed = seed};
    outcome.violations.push_back(
        {.invariant = kEndsWell, .at = {}, .where = "the lab", .what = result.failure});
    return outcome;
  }

  void showProgress() {
    FuzzOutcome sum = total();
    err_ << fmt::format(
                "\r\x1b[K{} of {} seeds, {:.0f} mesh-hours, {:.0f} x real time, {} packets, "
                "{} rekeys",
                outcomes_.size(), options_.seeds, sum.played.seconds() / 3600,
                sum.played.seconds() / elapsed(), grouped(sum.packets),
                grouped(sum.saRekeys + sum.dhRekeys))
         << std::flush;
  }

  FuzzOutcome total() const {
    FuzzOutcome sum;
    for (const auto& [seed, outcome] : outcomes_) {
      sum.played += outcome.played;
      sum.restAfter = std::max(sum.restAfter, outcome.restAfter);
      sum.restBound = std::max(sum.restBound, outcome.restBound);
      sum.packets += outcome.packets;
      sum.saRekeys += outcome.saRekeys;
      sum.dhRekeys += outcome.dhRekeys;
      for (size_t i = 0; i < kInvariants; ++i) {
        sum.evaluated[i] += outcome.evaluated[i];
      }
      sum.splitRoles += outcome.splitRoles;
      sum.refusedPaths += outcome.refusedPaths;
      sum.leftoverPaths += outcome.leftoverPaths;
      sum.routersNoKey += outcome.routersNoKey;
      for (size_t kind = 0; kind < kFaultKinds; ++kind) {
        sum.faults[kind] += outcome.faults[kind];
      }
    }
    return sum;
  }

  double elapsed() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun_).count();
  }

  void report() {
    for (const auto& [seed, outcome] : outcomes_) {
      if (!outcome.held() && ++failed_ == 1 && options_.shrink) {
        shrinkFailure(outcome);
      }
    }
    const FuzzOutcome sum = total();
    out_ << fmt::format("{} seeds from {}, {} to {} routers, {:.4g} h each\n", outcomes_.size(),
                        options_.from, options_.range.minRouters, options_.range.maxRouters,
                        options_.range.duration.seconds() / 3600);
    const auto line = [this](const char* name, const std::string& value) {
      out_ << fmt::format("  {:<16} {}\n", name, value);
    };
    double routerHours = 0;
    uint64_t digest = 0;
    for (const auto& [seed, outcome] : outcomes_) {
      routerHours += outcome.routers * outcome.played.seconds() / 3600;
      digest = digest * 31 + outcome.digest;
    }
    line("mesh-hours",
         fmt::format("{:.1f}; of routers {:.1f}", sum.played.seconds() / 3600, routerHours));
    line("packets", grouped(sum.packets));
    line("SA rekeys", grouped(sum.saRekeys));
    line("DH rekeys", grouped(sum.dhRekeys));
    line("faults", countsText(sum.faults, ": ",
                              [](size_t i) { return faultKindName(static_cast<FaultKind>(i)); }));
    line("invariants", countsText(sum.evaluated, " times: ", [](size_t i) {
           return invariantName(static_cast<Invariant>(i));
         }));
    line("rest", fmt::format("at most {:.0f} s after the last fault, of {:.0f} s that it may take",
                             sum.restAfter.seconds(), sum.restBound.seconds()));
    line("limits",
         fmt::format("{} pairs of routers with split roles, {} paths with a refused SA, {} with "
                     "an in-SA left over, {} routers without a key; see docs/limits.md",
                     sum.splitRoles, sum.refusedPaths, sum.leftoverPaths, sum.routersNoKey));
    line("digest", fmt::format("{:016x}; {} seeds played twice", digest, playedTwice_));
    out_ << (failed_ == 0 ? fmt::format("held: all {} seeds\n", outcomes_.size())
                          : fmt::format("failed: {} of {} seeds\n", failed_, outcomes_.size()));
    err_ << fmt::format("{:.0f} s, {:.0f} x real time\n", elapsed(),
                        sum.played.seconds() / elapsed());
  }

  /// The sum of all counts, with `behind` it, then each with its name.
  template <size_t n>
  static std::string countsText(const std::array<uint64_t, n>& counts, const char* behind,
                                const std::function<const char*(size_t)>& name) {
    uint64_t all = 0;
    std::string each;
    for (size_t i = 0; i < n; ++i) {
      all += counts[i];
      each += fmt::format("{}{} {}", i == 0 ? "" : ", ", name(i), grouped(counts[i]));
    }
    return grouped(all) + behind + each;
  }

  void reportFailure(const FuzzOutcome& outcome) {
    if (options_.progress) {
      err_ << "\r\x1b[K" << std::flush;
    }
    out_ << fmt::format("seed {} failed\n", outcome.seed);
    for (const Violation& violation : outcome.violations) {
      out_ << "  " << stringValue(violation) << "\n";
      for (const std::string& event : violation.events) {
        out_ << "    " << event << "\n";
      }
    }
    out_ << fmt::format(
        "  again: tessel-lab fuzz --seeds 1 --from {} --routers {}..{} --hours {}\n\n",
        outcome.seed, options_.range.minRouters, options_.range.maxRouters,
        options_.range.duration.seconds() / 3600);
    out_.flush();
  }

  void shrinkFailure(const FuzzOutcome& outcome) {
    const Violation& violation = outcome.violations.front();
    if (violation.invariant == kEndsWell || violation.invariant == kSameRun) {
      out_ << "  Not made small: that takes an invariant that one run can show.\n\n";
      return;
    }
    FuzzCase whole = drawCase(outcome.seed, options_.range);
    const size_t faults = whole.faults.size();
    uint64_t runs = 0;
    const auto failsAlike = [&](const FuzzCase& smaller) {
      if (options_.progress) {
        err_ << fmt::format("\r\x1b[Krun {}: {} of {} faults", ++runs, smaller.faults.size(),
                            faults)
             << std::flush;
      }
      bool fails = false;
      forEachInWorkers(
          std::vector{outcome.seed}, 1, [&](uint64_t) { return outcomeText(playCase(smaller)); },
          [&](const WorkResult& result) {
            const FuzzOutcome smallerOutcome = outcomeOf(outcome.seed, result);
            fails = !smallerOutcome.held() &&
                    smallerOutcome.violations.front().invariant == violation.invariant;
          });
      if (fails) {
        write(smaller, outcome);  // What there is when it is interrupted.
      }
      return fails;
    };
    if (FuzzCase cut = whole; cutShort(cut, violation.at) && failsAlike(cut)) {
      whole = std::move(cut);
    }
    const FuzzCase smallest = shrink(std::move(whole), failsAlike);
    out_ << fmt::format("  {} of its {} faults are enough: {}\n\n", smallest.faults.size(), faults,
                        write(smallest, outcome));
  }

  /// To a scenario file, whose name it returns.
  static std::string write(const FuzzCase& smaller, const FuzzOutcome& outcome) {
    Scenario scenario = smaller.scenario();
    scenario.description =
        fmt::format("Drawn, then made small: {}\n", stringValue(outcome.violations.front()));
    std::string file = fmt::format("seed-{}.yaml", outcome.seed);
    std::ofstream(file, std::ios::binary) << scenarioText(scenario);
    return file;
  }

  const FuzzOptions options_;
  std::ostream& out_;
  std::ostream& err_;
  const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
  std::map<uint64_t, FuzzOutcome> outcomes_;
  uint64_t playedTwice_ = 0;
  uint64_t failed_ = 0;
};

}  // namespace

bool runFuzz(const FuzzOptions& options, std::ostream& out, std::ostream& err) {
  return Fuzz(options, out, err).run();
}

}  // namespace tessel::lab
