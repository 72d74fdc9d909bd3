#include "host/facility/Toggles.h"

#include <map>
#include <mutex>
#include <utility>

namespace tessel {
namespace {

std::atomic<uint64_t> generation{1};

struct Table {
  std::mutex mutex;
  std::map<std::pair<std::string, std::string>, bool> states;  // By file and name.
};

Table& table() {
  static Table& instance = *new Table;
  return instance;
}

}  // namespace

bool getToggleState(std::string_view name, std::string_view file, bool defaultState) {
  Table& all = table();
  const std::lock_guard lock(all.mutex);
  const auto found = all.states.find({std::string(file), std::string(name)});
  return found != all.states.end() ? found->second : defaultState;
}

void Toggles::toggleIs(std::string_view file, std::string_view name, bool state) {
  Table& all = table();
  const std::lock_guard lock(all.mutex);
  all.states[{std::string(file), std::string(name)}] = state;
}

void Toggles::reset() {
  Table& all = table();
  const std::lock_guard lock(all.mutex);
  all.states.clear();
  ++generation;
}

bool CachedToggle::isOn() const {
  const uint64_t current = generation.load(std::memory_order_acquire);
  const uint64_t cached = cached_.load(std::memory_order_relaxed);
  if (cached / 2 == current) {
    return (cached & 1) != 0;
  }
  const bool state = getToggleState(name_, file_, defaultState_);
  cached_.store(2 * current + (state ? 1 : 0), std::memory_order_relaxed);
  return state;
}

}  // namespace tessel
