// RunGuard: a loop that runs jobs is not run from within one of them.
#pragma once

#include <stdexcept>

namespace tessel {

/// Marks a loop as running while it lives. Throws std::logic_error when the loop runs already: an
/// inner run would break the promise that one job runs at a time, to its end.
class RunGuard {
 public:
  explicit RunGuard(bool& running) : running_(running) {
    if (running) {
      throw std::logic_error("a scheduler's loop cannot be run from within one of its jobs");
    }
    running_ = true;
  }
  ~RunGuard() { running_ = false; }
  RunGuard(const RunGuard&) = delete;
  RunGuard& operator=(const RunGuard&) = delete;

 private:
  bool& running_;
};

}  // namespace tessel
