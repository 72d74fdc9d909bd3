#include "host/entity/Entity.h"

namespace tessel {

namespace {

/// Where a running notification stands. Ending a subscription mends every cursor that points at it.
struct Cursor {
  Subscription* next;
  Subscription* last;
  Cursor* outer;
};

thread_local Cursor* innermostCursor = nullptr;

}  // namespace

void Subscription::start(const Entity& entity, void* observer, Invoke invoke) {
  end();
  entity_ = &entity;
  observer_ = observer;
  invoke_ = invoke;
  if (entity.first_ == nullptr) {
    previous_ = next_ = this;
    entity.first_ = this;
  } else {
    Subscription* const last = entity.first_->previous_;
    previous_ = last;
    next_ = entity.first_;
    last->next_ = this;
    entity.first_->previous_ = this;
  }
}

void Subscription::end() {
  if (entity_ == nullptr) {
    return;
  }
  for (Cursor* cursor = innermostCursor; cursor != nullptr; cursor = cursor->outer) {
    if (cursor->next == this) {
      cursor->next = cursor->last == this ? nullptr : next_;
    }
    if (cursor->last == this) {
      cursor->last = previous_;
    }
  }
  if (next_ == this) {
    entity_->first_ = nullptr;
  } else {
    previous_->next_ = next_;
    next_->previous_ = previous_;
    if (entity_->first_ == this) {
      entity_->first_ = next_;
    }
  }
  entity_ = nullptr;
}

Entity::~Entity() {
  while (first_ != nullptr) {
    first_->end();
  }
}

void Entity::deliver(const Change& change) const {
  const Ptr<const Entity> alive(this);  // An observer may drop the last handle.
  struct Running : Cursor {
    explicit Running(Subscription* first) : Cursor{first, first->previous_, innermostCursor} {
      innermostCursor = this;
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { innermostCursor = outer; }
  } cursor(first_);
  while (cursor.next != nullptr) {
    Subscription* const current = cursor.next;
    cursor.next = current == cursor.last ? nullptr : current->next_;
    current->invoke_(current->observer_, change);
  }
}

}  // namespace tessel
