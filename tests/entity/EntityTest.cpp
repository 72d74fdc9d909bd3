// Handles, and the contract of entities: who is told of what, in which order, and what may happen
// meanwhile.
#include <functional>
#include <map>
#include <sstream>

#include "host/entity/Entity.h"

namespace tessel {
namespace {

using ::testing::ElementsAre;
using Texts = std::vector<std::string>;

struct Part final : Entity {
  explicit Part(int = 0, std::string = {}) {}
};

class Thing final : public Entity {
  HOST_ATTRIBUTE(size, int);
  HOST_ATTRIBUTE(name, std::string);
  HOST_COUNTER(hits);
  HOST_CHILD(child, Part);
  HOST_COLLECTION(part, int, Part);
  HOST_VALUES(mark, int, std::string);
};

/// A change, and the value that is in place already.
std::string describe(const Thing& thing, const Change& change) {
  static const char* const kinds[] = {"written", "added", "removed"};
  std::ostringstream text;
  text << change.attributeName() << " " << kinds[static_cast<size_t>(change.kind())];
  if (change.is(Thing::sizeName)) {
    text << " " << thing.size();
  } else if (const int* part = change.memberOf(Thing::partName)) {
    text << " " << *part << (thing.partHas(*part) ? " there" : " gone");
  } else if (const int* mark = change.memberOf(Thing::markName)) {
    text << " " << *mark << " " << thing.mark(*mark);
  }
  return text.str();
}

/// Writes its name into a log whenever it is told of a change, or the change if it has no name.
class Watcher {
 public:
  using Action = std::function<void(const Change&)>;
  Watcher(const Thing& thing, Texts& log, std::string name = {})
      : name_(std::move(name)), log_(log) {
    attach(thing);
  }
  void attach(const Thing& thing) {
    thing_ = &thing;
    subscription_.attach<&Watcher::handle>(thing, *this);
  }
  void end() { subscription_.end(); }
  bool active() const { return subscription_.active(); }
  Action action;  ///< Done once.

