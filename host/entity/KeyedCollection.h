// KeyedCollection and KeySet: dense hash maps and sets that keep the order of insertion.
//
// What holds:
// - Iteration goes in insertion order, on every machine and in every run; a key that is deleted and
//   added again moves to the end.
// - A walk (a range-for loop) may add and delete members in its body, directly or through what it
//   calls. A member added during a walk is not visited by it; a member deleted during a walk is not
//   visited any more.
// - References to members survive additions. A deletion may move the members that remain, but not
//   while a walk runs: what a loop holds stays valid until its walk ends, also when the member is
//   deleted meanwhile. A member deleted during a walk is released when the last walk ends.
// - A walk must end before the collection dies. Where the body can delete the container itself,
//   walk `keys()` instead.
// - Lookups do not allocate. A collection that has never held a member has allocated nothing.
// - An addition costs the same however many members there are, and so does a deletion: indexes grow
//   and gaps close bit by bit. A walk in which members were deleted passes all slots once more.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "host/entity/Assert.h"
#include "host/entity/Hash.h"
#include "host/entity/HashIndex.h"
#include "host/entity/MemberSlots.h"
#include "host/facility/Export.h"

namespace tessel {

/// Values by key; the promises stand at the head of this file. Keys have `==` and `hashValue`.
template <class Key, class Value>
class TESSEL_API KeyedCollection {
 public:
  struct Member {
    const Key key;
    Value value;
  };

  KeyedCollection() = default;
  KeyedCollection(const KeyedCollection&) = delete;
  KeyedCollection& operator=(const KeyedCollection&) = delete;
  KeyedCollection(KeyedCollection&& other) noexcept { swap(other); }
  KeyedCollection& operator=(KeyedCollection&& other) noexcept {
    KeyedCollection taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~KeyedCollection() {
    HOST_ASSERT(walks_ == 0, "a collection died during a walk over it");
    while (live_ > 0) {  // A value that is released may come back and add another one.
      clear();
    }
  }

  void swap(KeyedCollection& other) noexcept {
    HOST_ASSERT(walks_ == 0 && other.walks_ == 0, "a collection was moved during a walk over it");
    slots_.swap(other.slots_);
    lookup_.swap(other.lookup_);
    std::swap(used_, other.used_);
    std::swap(live_, other.live_);
    ++version_;
    ++other.version_;
  }

  size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }
  /// Another number after every addition and deletion: while it stays, so do the members, and what
  /// was found is still there.
  uint32_t version() const { return version_; }

  /// The value under `key`, or null.
  const Value* find(const Key& key) const {
    const uint32_t position = locate(key);
    return position == kNone ? nullptr : &slots_.member(position)->value;
  }
  Value* find(const Key& key) { return const_cast<Value*>(std::as_const(*this).find(key)); }
  bool has(const Key& key) const { return locate(key) != kNone; }

  /// Finds the value under `key`, or makes one from `args`. The flag says whether it was made.
  template <class... Args>
  std::pair<Value&, bool> emplace(const Key& key, Args&&... args) {
    const uint32_t hash = lookup_ ? hashValue(key, kSeed) : 0;
    if (const uint32_t found = lookup_ ? probe(key, hash) : scan(key); found != kNone) {
      return {slots_.member(found)->value, false};
    }
    slots_.make(used_);
    Member* const fresh = slots_.member(used_);
    new (fresh) Member{key, Value(std::forward<Args>(args)...)};
    slots_.stateOf(used_) = SlotState::live;
    ++used_;
    ++live_;
    ++version_;
    if (lookup_) {
      lookup_->index.link(hash, used_ - 1);
    } else if (live_ > kScanLimit) {
      startLookup();
    }
    return {fresh->value, true};
  }

