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
#pragma once

#include <algorithm>
#include <bit>
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
#include "host/facility/Export.h"

namespace tessel {

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
    blocks_.swap(other.blocks_);
    index_.swap(other.index_);
    std::swap(used_, other.used_);
    std::swap(live_, other.live_);
    ++version_;
    ++other.version_;
    forgetLast();
    other.forgetLast();
  }

  size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }
  /// Another number after every addition and deletion: while it stays, so do the members, and what
  /// was found is still there.
  uint32_t version() const { return version_; }

  /// The value under `key`, or null.
  const Value* find(const Key& key) const {
    const Slot* found = locate(key);
    return found == nullptr ? nullptr : &found->member()->value;
  }
  Value* find(const Key& key) { return const_cast<Value*>(std::as_const(*this).find(key)); }
  bool has(const Key& key) const { return locate(key) != nullptr; }

  /// Finds the value under `key`, or makes one from `args`. The flag says whether it was made.
  template <class... Args>
  std::pair<Value&, bool> emplace(const Key& key, Args&&... args) {
    const uint32_t hash = index_.empty() ? 0 : hashValue(key, kSeed);
    if (Slot* found = index_.empty() ? scan(key) : probe(key, hash)) {
      return {found->member()->value, false};
    }
    Slot& fresh = grow();
    new (fresh.storage) Member{key, Value(std::forward<Args>(args)...)};
    fresh.state = SlotState::live;
    ++used_;
    ++live_;
    ++version_;
    if (index_.hasRoomAfter(live_)) {
      fresh.hash = hash;
      index_.link(hash, &fresh);
    } else if (live_ > kScanLimit) {
      rebuildIndex();
    }
    return {fresh.member()->value, true};
  }

  /// Takes the member under `key` out. Returns its value, or nothing when there was none; during a
  /// walk the value stays in place until the walk ends, and a copy of it is returned.
  std::optional<Value> take(const Key& key) {
    Slot* const found = locate(key);
    if (found == nullptr) {
      return std::nullopt;
    }
    Slot& old = *found;
    if (!index_.empty()) {
      index_.unlink(old.hash, &old);
    }
    --live_;
    ++version_;
    if (walks_ > 0) {
      old.state = SlotState::deleted;
      return old.member()->value;
    }
    std::optional<Value> value(std::move(old.member()->value));
    release(old);
    if (live_ == 0) {
      reset();
    } else if (const uint32_t dead = used_ - live_; dead > kScanLimit && dead > live_) {
      compact();
    }
    return value;
  }

  void clear() {
    for (uint32_t i = 0; i < used_; ++i) {
      if (Slot& each = slot(i); each.state == SlotState::live) {
        each.state = SlotState::deleted;
      }
    }
    live_ = 0;
    ++version_;
    index_.reset();
    if (walks_ == 0) {
      sweep();
    }
  }

  /// A snapshot of the keys, in iteration order.
  std::vector<Key> keys() const {
    std::vector<Key> result;
    result.reserve(live_);
    for (uint32_t i = 0; i < used_; ++i) {
      if (slot(i).state == SlotState::live) {
        result.push_back(slot(i).member()->key);
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
      if (--collection_.walks_ == 0 && collection_.live_ < collection_.used_) {
        const_cast<KeyedCollection&>(static_cast<const KeyedCollection&>(collection_)).sweep();
      }
    }
    MemberType& operator*() const { return *next_->member(); }
    MemberType* operator->() const { return next_->member(); }
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
      if (position_ < end_) {
        next_ = &collection_.slot(position_);
        blockEnd_ = std::min(end_, blockStart(blockOf(position_) + 1));
      }
    }
    void advance() {
      ++next_;
      if (++position_ == blockEnd_) {
        enterBlock();
      }
    }
    void skip() {
      while (position_ < end_ && next_->state != SlotState::live) {
        advance();
      }
    }

    Collection& collection_;
    uint32_t position_ = 0;
    uint32_t blockEnd_ = 0;
    uint32_t end_;
    decltype(&std::declval<Collection&>().slot(0)) next_ = nullptr;
  };

  auto begin() const { return Walk<const KeyedCollection, const Member>(*this); }
  auto begin() { return Walk<KeyedCollection, Member>(*this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  static constexpr uint32_t kScanLimit = 8;  // Up to here comparing keys beats an index.
  static constexpr uint32_t kSeed = 0x7E55E1;
  static constexpr uint8_t kTrust = 4;

  enum class SlotState : uint8_t { unused, live, deleted };

  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the member is made when it is added.
  struct Slot {
    Member* member() { return std::launder(reinterpret_cast<Member*>(storage)); }
    const Member* member() const { return std::launder(reinterpret_cast<const Member*>(storage)); }
    alignas(Member) unsigned char storage[sizeof(Member)];
    uint32_t hash = 0;
    SlotState state = SlotState::unused;
    bool beginsBlock = false;
    bool endsBlock = false;
  };

  // Members lie in blocks of 2, 2, 4, 8, 16 ... slots: growing moves nothing.
  static uint32_t blockOf(uint32_t position) {
    return static_cast<uint32_t>(std::bit_width(position | 1U)) - 1;
  }
  static uint32_t blockStart(uint32_t block) { return (1U << block) & ~1U; }
  static uint32_t blockSize(uint32_t block) { return block == 0 ? 2 : 1U << block; }

  Slot& slot(uint32_t position) const {
    const uint32_t block = blockOf(position);
    return blocks_[block][position - blockStart(block)];
  }

  Slot* locate(const Key& key) const {
    if (index_.empty()) {
      return scan(key);
    }
    Slot* const guessed = guess(key);
    return guessed != nullptr ? guessed : locateByHash(key);
  }
  Slot* scan(const Key& key) const {
    for (uint32_t i = 0; i < used_; ++i) {
      Slot& candidate = slot(i);
      if (candidate.state == SlotState::live && candidate.member()->key == key) {
        return &candidate;
      }
    }
    return nullptr;
  }
  Slot* probe(const Key& key, uint32_t hash) const {
    return static_cast<Slot*>(index_.find(
        hash, [&](void* place) { return static_cast<Slot*>(place)->member()->key == key; }));
  }
  // A walk over one collection that looks its keys up in another one mostly finds the neighbour of
  // the member that it found last, or that one again: comparing keys there saves the hash, and two
  // distant places in memory. Only while it keeps coming true: a wrong guess costs a third one.
  Slot* guess(const Key& key) const {
    if (trust_ == 0) {
      return nullptr;
    }
    const auto holds = [&key](const Slot* slot) {
      return slot->state == SlotState::live && slot->member()->key == key;
    };
    if (holds(last_)) {
      return last_;
    }
    if (!last_->endsBlock && holds(last_ + 1)) {
      return ++last_;
    }
    if (!last_->beginsBlock && holds(last_ - 1)) {
      return --last_;
    }
    --trust_;
    return nullptr;
  }
  Slot* locateByHash(const Key& key) const {
    Slot* const found = probe(key, hashValue(key, kSeed));
    if (found != nullptr) {
      if (last_ != nullptr && (found == last_ || found == last_ + 1 || found == last_ - 1)) {
        trust_ = kTrust;
      }
      last_ = found;
    }
    return found;
  }
  void forgetLast() {
    last_ = nullptr;
    trust_ = 0;
  }
  void rebuildIndex() {
    index_.restart(live_);
    for (uint32_t i = 0; i < used_; ++i) {
      if (Slot& each = slot(i); each.state == SlotState::live) {
        each.hash = hashValue(each.member()->key, kSeed);
        index_.link(each.hash, &each);
      }
    }
  }

  Slot& grow() {
    const uint32_t block = blockOf(used_);
    if (block == blocks_.size()) {
      const uint32_t size = blockSize(block);
      blocks_.push_back(std::make_unique<Slot[]>(size));
      blocks_.back()[0].beginsBlock = true;
      blocks_.back()[size - 1].endsBlock = true;
    }
    return slot(used_);
  }
  static void release(Slot& old) {
    old.state = SlotState::unused;
    old.member()->~Member();
  }
  void reset() {
    forgetLast();
    used_ = 0;
    blocks_.clear();
    blocks_.shrink_to_fit();
    index_.reset();
  }

  // Outside of walks: lets go of what was deleted, and closes the gaps.
  void sweep() {
    std::vector<Value> released;  // Dies last: releasing may come back to this collection.
    uint32_t dead = 0;
    for (uint32_t i = 0; i < used_; ++i) {
      Slot& each = slot(i);
      if (each.state == SlotState::deleted) {
        released.push_back(std::move(each.member()->value));
        release(each);
      }
      dead += each.state == SlotState::unused ? 1 : 0;
    }
    if (live_ == 0) {
      reset();
    } else if (dead > kScanLimit && dead > live_) {
      compact();
    }
  }
  void compact() {
    forgetLast();
    uint32_t to = 0;
    for (uint32_t from = 0; from < used_; ++from) {
      Slot& source = slot(from);
      if (source.state != SlotState::live) {
        continue;
      }
      if (from != to) {
        Slot& target = slot(to);
        new (target.storage) Member{source.member()->key, std::move(source.member()->value)};
        target.state = SlotState::live;
        release(source);
      }
      ++to;
    }
    used_ = to;
    blocks_.resize(blockOf(used_ - 1) + 1);
    if (live_ > kScanLimit) {
      rebuildIndex();
    } else {
      index_.reset();
    }
  }

  std::vector<std::unique_ptr<Slot[]>> blocks_;
  HashIndex index_;
  uint32_t used_ = 0;  // Slots handed out, deleted ones included.
  uint32_t live_ = 0;
  uint32_t version_ = 0;
  mutable uint32_t walks_ = 0;
  mutable uint8_t trust_ = 0;     // How many more wrong guesses are taken.
  mutable Slot* last_ = nullptr;  // Found last; null when its block may be gone.
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