 private:
  void handle(const Change& change) {
    log_.push_back(name_.empty() ? describe(*thing_, change) : name_);
    if (const Action once = std::exchange(action, nullptr)) {
      once(change);
    }
  }
  const std::string name_;
  Texts& log_;
  const Thing* thing_ = nullptr;
  Subscription subscription_;
};

TEST(Ptr, TheLastHandleDeletesTheObjectWhateverItsType) {
  struct Node : RefCounted {
    explicit Node(int& count) : alive(count) { ++alive; }
    ~Node() override { --alive; }
    int& alive;
    Ptr<Node> next;
  };
  int alive = 0;
  Ptr<Node> head = makePtr<Node>(alive);
  const Ptr<const RefCounted> again(head.get());  // The count lies in the object.
  head->next = makePtr<Node>(alive);
  head->next->next = makePtr<Node>(alive);
  head = head->next->next;  // The new value lives in an object that goes.
  EXPECT_EQ(alive, 3);      // For `again` still holds it all.
}

TEST(Entity, ChangesAreToldInsideTheWriteAndEqualWritesAreSilent) {
  const Ptr<Thing> thing = makePtr<Thing>();
  Texts log;
  Watcher watcher(*thing, log);
  const struct {
    const char* what;
    std::function<void()> write;
    Texts told;
  } rows[] = {
      {"default value", [&] { thing->sizeIs(0); }, {}},
      {"attribute", [&] { thing->sizeIs(7); }, {"size written 7"}},
      {"same attribute", [&] { thing->sizeIs(7); }, {}},
      {"text", [&] { thing->nameIs("a"); }, {"name written"}},
      {"text from itself", [&] { thing->nameIs(thing->name()); }, {}},
      {"counter", [&] { thing->hitsInc(2); }, {"hits written"}},
      {"counter by nothing", [&] { thing->hitsInc(0); }, {}},
      {"child", [&] { thing->childIs(); }, {"child written"}},
      {"child that is there", [&] { thing->childIs(); }, {}},
      {"child gone", [&] { thing->childDel(); }, {"child written"}},
      {"child gone already", [&] { thing->childDel(); }, {}},
      {"member", [&] { thing->partIs(4, "four"); }, {"part added 4 there"}},
      {"member that is there", [&] { thing->partIs(4, "other"); }, {}},
      {"no member", [&] { thing->partDel(5); }, {}},
      {"member gone, by its own key",
       [&] { thing->partDel(thing->part().keys()[0]); },
       {"part removed 4 gone"}},
      {"all members",
       [&] { (void)thing->partIs(1), (void)thing->partIs(2), thing->partDelAll(); },
       {"part added 1 there", "part added 2 there", "part removed 1 gone", "part removed 2 gone"}},
      {"value that equals the default", [&] { thing->markIs(9, ""); }, {"mark added 9 "}},
      {"value", [&] { thing->markIs(9, "x"); }, {"mark written 9 x"}},
      {"same value", [&] { thing->markIs(9, "x"); }, {}},
      {"value gone", [&] { thing->markDel(9); }, {"mark removed 9 "}},
      {"value gone already", [&] { thing->markDel(9); }, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    row.write();
    EXPECT_EQ(std::exchange(log, {}), row.told);
  }
  EXPECT_EQ(thing->hits(), 2U);
}

TEST(Entity, NestedWritesTellAtOnceAndTheOuterNotificationGoesOn) {
  const Ptr<Thing> thing = makePtr<Thing>();
  Texts log;
  Watcher first(*thing, log, "first");
  Watcher second(*thing, log);
  first.action = [&](const Change&) {
    thing->nameIs("nested");
    log.emplace_back("end of nested");
  };
  thing->sizeIs(1);
  EXPECT_THAT(log,
              ElementsAre("first", "first", "name written", "end of nested", "size written 1"));

  // The same attribute: the outer notification finds the newest value.
  log.clear();
  first.action = [&](const Change&) { thing->sizeIs(3); };
  thing->sizeIs(2);
  EXPECT_THAT(log, ElementsAre("first", "first", "size written 3", "size written 3"));
}

TEST(Entity, ObserversMayComeAndGoDuringANotification) {
  // Observers a, b, c, d; one of them acts, and what it does decides who is told of this change
  // and of the next one.
  const struct {
    const char* what;
    char actor;
    std::string ends;      // These subscriptions end, in this order...
    std::string attaches;  // ... and these start, x being a new one.
    std::string told;
    std::string toldNext;
  } rows[] = {
      {"nothing", 'b', "", "", "abcd", "abcd"},
      {"middle ends itself", 'b', "b", "", "abcd", "acd"},
      {"last ends itself", 'd', "d", "", "abcd", "abc"},
      {"the next", 'b', "c", "", "abd", "abd"},
      {"the next, which is the last", 'c', "d", "", "abc", "abc"},
      {"the last", 'a', "d", "", "abc", "abc"},
      {"one that was told", 'c', "a", "", "abcd", "bcd"},
      {"all that follow, backwards", 'b', "dc", "", "ab", "ab"},
      {"itself and the next", 'b', "bc", "", "abd", "ad"},
      {"itself and the last", 'c', "dc", "", "abc", "ab"},
      {"everybody", 'b', "abcd", "", "ab", ""},
      {"a new one", 'a', "", "x", "abcd", "abcdx"},
      {"a new one in everybody's place", 'b', "abcd", "x", "ab", "x"},
      {"again: itself", 'b', "b", "b", "abcd", "acdb"},
      {"again: the last itself", 'd', "d", "d", "abcd", "abcd"},
      {"again: the next", 'b', "c", "c", "abd", "abdc"},
      {"again: the last", 'a', "d", "d", "abc", "abcd"},
      {"again: everybody", 'c', "abcd", "dcba", "abc", "dcba"},
  };
  for (const auto& row : rows) {
    // Ending by hand or by the death of the observer is the same.
    for (const bool destroy : {false, true}) {
      SCOPED_TRACE(std::string(row.what) + (destroy ? ", destroyed" : ""));
      const Ptr<Thing> thing = makePtr<Thing>();
      Texts log;
      std::map<char, std::unique_ptr<Watcher>> watchers;
      const auto attach = [&](char name) {
        auto& watcher = watchers[name];
        watcher ? watcher->attach(*thing)
                : void(watcher = std::make_unique<Watcher>(*thing, log, std::string{name}));
      };
      for (const char name : std::string("abcd")) {
        attach(name);
      }
      watchers[row.actor]->action = [&](const Change&) {
        for (const char name : row.ends) {
          destroy ? watchers[name].reset() : watchers[name]->end();
        }
        for (const char name : row.attaches) {
          attach(name);
        }
      };
      const auto told = [&] {
        std::string names;
        for (const std::string& name : std::exchange(log, {})) {
          names += name;
        }
        return names;
      };
      thing->sizeIs(1);
      EXPECT_EQ(told(), row.told);
      thing->sizeIs(2);
      EXPECT_EQ(told(), row.toldNext);
    }
  }
}

TEST(Entity, AnEndInsideANestedNotificationHoldsForTheOuterOne) {
  const Ptr<Thing> thing = makePtr<Thing>();
  const Ptr<Thing> other = makePtr<Thing>();
  Texts log;
  Watcher a(*thing, log, "a");
  Watcher b(*thing, log, "b");
  Watcher c(*thing, log, "c");
  Watcher between(*other, log, "between");
  between.action = [&](const Change&) {
    b.end();
    a.action = [&](const Change&) { c.end(); };
    thing->nameIs("nested");
  };
  a.action = [&](const Change&) { other->sizeIs(1); };
  thing->sizeIs(1);
  EXPECT_THAT(log, ElementsAre("a", "between", "a"));
}

TEST(Entity, MembersMayComeAndGoDuringANotification) {
  const Ptr<Thing> thing = makePtr<Thing>();
  Texts log;
  Texts told;
  Watcher first(*thing, log, "first");
  Watcher observer(*thing, told);
  // The observer that comes later hears of the nested changes before the one they answer.
  first.action = [&](const Change& change) {
    const int key = *change.memberOf(Thing::partName);
    thing->partDel(key);
    thing->partIs(key + 1);
  };
  EXPECT_TRUE(thing->partIs(1));  // Made, told of, and gone again before its maker got it.
  EXPECT_THAT(thing->part().keys(), ElementsAre(2));
  EXPECT_THAT(told, ElementsAre("part removed 1 gone", "part added 2 there", "part added 1 gone"));
  first.action = [&](const Change&) { thing->partDelAll(); };
  thing->sizeIs(1);
  EXPECT_TRUE(thing->part().empty());
}

TEST(Entity, TheLastHandleMayGoDuringANotification) {
  Ptr<Thing> thing = makePtr<Thing>();
  Texts log;
  Watcher a(*thing, log, "a");
  Watcher b(*thing, log, "b");
  a.action = [&](const Change&) { thing = nullptr; };
  b.action = [&](const Change&) { log.emplace_back(b.active() ? "alive" : "dead"); };
  thing->sizeIs(1);
  EXPECT_THAT(log, ElementsAre("a", "b", "alive"));
  EXPECT_FALSE(a.active() || b.active());
}

TEST(Entity, SubscriptionsEndWithTheirEntityAndMoveToAnother) {
  Ptr<Thing> thing = makePtr<Thing>();
  const Ptr<Thing> other = makePtr<Thing>();
  thing->partIs(1);
  Texts log;
  Watcher stays(*thing, log, "stays");
  Watcher moves(*thing, log, "moves");
  moves.attach(*other);
  thing->sizeIs(1);
  EXPECT_THAT(log, ElementsAre("stays"));
  thing = nullptr;
  EXPECT_FALSE(stays.active());
  EXPECT_TRUE(moves.active());
  other->sizeIs(1);
  EXPECT_THAT(log, ElementsAre("stays", "moves"));
  stays.end();  // Ending twice is no harm.
}

}  // namespace
}  // namespace tessel