  /// Takes the member under `key` out. Returns its value, or nothing when there was none; during a
  /// walk the value stays in place until the walk ends, and a copy of it is returned.
  std::optional<Value> take(const Key& key) {
    const uint32_t position = locate(key);
    if (position == kNone) {
      return std::nullopt;
    }
    if (lookup_) {
      lookup_->index.unlink(hashValue(key, kSeed), position);
    }
    --live_;
    ++version_;
    if (walks_ > 0) {
      slots_.stateOf(position) = SlotState::deleted;
      ++deleted_;
      return slots_.member(position)->value;
    }
    std::optional<Value> value(std::move(slots_.member(position)->value));
    release(position);
    tidy(1);
    return value;
  }

  void clear() {
    for (uint32_t i = passGap(0); i < used_; i = passGap(i + 1)) {
      if (slots_.state(i) == SlotState::live) {
        slots_.stateOf(i) = SlotState::deleted;
      }
    }
    deleted_ += live_;
    live_ = 0;
    ++version_;
    if (walks_ == 0) {
      sweep();
    } else if (lookup_) {
      lookup_->index = HashIndex();
    }
  }

  /// A snapshot of the keys, in iteration order.
  std::vector<Key> keys() const {
    std::vector<Key> result;
    result.reserve(live_);
    for (uint32_t i = passGap(0); i < used_; i = passGap(i + 1)) {
      if (slots_.state(i) == SlotState::live) {
        result.push_back(slots_.member(i)->key);
      }
    }
    return result;
  }

  template <class Collection, class MemberType>
  class Walk {
   public:
    explicit Walk(Collection& collection) : collection_(collection), end_(collection.used_) {
      ++collection_.walks_;
      enterBlock();
      skip();
    }
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;
    ~Walk() {
      if (--collection_.walks_ == 0 && collection_.deleted_ > 0) {
        const_cast<KeyedCollection&>(static_cast<const KeyedCollection&>(collection_)).sweep();
      }
    }
    MemberType& operator*() const { return *member_; }
    MemberType* operator->() const { return member_; }
    Walk& operator++() {
      advance();
      skip();
      return *this;
    }
    friend bool operator==(const Walk& walk, std::default_sentinel_t) {
      return walk.position_ >= walk.end_;
    }

   private:
    void enterBlock() {
      position_ = collection_.passGap(position_);
      while (position_ < end_ && !collection_.slots_.has(position_)) {
        position_ = collection_.passGap(Slots::blockStart(Slots::blockOf(position_) + 1));
      }
      if (position_ < end_) {
        member_ = collection_.slots_.member(position_);
        state_ = &collection_.slots_.stateOf(position_);
        blockEnd_ = std::min(end_, Slots::blockStart(Slots::blockOf(position_) + 1));
      }
    }
    void advance() {
      ++member_;
      ++state_;
      if (++position_ == blockEnd_) {
        enterBlock();
      }
    }
    void skip() {
      while (position_ < end_ && *state_ != SlotState::live) {
        advance();
      }
    }

    Collection& collection_;
    Member* member_ = nullptr;
    const SlotState* state_ = nullptr;
    uint32_t position_ = 0;
    uint32_t blockEnd_ = 0;
    uint32_t end_;
  };

