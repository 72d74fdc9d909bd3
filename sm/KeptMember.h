// KeptMember: a member of a collection that is asked for again and again.
#pragma once

#include <cstdint>

namespace tessel::Ipsec {

/// What a collection of pointers has under one key, looked up again only after a member of the
/// collection has come or gone. It keeps nothing alive.
template <class T>
class KeptMember {
 public:
  /// The member, or null. `key` must be the same each time.
  template <class Collection, class Key>
  T* of(const Collection& collection, const Key& key) const {
    if (version_ != collection.version() || collection_ != &collection) {
      const auto* const found = collection.find(key);
      member_ = found == nullptr ? nullptr : found->get();
      collection_ = &collection;
      version_ = collection.version();
    }
    return member_;
  }

 private:
  mutable T* member_ = nullptr;
  mutable const void* collection_ = nullptr;
  mutable uint32_t version_ = 0;
};

}  // namespace tessel::Ipsec
