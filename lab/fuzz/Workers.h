// Workers: independent pieces of work, each in a process of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace tessel::lab {

/// What a piece of work came to.
struct WorkResult {
  uint64_t item = 0;
  /// What the work returned, when it did.
  std::string text{};
  /// Why it did not return: "exit status 3", "signal 6"; empty when it did.
  std::string failure{};
};

/// Calls `work` for every item, in up to `jobs` processes at a time, which are copies of this one
/// and end with the work: nothing that it leaves behind or breaks reaches another piece. Calls
/// `done` in this process with each result as it comes. An exception in `work` is a failure.
/// Throws std::system_error when no process can be made.
void forEachInWorkers(std::span<const uint64_t> items, unsigned jobs,
                      const std::function<std::string(uint64_t)>& work,
                      const std::function<void(const WorkResult&)>& done);

/// Has later allocations come from other addresses and in another order than they would have, for
/// the rest of the process: what wrongly depends on addresses then comes out differently.
void shuffleHeap();

}  // namespace tessel::lab
