// FuzzInput: the bytes that a fuzzer makes up, read as the choices that a target has to make; and
// what a target does when something does not hold.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <span>

#include "host/model/Bytes.h"

namespace tessel::fuzz {

/// Reads from the front; behind the end everything is 0, so that every input means something.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : left_(data, size) {}

  bool empty() const { return left_.empty(); }
  uint8_t byte() {
    if (left_.empty()) {
      return 0;
    }
    const uint8_t first = left_.front();
    left_ = left_.subspan(1);
    return first;
  }
  bool flag() { return (byte() & 1U) != 0; }
  /// A number below `end`, which is at most 256.
  uint32_t below(uint32_t end) { return byte() % end; }
  /// Least significant byte first.
  uint64_t number(size_t bytes = 8) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) {
      value |= static_cast<uint64_t>(byte()) << (8 * i);
    }
    return value;
  }
  template <class T>
  T oneOf(std::initializer_list<T> values) {
    return *(values.begin() + byte() % values.size());
  }
  /// As many bytes as a first one says, or as there are.
  Bytes bytes() {
    const size_t size = std::min<size_t>(byte(), left_.size());
    Bytes taken(left_.begin(), left_.begin() + static_cast<std::ptrdiff_t>(size));
    left_ = left_.subspan(size);
    return taken;
  }

 private:
  std::span<const uint8_t> left_;
};

/// Ends the run when something does not hold, which makes the fuzzer keep the input.
#define FUZZ_CHECK(condition, what)                                               \
  do {                                                                            \
    if (!(condition)) {                                                           \
      std::fprintf(stderr, "%s:%d: does not hold: %s (%s)\n", __FILE__, __LINE__, \
                   std::string(what).c_str(), #condition);                        \
      std::abort();                                                               \
    }                                                                             \
  } while (false)

}  // namespace tessel::fuzz
