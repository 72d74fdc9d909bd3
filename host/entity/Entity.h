// Entity: a reference-counted object whose attributes tell observers when they change.
//
// The contract, for every entity:
// - A write that does not change the value notifies nobody.
// - A write that changes the value notifies the entity's observers inside the write, after the new
//   value is in place, in the order in which they subscribed. The notification names the attribute
//   and, for a collection, the member's key.
// - An observer may write the same entity again: that write notifies at once, nested, and the outer
//   notification then goes on. A notification carries no value; whoever reads sees the newest one.
// - An observer that subscribes during a notification is not told of that change. One whose
//   subscription ends during a notification, by its own hand or another's, is not called any more.
// - Observers may add and remove members of the entity's collections, and may drop the last handle
//   to the entity: it then dies when the notification is over.
// - A subscription ends when its object dies, or when the entity dies; nobody is notified then.
// - An entity without observers pays one test per write.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/entity/InternedText.h"
#include "host/entity/KeyedCollection.h"
#include "host/entity/Ptr.h"
#include "host/facility/Export.h"

namespace tessel {

class Entity;

/// Names an attribute. Its identity is its address: every attribute has one name object.
struct TESSEL_API AttributeName {
  const char* text;
};

/// Names a collection whose members have keys of type `Key`.
template <class Key>
struct TESSEL_API CollectionName : AttributeName {};

/// What happened to an entity.
class TESSEL_API Change {
 public:
  enum class Kind : uint8_t { written, added, removed };

  explicit Change(const AttributeName& attribute) : attribute_(&attribute) {}
  template <class Key>
  Change(const CollectionName<Key>& collection, Kind kind, const Key& key)
      : attribute_(&collection), key_(&key), kind_(kind) {}

  bool is(const AttributeName& attribute) const { return attribute_ == &attribute; }
  Kind kind() const { return kind_; }
  const char* attributeName() const { return attribute_->text; }

  /// The key of the member that changed if the change is one of `collection`, else null. Valid
  /// during the notification.
  template <class Key>
  const Key* memberOf(const CollectionName<Key>& collection) const {
    return is(collection) ? static_cast<const Key*>(key_) : nullptr;
  }

 private:
  const AttributeName* attribute_;
  const void* key_ = nullptr;
  Kind kind_ = Kind::written;
};

/// An observer's tie to one entity: it lasts from `attach` until `end`, until this object dies or
/// until the entity dies.
class TESSEL_API Subscription {
 public:
  Subscription() = default;
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { end(); }

  /// Calls `(observer.*Method)(change)` on every change of `entity` from now on; ends the tie that
  /// stood before.
  template <auto Method, class Observer>
  void attach(const Entity& entity, Observer& observer) {
    start(entity, &observer, [](void* target, const Change& change) {
      (static_cast<Observer*>(target)->*Method)(change);
    });
  }
  void end();
  bool active() const { return entity_ != nullptr; }

 private:
  friend class Entity;
  using Invoke = void (*)(void*, const Change&);

  void start(const Entity& entity, void* observer, Invoke invoke);

  const Entity* entity_ = nullptr;
  Subscription* previous_ = nullptr;  // A ring: the first one's predecessor is the last one.
  Subscription* next_ = nullptr;
  void* observer_ = nullptr;
  Invoke invoke_ = nullptr;
};

/// Base of every object with observers; the contract stands at the head of this file.
class TESSEL_API Entity : public RefCounted {
 public:
  /// Tells the observers. For the entity's own attributes.
  void notify(const Change& change) const {
    if (first_ != nullptr) [[unlikely]] {
      deliver(change);
    }
  }

 protected:
  Entity() = default;
  ~Entity() override;

 private:
  friend class Subscription;

  void deliver(const Change& change) const;

  mutable Subscription* first_ = nullptr;
};

/// One value of an entity. An equal write is silent.
template <class T>
class TESSEL_API Attribute {
 public:
  const T& value() const { return value_; }
  void valueIs(const Entity& owner, const AttributeName& name, T value) {
    if (value_ == value) {
      return;
    }
    value_ = std::move(value);
    owner.notify(Change(name));
  }