  auto begin() const { return Walk<const KeyedCollection, const Member>(*this); }
  auto begin() { return Walk<KeyedCollection, Member>(*this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  using Slots = MemberSlots<Member>;

  static constexpr uint32_t kNone = HashIndex::kNone;
  static constexpr uint32_t kScanLimit = 8;  // Up to here comparing keys beats an index.
  static constexpr uint32_t kSeed = 0x7E55E1;
  static constexpr uint8_t kTrust = 4;
  static constexpr uint32_t kStride = 8;  // Slots looked at per deletion, to close gaps.

  /// What a collection needs once it is too large to be scanned.
  struct Lookup {
    HashIndex index;
    // Closing gaps: the live members below gapEnd stand below gapBegin without gaps between them,
    // but for what was deleted since. Nothing is being closed while gapEnd is 0.
    uint32_t gapBegin = 0;
    uint32_t gapEnd = 0;
    // Found last, and where the lookups were before they went there; kNone when it may have moved.
    uint32_t last = kNone;
    uint32_t other = kNone;
    uint8_t trust = 0;  // How many more wrong guesses are taken.
  };

  // Looking up.

  uint32_t locate(const Key& key) const {
    if (!lookup_) {
      return scan(key);
    }
    const uint32_t guessed = guess(key);
    return guessed != kNone ? guessed : locateByHash(key);
  }
  uint32_t scan(const Key& key) const {
    for (uint32_t i = 0; i < used_; ++i) {
      if (holds(i, key)) {
        return i;
      }
    }
    return kNone;
  }
  bool holds(uint32_t position, const Key& key) const {
    return slots_.state(position) == SlotState::live && slots_.member(position)->key == key;
  }
  uint32_t probe(const Key& key, uint32_t hash) const {
    return lookup_->index.find(
        hash, [&](uint32_t position) { return slots_.member(position)->key == key; });
  }
  // A walk over one collection that looks its keys up in another one mostly finds the neighbour of
  // the member that it found last, or that one again: comparing keys there saves the hash, and two
  // distant places in memory. A walk that looks up two keys of a kind goes along two places in
  // turn. Only while it keeps coming true: a wrong guess costs a third one.
  uint32_t guess(const Key& key) const {
    if (lookup_->trust == 0) {
      return kNone;
    }
    if (const uint32_t found = findNear(lookup_->last, key); found != kNone) {
      return lookup_->last = found;
    }
    if (const uint32_t found = findNear(lookup_->other, key); found != kNone) {
      lookup_->other = lookup_->last;
      return lookup_->last = found;
    }
    --lookup_->trust;
    return kNone;
  }
  uint32_t findNear(uint32_t place, const Key& key) const {
    if (place == kNone) {
      return kNone;
    }
    if (holds(place, key)) {
      return place;
    }
    if (const uint32_t next = passGap(place + 1); next < used_ && holds(next, key)) {
      return next;
    }
    const uint32_t previous = place > 0 ? passGap(place - 1) : place;
    return holds(previous, key) ? previous : kNone;
  }
  static bool isNear(uint32_t place, uint32_t found) {
    return place != kNone && (found == place || found == place + 1 || found + 1 == place);
  }
  uint32_t locateByHash(const Key& key) const {
    const uint32_t found = probe(key, hashValue(key, kSeed));
    if (found != kNone) {
      const bool nearLast = isNear(lookup_->last, found);
      if (nearLast || isNear(lookup_->other, found)) {
        lookup_->trust = kTrust;
      }
      if (!nearLast) {
        lookup_->other = lookup_->last;
      }
      lookup_->last = found;
    }
    return found;
  }
  void startLookup() {
    lookup_ = std::make_unique<Lookup>();
    for (uint32_t i = 0; i < used_; ++i) {
      if (slots_.state(i) == SlotState::live) {
        lookup_->index.link(hashValue(slots_.member(i)->key, kSeed), i);
      }
    }
  }

  // Deleting.

  void release(uint32_t position) {
    slots_.stateOf(position) = SlotState::unused;
    slots_.member(position)->~Member();
    // Members that were added together often go together. The last block is about to be used.
    if (const uint32_t block = Slots::blockOf(position);
        lookup_ && Slots::blockStart(block + 1) <= used_) {
      slots_.freeIfUnused(block);
    }
  }
  /// Outside of walks: releases what was deleted in them.
  void sweep() {
    std::vector<Value> released;  // Dies last: releasing may come back to this collection.
    released.reserve(deleted_);
    for (uint32_t i = passGap(0); i < used_; i = passGap(i + 1)) {
      if (slots_.state(i) == SlotState::deleted) {
        released.push_back(std::move(slots_.member(i)->value));
        release(i);
      }
    }
    deleted_ = 0;
    tidy(static_cast<uint32_t>(released.size()));
  }
  /// Outside of walks, after so many members were released: an empty collection keeps no memory, a
  /// small one closes its gaps when that saves some, and a large one with more gaps than members
  /// closes a few at each deletion.
  void tidy(uint32_t released) {
    if (live_ == 0) {
      slots_.freeFrom(0);
      lookup_.reset();
      used_ = 0;
      return;
    }
    if (!lookup_) {
      // A small one has no more memory than its members need: there are hundreds of thousands.
      if (Slots::blockOf(live_ - 1) < Slots::blockOf(used_ - 1)) {
        closeGaps(0, 0, used_);
      }
    } else if (used_ - live_ > live_ || lookup_->gapEnd > 0) {
      const uint64_t end = lookup_->gapEnd + uint64_t{kStride} * released;
      closeGaps(lookup_->gapBegin, lookup_->gapEnd,
                static_cast<uint32_t>(std::min<uint64_t>(end, used_)));
    }
  }
  /// Moves the live members from `from` up to `end` to where the gap begins.
  void closeGaps(uint32_t gapBegin, uint32_t from, uint32_t end) {
    for (uint32_t i = from; i < end; ++i) {
      if (slots_.state(i) == SlotState::live) {
        if (i != gapBegin) {
          moveMember(i, gapBegin);
        }
        ++gapBegin;
      }
    }
    const uint32_t needed = gapBegin == 0 ? 0 : Slots::blockOf(gapBegin - 1) + 1;
    if (end == used_) {
      slots_.freeFrom(needed);
      used_ = gapBegin;
      gapBegin = end = 0;
    } else {
      slots_.freeBlocks(std::max(needed, Slots::blockOf(from)), Slots::blockOf(end));
    }
    if (lookup_) {
      lookup_->gapBegin = gapBegin;
      lookup_->gapEnd = end;
      lookup_->last = lookup_->other = kNone;
      lookup_->trust = 0;
      if (end == 0 && live_ <= kScanLimit) {
        lookup_.reset();
      }
    }
  }
  void moveMember(uint32_t from, uint32_t to) {
    slots_.make(to);
    Member* const source = slots_.member(from);
    new (slots_.member(to)) Member{source->key, std::move(source->value)};
    slots_.stateOf(to) = SlotState::live;
    if (lookup_) {
      lookup_->index.move(hashValue(source->key, kSeed), from, to);
    }
    release(from);
  }
  /// The position, or the first one behind the gap when it lies in that: a gap need not have
  /// memory.
  uint32_t passGap(uint32_t position) const {
    return lookup_ && position >= lookup_->gapBegin && position < lookup_->gapEnd ? lookup_->gapEnd
                                                                                  : position;
  }

  Slots slots_;
  std::unique_ptr<Lookup> lookup_;
  uint32_t used_ = 0;  // Slots handed out, those of deleted members included.
  uint32_t live_ = 0;
  uint32_t deleted_ = 0;  // Members that wait for the end of a walk.
  uint32_t version_ = 0;
  mutable uint32_t walks_ = 0;
};

/// A set of keys in insertion order, with the promises of `KeyedCollection`.
template <class Key>
class TESSEL_API KeySet {
 public:
  /// Adds `key`; false when it was there already.
  bool insert(const Key& key) { return keys_.emplace(key).second; }
  /// Removes `key`; false when it was not there.
  bool erase(const Key& key) { return keys_.take(key).has_value(); }
  void clear() { keys_.clear(); }
  bool has(const Key& key) const { return keys_.has(key); }
  size_t size() const { return keys_.size(); }
  bool empty() const { return keys_.empty(); }
  std::vector<Key> keys() const { return keys_.keys(); }
  void swap(KeySet& other) noexcept { keys_.swap(other.keys_); }

 private:
  KeyedCollection<Key, std::monostate> keys_;
};

}  // namespace tessel
