// KeyedCollection and KeySet: order, walks over what changes, what stays valid, what allocates.
#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include "host/entity/KeyedCollection.h"
#include "tests/entity/Allocations.h"

namespace tessel {
namespace {

using ::testing::ElementsAre;

/// Says when it is released.
using Tracked = std::shared_ptr<int>;
using Collection = KeyedCollection<int, Tracked>;

void fill(Collection& collection, int size) {
  for (int i = 0; i < size; ++i) {
    collection.emplace(i, std::make_shared<int>(i));
  }
}

TEST(KeyedCollection, WhatIsDeletedDuringWalksIsReleasedWhenTheLastOneEnds) {
  for (const bool clear : {false, true}) {
    Collection collection;
    fill(collection, 20);
    const std::weak_ptr<int> gone = *collection.find(7);
    for (const auto& outer : collection) {
      for (const auto& inner : collection) {
        if (inner.key == 7) {
          clear ? collection.clear() : void(collection.take(7));
          EXPECT_EQ(*inner.value, 7);
        }
      }
      EXPECT_FALSE(gone.expired());
      EXPECT_EQ(*outer.value, 0);
      break;  // A walk ends also when its loop is left.
    }
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(collection.size(), clear ? 0U : 19U);
  }
}

TEST(KeyedCollection, ReferencesToMembersOutliveAdditionsAndWhatIsDeletedInAWalk) {
  Collection collection;
  fill(collection, 3);
  const Tracked* const second = collection.find(1);
  fill(collection, 1000);
  EXPECT_EQ(collection.find(1), second);
  for (const auto& member : collection) {
    if (member.key != 1) {
      collection.take(member.key);
      ASSERT_EQ(collection.find(1), second);
    }
  }
}

TEST(KeyedCollection, AValueThatIsReleasedMayUseTheCollection) {
  struct Meddler {
    KeyedCollection<int, std::shared_ptr<Meddler>>* collection;
    int other;
    ~Meddler() { collection->take(other); }
  };
  KeyedCollection<int, std::shared_ptr<Meddler>> collection;
  for (int i = 0; i < 30; ++i) {
    collection.emplace(i, std::make_shared<Meddler>(&collection, (i + 7) % 30));
  }
  collection.clear();
  EXPECT_TRUE(collection.empty());
}

TEST(KeyedCollection, LookupsDoNotAllocateAndAnUnusedOneHasNothing) {
  const uint64_t before = test::allocations();
  {
    Collection unused;
    EXPECT_EQ(unused.find(1), nullptr);
    for (const auto& member : unused) {
      ADD_FAILURE() << member.key;
    }
  }
  EXPECT_EQ(test::allocations(), before);

  KeyedCollection<std::string, int> collection;
  const std::string prefix = "a key that is too long to lie in the string itself ";
  for (int i = 0; i < 500; ++i) {
    collection.emplace(prefix + std::to_string(i), i);
    const uint64_t looking = test::allocations();
    int found = collection.has(prefix) ? 1 : 0;
    for (const auto& member : collection) {
      found += *collection.find(member.key) == member.value ? 1 : 0;
    }
    ASSERT_EQ(test::allocations(), looking);
    ASSERT_EQ(found, i + 1);
  }
}

/// Whatever is done, in and outside of walks: the same as a map beside a list of the order.
TEST(KeyedCollection, BehavesLikeAMapAndAListUnderRandomUse) {
  for (uint32_t seed = 1; seed <= 24; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto draw = [&](uint32_t below) { return static_cast<uint32_t>(random() % below); };
    const uint32_t range = seed % 2 == 0 ? 12 : 300;  // Few keys: much deleting and adding again.
    Collection collection;
    std::vector<int> order;
    std::vector<int> gone;
    const auto mutate = [&] {
      const int key = static_cast<int>(draw(range));
      const auto place = std::ranges::find(order, key);
      const bool present = place != order.end();
      if (draw(100) < (seed % 3 == 0 ? 60 : 45)) {
        const auto [value, made] = collection.emplace(key, std::make_shared<int>(key));
        ASSERT_EQ(made, !present);
        ASSERT_EQ(*value, key);
        if (made) {
          order.push_back(key);
        }
      } else {
        ASSERT_EQ(collection.take(key).has_value(), present);
        if (present) {
          order.erase(place);
          gone.push_back(key);
        }
      }
    };
    for (int step = 0; step < 300; ++step) {
      const uint32_t dice = draw(200);
      if (dice == 0) {
        collection.clear();
        order.clear();
      } else if (dice < 20) {
        const std::vector<int> start = order;
        std::vector<int> visited;
        gone.clear();
        for (const auto& [key, value] : collection) {
          visited.push_back(key);
          for (uint32_t i = draw(4); i > 0; --i) {
            mutate();
          }
          ASSERT_EQ(*value, key);  // What the loop holds stays valid.
          ASSERT_EQ(collection.keys(), order);
        }
        // A key is visited if it was there at the start and had not gone when its turn came; the
        // order of the turns is that of the start.
        size_t next = 0;
        for (const int key : start) {
          const bool wasVisited = next < visited.size() && visited[next] == key;
          ASSERT_TRUE(wasVisited || std::ranges::count(gone, key) > 0) << key;
          next += wasVisited ? 1U : 0U;
        }
        ASSERT_EQ(next, visited.size());
      } else {
        mutate();
      }
      ASSERT_EQ(collection.keys(), order);
      for (const int key : order) {  // Each stands behind the one that was found before it.
        ASSERT_EQ(**collection.find(key), key);
      }
    }
  }
}

/// Thousands of members: the index splits, and gaps are closed while others come and go.
TEST(KeyedCollection, KeepsOrderAndMembersWhileALargeOneClosesItsGaps) {
  for (const int kept : {2, 7, 1000}) {  // One of so many stays.
    SCOPED_TRACE(kept);
    constexpr int kSize = 20000;
    Collection collection;
    fill(collection, kSize);
    std::vector<int> expected;
    for (int i = 0; i < kSize; ++i) {
      if (i % kept == 0) {
        expected.push_back(i);
      } else {
        ASSERT_TRUE(collection.take(i).has_value());
      }
      if (i % 64 == 0) {
        collection.emplace(kSize + i, std::make_shared<int>(kSize + i));
      }
      if (i % 997 == 0) {
        int before = -1;
        size_t visited = 0;
        for (const auto& [key, value] : collection) {
          ASSERT_LT(std::exchange(before, key), key);
          ASSERT_EQ(collection.find(key), &value);
          ++visited;
        }
        ASSERT_EQ(visited, collection.size());
      }
    }
    for (int i = 0; i < kSize; i += 64) {
      expected.push_back(kSize + i);
    }
    EXPECT_EQ(collection.keys(), expected);
  }
}

TEST(KeyedCollection, HasMemoryForItsMembersAloneWhateverCameAndWent) {
  using Numbers = KeyedCollection<int, int>;
  for (int size = 0; size <= 8; ++size) {
    for (const int more : {1, 2, 3}) {
      SCOPED_TRACE(std::to_string(size) + " and " + std::to_string(more));
      const auto blocks = [before = test::liveAllocations()] {  // The trace is allocated, too.
        return test::liveAllocations() - before;
      };
      std::optional<Numbers> numbers(std::in_place);
      int first = 0;
      int last = 0;
      const auto come = [&](int count) {
        for (const int end = last + count; last < end; ++last) {
          numbers->emplace(last, -last);
        }
      };
      const auto go = [&](int count) {
        for (const int end = first + count; first < end; ++first) {
          ASSERT_EQ(numbers->take(first), -first);
        }
      };
      come(size);
      const int64_t fresh = blocks();
      for (int round = 0; round < 20 && size + more <= 8; ++round) {
        come(more);
        go(more);
        ASSERT_EQ(blocks(), fresh) << "round " << round;
      }
      EXPECT_EQ(std::ssize(numbers->keys()), size);
      numbers.reset();
      EXPECT_EQ(blocks(), 0);
    }
  }

  // A large one gives back what falls empty at its front, at its back or in between.
  constexpr int kSize = 10000;
  for (const auto& [from, to, step] :
       {std::tuple(0, 5000, 1), {2000, 7000, 1}, {4999, 0, -1}, {9999, 4999, -1}}) {
    SCOPED_TRACE(from);
    Numbers numbers;
    std::vector<int> expected;
    for (int i = 0; i < kSize; ++i) {
      numbers.emplace(i, -i);
      if (i < std::min(from, to) || i > std::max(from, to)) {
        expected.push_back(i);
      }
    }
    const int64_t full = test::liveAllocations();
    for (int i = from; i != to; i += step) {
      ASSERT_TRUE(numbers.take(i));
      ASSERT_FALSE(numbers.has(i));
    }
    numbers.take(to);
    EXPECT_LE(test::liveAllocations(), full - 8);  // Of 512 members each.
    EXPECT_EQ(numbers.keys(), expected);
    for (int i = kSize; i < kSize + 3000; ++i) {
      numbers.emplace(i, -i);
      expected.push_back(i);
    }
    std::vector<int> walked;
    for (const auto& [key, value] : numbers) {
      ASSERT_EQ(numbers.find(key), &value);
      walked.push_back(key);
    }
    EXPECT_EQ(walked, expected);
  }
}

TEST(KeyedCollectionDeathTest, SaysThatItDiedDuringAWalk) {
  const auto dieDuringWalk = [] {
    auto collection = std::make_unique<KeyedCollection<int, int>>();
    collection->emplace(1, 1);
    for ([[maybe_unused]] const auto& [key, value] : *collection) {
      collection.reset();
    }
  };
  EXPECT_DEATH(dieDuringWalk(), "broken: a collection died during a walk over it");
}

TEST(KeyedCollection, TheVersionStaysExactlyAsLongAsTheMembersDo) {
  KeyedCollection<int, int> collection;
  uint32_t before = collection.version();
  const auto changed = [&] { return std::exchange(before, collection.version()) != before; };
  collection.emplace(1, 10);
  EXPECT_TRUE(changed());
  collection.emplace(1, 11).first = 12;
  collection.find(1);
  collection.take(2);
  EXPECT_FALSE(changed());
  for (const auto& [key, value] : collection) {
    EXPECT_FALSE(changed());
    collection.take(key);
    EXPECT_TRUE(changed());
  }
  EXPECT_FALSE(changed()) << "a walk that ends releases what was gone before";
  collection.emplace(3, 30);
  EXPECT_TRUE(changed());
  collection.clear();
  EXPECT_TRUE(changed());
}

TEST(KeySet, HoldsEachKeyOnceInOrder) {
  KeySet<std::string> set;
  EXPECT_TRUE(set.insert("b"));
  EXPECT_TRUE(set.insert("a"));
  EXPECT_FALSE(set.insert("b"));
  EXPECT_THAT(set.keys(), ElementsAre("b", "a"));
  EXPECT_TRUE(set.erase("b"));
  EXPECT_FALSE(set.erase("b"));
}

}  // namespace
}  // namespace tessel