 private:
  T value_{};
};

/// Member entities by key. A new member is made as `T(owner, key, args...)` where it can be, else
/// as `T(key, args...)`.
template <class Key, class T>
class TESSEL_API MemberCollection {
 public:
  const KeyedCollection<Key, Ptr<T>>& members() const { return members_; }

  const Ptr<T>& member(const Key& key) const {
    static const Ptr<T> none;
    const Ptr<T>* found = members_.find(key);
    return found == nullptr ? none : *found;
  }
  template <class Owner, class... Args>
  Ptr<T> memberIs(Owner& owner, const CollectionName<Key>& name, const Key& key, Args&&... args) {
    if (const Ptr<T>* found = members_.find(key)) {
      return *found;
    }
    Ptr<T> made;
    if constexpr (requires { new T(owner, key, std::forward<Args>(args)...); }) {
      made = makePtr<T>(owner, key, std::forward<Args>(args)...);
    } else {
      made = makePtr<T>(key, std::forward<Args>(args)...);
    }
    members_.emplace(key, made);
    owner.notify(Change(name, Change::Kind::added, key));
    return made;
  }
  void memberDel(const Entity& owner, const CollectionName<Key>& name, const Key& key) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it may live in the member.
    const Key removed = key;
    if (const std::optional<Ptr<T>> member = members_.take(removed)) {
      owner.notify(Change(name, Change::Kind::removed, removed));
    }
  }
  void memberDelAll(const Entity& owner, const CollectionName<Key>& name) {
    for (const Key& key : members_.keys()) {
      memberDel(owner, name, key);
    }
  }

 private:
  KeyedCollection<Key, Ptr<T>> members_;
};

/// Values by key. Reading a key that is not there gives a default value.
template <class Key, class T>
class TESSEL_API ValueCollection {
 public:
  const KeyedCollection<Key, T>& values() const { return values_; }

  const T& value(const Key& key) const {
    static const T none{};
    const T* found = values_.find(key);
    return found == nullptr ? none : *found;
  }
  void valueIs(const Entity& owner, const CollectionName<Key>& name, const Key& key, T value) {
    const auto [member, made] = values_.emplace(key);
    if (!made && member == value) {
      return;
    }
    member = std::move(value);
    owner.notify(Change(name, made ? Change::Kind::added : Change::Kind::written, key));
  }
  void valueDel(const Entity& owner, const CollectionName<Key>& name, const Key& key) {
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): as above.
    const Key removed = key;
    if (values_.take(removed)) {
      owner.notify(Change(name, Change::Kind::removed, removed));
    }
  }

 private:
  KeyedCollection<Key, T> values_;
};

}  // namespace tessel

// The kinds of attributes. Each macro spells the names of one attribute; the templates above do the
// work. `xName` is the attribute's identity in notifications.

/// A value: x(), xIs(value).
#define HOST_ATTRIBUTE(name, ...)                             \
 public:                                                      \
  static constexpr ::tessel::AttributeName name##Name{#name}; \
  const __VA_ARGS__& name() const {                           \
    return name##_.value();                                   \
  }                                                           \
  void name##Is(__VA_ARGS__ value) {                          \
    name##_.valueIs(*this, name##Name, std::move(value));     \
  }                                                           \
                                                              \
 private:                                                     \
  ::tessel::Attribute<__VA_ARGS__> name##_;                   \
                                                              \
 public:                                                      \
  static_assert(true, "swallows the semicolon")

/// A text of which there are few different ones, as of names of algorithms: x(), xIs(text).
#define HOST_NAME(name)                                               \
 public:                                                              \
  static constexpr ::tessel::AttributeName name##Name{#name};         \
  const std::string& name() const {                                   \
    return name##_.value().text();                                    \
  }                                                                   \
  void name##Is(std::string_view text) {                              \
    name##_.valueIs(*this, name##Name, ::tessel::InternedText(text)); \
  }                                                                   \
                                                                      \
 private:                                                             \
  ::tessel::Attribute<::tessel::InternedText> name##_;                \
                                                                      \
 public:                                                              \
  static_assert(true, "swallows the semicolon")

