// Deliveries: a record's way from the controllers to one router, straight or disturbed.
#include "lab/controller/ControllersMember.h"

namespace tessel::lab {

void Controllers::disturb(const std::string& receiver, const DisturbDelivery& disturbance) {
  member(receiver).disturbance_ = disturbance;
}

void Controllers::settle(const std::string& receiver) {
  Member& to = member(receiver);
  to.disturbance_.reset();
  to.waiting_.clear();
  // What is still under way is older than this.
  for (const auto& [address, entry] : directory_) {
    distribute(address, to);
  }
}

const DeliveryCounts& Controllers::deliveryCounts(const std::string& receiver) const {
  return member(receiver).counts_;
}

void Controllers::send(const IpGenAddr& address, Member& receiver, size_t controller) {
  const Entry& entry = *directory_.find(address);
  if (entry.originator == &receiver || !audience_(entry.originator->name_, receiver.name_)) {
    return;
  }
  Message message{.address = address,
                  .record = recordFor(entry, receiver),
                  .sequence = ++lastSequence_,
                  .controller = controller,
                  .session = receiver.sessions_[controller].number};
  if (receiver.disturbance_ && receiver.disturbance_->coalesce) {
    hold(receiver, std::move(message));
  } else {
    dispatch(receiver, message);
  }
}

/// Keeps a message back. What follows meanwhile takes its place, and not its time.
void Controllers::hold(Member& receiver, Message message) {
  const std::pair key(message.controller, message.address);
  if (const auto waiting = receiver.waiting_.find(key); waiting != receiver.waiting_.end()) {
    waiting->second = std::move(message);
    ++receiver.counts_.skipped;
    return;
  }
  receiver.waiting_.emplace(key, std::move(message));
  receiver.postAfter(*receiver.disturbance_->coalesce, [this, &receiver, key] {
    if (const auto node = receiver.waiting_.extract(key)) {
      dispatch(receiver, node.mapped());
    }
  });
}

/// Puts a message on its way, with what happens to it there.
void Controllers::dispatch(Member& receiver, const Message& message) {
  Member::Sent& sent = receiver.sent_.emplace(message.address).first;
  if (sent.latest && !sameRecord(*sent.latest, message)) {
    sent.older = sent.latest;
  }
  sent.latest = message;

  const Duration way = plans_[message.controller].delay + receiver.delay_;
  if (!receiver.disturbance_) {
    travel(receiver, message, way);
    return;
  }
  const DisturbDelivery& disturbance = *receiver.disturbance_;
  // Always as many numbers: a fault that is switched off leaves the others as they were.
  const auto draw = [&](const std::optional<double>& share) -> std::optional<Duration> {
    const bool happens = receiver.random_.uniform() < share.value_or(0);
    const Duration late = disturbance.late * receiver.random_.uniform();
    return happens ? std::optional(late) : std::nullopt;
  };
  const std::optional<Duration> reordered = draw(disturbance.reorder);
  const std::optional<Duration> repeated = draw(disturbance.repeat);
  const std::optional<Duration> stale = draw(disturbance.stale);
  const Duration arrival = way + reordered.value_or(Duration());
  travel(receiver, message, arrival);
  if (repeated) {
    travel(receiver, again(message, message.session), arrival + *repeated);
  }
  if (stale && sent.older) {
    // Whichever session it came in: a controller may still have it.
    travel(receiver, again(*sent.older, message.session), arrival + *stale);
  }
}

Controllers::Message Controllers::again(Message message, uint64_t session) {
  message.session = session;
  message.again = true;
  return message;
}

bool Controllers::sameRecord(const Message& a, const Message& b) {
  return a.record == b.record || (a.record && b.record && *a.record == *b.record);
}

void Controllers::travel(Member& receiver, Message message, Duration way) {
  receiver.postAfter(
      way, [this, &receiver, message = std::move(message)] { receive(receiver, message); });
}

void Controllers::receive(Member& receiver, const Message& message) {
  if (held_) {
    receiver.heldBack_.push_back(message);
  } else {
    deliver(receiver, message);
  }
}

/// Whether a message tells the router something. Not when its session has ended, when it is late,
/// or when it repeats what is known: another controller was faster, or it comes from a new session.
bool Controllers::isNews(Member& receiver, const Message& message) {
  if (!receiver.attached() || receiver.sessions_[message.controller].number != message.session) {
    return false;
  }
  uint64_t& delivered = receiver.delivered_.emplace(message.address).first;
  if (message.sequence < delivered) {
    ++receiver.counts_.outdated;
    return false;
  }
  delivered = message.sequence;
  Controller::PeerKeyDir& dir = *receiver.client_.peerKeyDir;
  const bool known = dir.ipsecPeerKeyInfoHas(message.address);
  if (!message.record) {
    return known;
  }
  if (!known || dir.ipsecPeerKeyInfo(message.address) != *message.record) {
    return true;
  }
  if (message.again) {
    // A repeated delivery is written once more, as an agent does that does not compare.
    ++receiver.counts_.repeated;
    dir.ipsecPeerKeyInfoIs(message.address, *message.record);
  }
  return false;
}

void Controllers::deliver(Member& receiver, const Message& message) {
  if (!isNews(receiver, message)) {
    return;
  }
  if (observer_ != nullptr) {
    observer_->handleDelivered(receiver.name_, message.address, message.record.get());
  }
  Controller::PeerKeyDir& dir = *receiver.client_.peerKeyDir;
  if (message.record) {
    dir.ipsecPeerKeyInfoIs(message.address, *message.record);
  } else {
    dir.ipsecPeerKeyInfoDel(message.address);
  }
}

// Held back.

void Controllers::heldIs(bool held) {
  held_ = held;
  for (const std::unique_ptr<Member>& each : members_) {
    while (!held && !each->heldBack_.empty()) {
      deliverFirst(*each);
    }
  }
}

bool Controllers::waiting(const std::string& router) {
  Member& receiver = member(router);
  while (!receiver.heldBack_.empty() && !isNews(receiver, receiver.heldBack_.front())) {
    receiver.heldBack_.pop_front();
  }
  return !receiver.heldBack_.empty();
}

void Controllers::deliverNext(const std::string& router) {
  if (waiting(router)) {
    deliverFirst(member(router));
  }
}

void Controllers::deliverFirst(Member& receiver) {
  if (receiver.attached()) {
    receiver.post(
        [this, &receiver, message = receiver.heldBack_.front()] { deliver(receiver, message); });
  }
  receiver.heldBack_.pop_front();
}

}  // namespace tessel::lab
