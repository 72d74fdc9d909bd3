// Byte strings: plain ones, and secret ones that are wiped when their memory is released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "host/facility/Export.h"

namespace tessel {

/// A byte string whose content is no secret: public keys, published nonces, packets.
using Bytes = std::vector<uint8_t>;

/// Read-only view of bytes.
using BytesView = std::span<const uint8_t>;

/// Overwrites `size` bytes at `memory` with zeros in a way that the compiler does not remove.
TESSEL_API void wipeMemory(void* memory, size_t size) noexcept;

/// Allocator that wipes what it takes back.
template <class T>
struct TESSEL_API WipingAllocator {
  using value_type = T;
  WipingAllocator() = default;
  template <class U>
  WipingAllocator(const WipingAllocator<U>&) noexcept {}
  T* allocate(size_t n) { return std::allocator<T>().allocate(n); }
  void deallocate(T* memory, size_t n) noexcept {
    wipeMemory(memory, n * sizeof(T));
    std::allocator<T>().deallocate(memory, n);
  }
  friend bool operator==(const WipingAllocator&, const WipingAllocator&) noexcept { return true; }
};

/// A secret byte string: private keys, shared secrets, full nonces, seed keys, SA keys. Its memory
/// is wiped when it is released or overwritten. It has no text form and reaches no stream or trace.
class TESSEL_API SecretBytes {
 public:
  SecretBytes() = default;
  explicit SecretBytes(size_t size) : bytes_(size) {}
  explicit SecretBytes(BytesView bytes) : bytes_(bytes.begin(), bytes.end()) {}
  SecretBytes(const SecretBytes&) = default;
  SecretBytes(SecretBytes&& other) noexcept = default;
  // By value and swap: the old content goes to the parameter and is wiped with it.
  SecretBytes& operator=(SecretBytes other) noexcept {
    bytes_.swap(other.bytes_);
    return *this;
  }
  ~SecretBytes() = default;

  const uint8_t* data() const { return bytes_.data(); }
  uint8_t* data() { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  BytesView view() const { return {bytes_.data(), bytes_.size()}; }
  std::span<uint8_t> span() { return {bytes_.data(), bytes_.size()}; }

  /// The first `size` bytes, or all of them when there are fewer.
  SecretBytes first(size_t size) const {
    return SecretBytes(view().first(size < bytes_.size() ? size : bytes_.size()));
  }
  /// Puts `bytes` behind the content.
  void append(BytesView bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

  friend bool operator==(const SecretBytes&, const SecretBytes&) = default;

 private:
  std::vector<uint8_t, WipingAllocator<uint8_t>> bytes_;
};

}  // namespace tessel