/// A U32 that only grows: x(), xInc(n).
#define HOST_COUNTER(name)                                    \
 public:                                                      \
  static constexpr ::tessel::AttributeName name##Name{#name}; \
  uint32_t name() const {                                     \
    return name##_.value();                                   \
  }                                                           \
  void name##Inc(uint32_t n) {                                \
    name##_.valueIs(*this, name##Name, name##_.value() + n);  \
  }                                                           \
                                                              \
 private:                                                     \
  ::tessel::Attribute<uint32_t> name##_;                      \
                                                              \
 public:                                                      \
  static_assert(true, "swallows the semicolon")

/// A child entity: x() is null until xIs() has made it; xDel() drops it.
#define HOST_CHILD(name, Type)                                              \
 public:                                                                    \
  static constexpr ::tessel::AttributeName name##Name{#name};               \
  const ::tessel::Ptr<Type>& name() const {                                 \
    return name##_.value();                                                 \
  }                                                                         \
  const ::tessel::Ptr<Type>& name##Is() {                                   \
    if (!name##_.value()) {                                                 \
      name##_.valueIs(*this, name##Name, ::tessel::makeChild<Type>(*this)); \
    }                                                                       \
    return name##_.value();                                                 \
  }                                                                         \
  void name##Del() {                                                        \
    name##_.valueIs(*this, name##Name, nullptr);                            \
  }                                                                         \
                                                                            \
 private:                                                                   \
  ::tessel::Attribute<::tessel::Ptr<Type>> name##_;                         \
                                                                            \
 public:                                                                    \
  static_assert(true, "swallows the semicolon")

/// Member entities by key: x(), x(key) (null if absent), xIs(key, ...) (finds or makes), xHas(key),
/// xDel(key), xDelAll().
#define HOST_COLLECTION(name, Key, Type)                                          \
 public:                                                                          \
  static constexpr ::tessel::CollectionName<Key> name##Name{{#name}};             \
  const ::tessel::KeyedCollection<Key, ::tessel::Ptr<Type>>& name() const {       \
    return name##_.members();                                                     \
  }                                                                               \
  const ::tessel::Ptr<Type>& name(const Key& key) const {                         \
    return name##_.member(key);                                                   \
  }                                                                               \
  bool name##Has(const Key& key) const {                                          \
    return name##_.members().has(key);                                            \
  }                                                                               \
  template <class... Args>                                                        \
  ::tessel::Ptr<Type> name##Is(const Key& key, Args&&... args) {                  \
    return name##_.memberIs(*this, name##Name, key, std::forward<Args>(args)...); \
  }                                                                               \
  void name##Del(const Key& key) {                                                \
    name##_.memberDel(*this, name##Name, key);                                    \
  }                                                                               \
  void name##DelAll() {                                                           \
    name##_.memberDelAll(*this, name##Name);                                      \
  }                                                                               \
                                                                                  \
 private:                                                                         \
  ::tessel::MemberCollection<Key, Type> name##_;                                  \
                                                                                  \
 public:                                                                          \
  static_assert(true, "swallows the semicolon")

/// Values by key: x(), x(key) (a default value if absent), xIs(key, value), xHas(key), xDel(key).
#define HOST_VALUES(name, Key, Type)                                  \
 public:                                                              \
  static constexpr ::tessel::CollectionName<Key> name##Name{{#name}}; \
  const ::tessel::KeyedCollection<Key, Type>& name() const {          \
    return name##_.values();                                          \
  }                                                                   \
  const Type& name(const Key& key) const {                            \
    return name##_.value(key);                                        \
  }                                                                   \
  bool name##Has(const Key& key) const {                              \
    return name##_.values().has(key);                                 \
  }                                                                   \
  void name##Is(const Key& key, Type value) {                         \
    name##_.valueIs(*this, name##Name, key, std::move(value));        \
  }                                                                   \
  void name##Del(const Key& key) {                                    \
    name##_.valueDel(*this, name##Name, key);                         \
  }                                                                   \
                                                                      \
 private:                                                             \
  ::tessel::ValueCollection<Key, Type> name##_;                       \
                                                                      \
 public:                                                              \
  static_assert(true, "swallows the semicolon")

namespace tessel {

/// Makes a child as `T(owner)` where it can be, else as `T()`.
template <class T, class Owner>
Ptr<T> makeChild(Owner& owner) {
  if constexpr (requires { new T(owner); }) {
    return makePtr<T>(owner);
  } else {
    return makePtr<T>();
  }
}

}  // namespace tessel
