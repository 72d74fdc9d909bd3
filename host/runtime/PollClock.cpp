#include "host/runtime/PollClock.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <system_error>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace tessel {
namespace {

/// Longest single wait: keeps every finite time within the range of milliseconds.
constexpr double longestPollSeconds = 3600.0;

int checked(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return result;
}

/// Rounded up: a wait that ends early would be followed by many short ones.
int milliseconds(Duration span) {
  return static_cast<int>(std::ceil(std::clamp(span.seconds(), 0.0, longestPollSeconds) * 1000.0));
}

}  // namespace

PollClock::PollClock()
    : wakeDescriptor_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {}

PollClock::~PollClock() {
  close(wakeDescriptor_);
}

void PollClock::poll(Duration longest) {
  std::vector<pollfd> polled{{.fd = wakeDescriptor_, .events = POLLIN, .revents = 0}};
  for (const auto& [descriptor, handler] : handlers_) {
    polled.push_back({.fd = descriptor, .events = POLLIN, .revents = 0});
  }
  const int ready = ::poll(polled.data(), polled.size(), milliseconds(longest));
  if (ready < 0 && errno == EINTR) {
    return;
  }
  checked(ready, "poll");
  // A wake is for the next wait: one that serves in passing leaves it there.
  if (polled.front().revents != 0 && longest > Duration()) {
    uint64_t wakes = 0;
    [[maybe_unused]] const ssize_t emptied = read(wakeDescriptor_, &wakes, sizeof wakes);
  }
  for (auto each = polled.begin() + 1; each != polled.end(); ++each) {
    if (each->revents == 0) {
      continue;
    }
    const auto* const found = handlers_.find(each->fd);
    if (found == nullptr) {
      continue;  // An earlier one took it away.
    }
    const auto handler = *found;
    (*handler)();
  }
}

void PollClock::wake() {
  // It fails only when the count is at its limit, and the loop is woken all the same.
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wakeDescriptor_, &one, sizeof one);
}

void PollClock::readableIs(int descriptor, std::function<void()> handler) {
  handlers_.emplace(descriptor).first =
      std::make_shared<const std::function<void()>>(std::move(handler));
}

}  // namespace tessel
