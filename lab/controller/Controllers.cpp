#include "lab/controller/Controllers.h"

#include <algorithm>
#include <deque>
#include <stdexcept>
#include <utility>

namespace tessel::lab {
namespace {

uint8_t narrowCode(uint16_t code, const char* field) {
  if (code > UINT8_MAX) {
    throw std::range_error(std::string(field) + ": " + std::to_string(code) +
                           " does not fit a peer's record");
  }
  return static_cast<uint8_t>(code);
}

template <class Code>
uint8_t otherCode(uint8_t code, Code usual, Code instead) {
  return static_cast<uint8_t>(code == static_cast<uint8_t>(usual) ? instead : usual);
}

void dropLastByte(Bytes& bytes, uint32_t& length) {
  if (!bytes.empty()) {
    bytes.pop_back();
  }
  length = static_cast<uint32_t>(bytes.size());
}

void spoil(Controller::PeerKeyInfo& record, RecordFault fault) {
  switch (fault) {
    case RecordFault::badPublicKey:
      // Zero is outside of every MODP group, and (0, 0) is on none of the curves.
      std::ranges::fill(record.dhKey, uint8_t{0});
      return;
    case RecordFault::badKeyLength:
      dropLastByte(record.dhKey, record.dhKeyLen);
      return;
    case RecordFault::badNonceLength:
      dropLastByte(record.nonce, record.nonceLen);
      return;
    case RecordFault::otherEncryption:
      record.encryptAlgo = otherCode(record.encryptAlgo, IpsecEspAlgorithm::aes256Gcm128,
                                     IpsecEspAlgorithm::aes128Gcm128);
      return;
    case RecordFault::otherIntegrity:
      record.hashAlgo =
          otherCode(record.hashAlgo, IpsecHmacAlgorithm::sha256, IpsecHmacAlgorithm::sha1);
      return;
    case RecordFault::otherGroup:
      record.dhGroup = getDhGroupNum(record.dhGroup == getDhGroupNum(IpsecDhGroup::ecp256)
                                         ? IpsecDhGroup::ecp384
                                         : IpsecDhGroup::ecp256);
      return;
  }
}

}  // namespace

std::shared_ptr<const Controller::PeerKeyInfo> readRecord(const Controller::LocalKeyDir& dir) {
  if (!dir.valid()) {
    return nullptr;
  }
  return std::make_shared<Controller::PeerKeyInfo>(
      Controller::PeerKeyInfo{.originatorId = dir.originatorId(),
                              .dhKey = dir.dhKey(),
                              .dhKeyLen = dir.dhKeyLen(),
                              .dhGroup = dir.dhGroup(),
                              .nonce = dir.nonce(),
                              .nonceLen = dir.nonceLen(),
                              .encryptAlgo = narrowCode(dir.encryptAlgo(), "encryptAlgo"),
                              .hashAlgo = narrowCode(dir.hashAlgo(), "hashAlgo"),
                              .valid = 1,
                              .rekeyCounter = dir.rekeyCounter(),
                              .received = 1});
}

/// What one router gets of one originator instead of the truth.
struct Controllers::Fault {
  bool withheld = false;
  std::optional<RecordFault> present{};  ///< Spoils the record that stands.
  std::optional<RecordFault> next{};     ///< Will spoil the record that is published next.
};

/// A record under its originator's address.
struct Controllers::Entry {
  Member* originator = nullptr;
  Record record;
};

/// A record on its way to a router.
struct Controllers::Message {
  IpGenAddr address;
  Record record;
  uint64_t sequence;  ///< A higher number is a newer state of the directory.
  size_t controller;
  uint64_t session;
};

/// A router as the controllers know it.
class Controllers::Member {
 public:
  struct Session {
    bool up = true;
    uint64_t number = 0;  ///< Grows when a session ends: what is under way in it is then lost.
  };

  Member(Controllers& controllers, std::string name, Duration delay, size_t sessions)
      : name_(std::move(name)), delay_(delay), sessions_(sessions), controllers_(controllers) {}

  void handleLocalKeyDir(const Change& change) {
    if (!change.is(Controller::LocalKeyDir::updateVersionName)) {
      return;
    }
    // Read after the job that writes: a key that is destroyed and generated at once is one change.
    post([this] { controllers_.takeRecord(*this); });
  }

  bool attached() const { return client_.scheduler != nullptr; }
  bool connected() const {
    return std::ranges::any_of(sessions_, [](const Session& session) { return session.up; });
  }
  /// Runs a job in the agent as it is now; not at all when that has gone down by then.
  void post(std::function<void()> job) { postAfter(Duration(), std::move(job)); }
  void postAfter(Duration delay, std::function<void()> job) {
    client_.scheduler->at(client_.scheduler->clock().monotonicTime() + delay,
                          [this, attachment = attachments_, job = std::move(job)] {
                            if (attached() && attachment == attachments_) {
                              job();
                            }
                          });
  }

  const std::string name_;
  Duration delay_;
  ControllerClient client_;
  uint64_t attachments_ = 0;
  Subscription localKeyDir_;
  std::vector<Session> sessions_;
  /// The `updateVersion` of the record that was taken last.
  uint32_t takenVersion_ = 0;
  /// Where the router's record is filed; unspecified: nowhere.
  IpGenAddr address_;
  /// By receiver.
  KeyedCollection<std::string, Fault> faults_;
  /// The newest state that this router was told of, by the originator's address.
  KeyedCollection<IpGenAddr, uint64_t> delivered_;
  /// What is held back.
  std::deque<Message> waiting_;

 private:
  Controllers& controllers_;
};

Controllers::Controllers(const std::vector<ControllerPlan>& plans, Audience audience,
                         ControllersObserver* observer)
    : plans_(plans), audience_(std::move(audience)), observer_(observer) {}

Controllers::~Controllers() = default;

void Controllers::routerIs(const std::string& router, Duration delay) {
  members_.push_back(std::make_unique<Member>(*this, router, delay, plans_.size()));
}

void Controllers::attach(const std::string& router, const ControllerClient& client) {
  Member& member = this->member(router);
  member.client_ = client;
  ++member.attachments_;
  member.takenVersion_ = 0;
  member.localKeyDir_.attach<&Member::handleLocalKeyDir>(*client.localKeyDir, member);
  // At once, before there is a machine: an agent does not come up to the news of a lost connection.
  client.status->connectedIs(member.connected());
  for (size_t controller = 0; controller < plans_.size(); ++controller) {
    if (member.sessions_[controller].up) {
      openSession(member, controller);
    }
  }
}

void Controllers::detach(const std::string& router) {
  Member& member = this->member(router);
  member.localKeyDir_.end();
  member.client_ = {};
  member.delivered_.clear();
  for (Member::Session& session : member.sessions_) {
    ++session.number;
  }
}

void Controllers::withdraw(const std::string& router) {
  Member& member = this->member(router);
  if (!member.address_.isUnspecified()) {
    store(member, member.address_, nullptr);
    member.address_ = {};
  }
}

void Controllers::connectedIs(const std::string& router, const std::string& controller,
                              bool connected) {
  for (const std::unique_ptr<Member>& each : members_) {
    if (!router.empty() && each->name_ != router) {
      continue;
    }
    for (size_t i = 0; i < plans_.size(); ++i) {
      Member::Session& session = each->sessions_[i];
      if ((!controller.empty() && plans_[i].name != controller) || session.up == connected) {
        continue;
      }
      session.up = connected;
      ++session.number;
      if (connected && each->attached()) {
        openSession(*each, i);
      }
    }
    if (each->attached()) {
      each->post([this, member = each.get()] { reportConnected(*member); });
    }
  }
}

bool Controllers::connected(const std::string& router) const {
  return member(router).connected();
}

void Controllers::routerDelayIs(const std::string& router, Duration delay) {
  member(router).delay_ = delay;
}

void Controllers::controllerDelayIs(const std::string& controller, Duration delay) {
  for (ControllerPlan& plan : plans_) {
    if (plan.name == controller) {
      plan.delay = delay;
    }
  }
}

void Controllers::heldIs(bool held) {
  held_ = held;
  for (const std::unique_ptr<Member>& each : members_) {
    while (!held && !each->waiting_.empty()) {
      deliverFirst(*each);
    }
  }
}

bool Controllers::waiting(const std::string& router) {
  Member& receiver = member(router);
  while (!receiver.waiting_.empty() && !isNews(receiver, receiver.waiting_.front())) {
    receiver.waiting_.pop_front();
  }
  return !receiver.waiting_.empty();
}

void Controllers::deliverNext(const std::string& router) {
  if (waiting(router)) {
    deliverFirst(member(router));
  }
}

void Controllers::deliverFirst(Member& receiver) {
  if (receiver.attached()) {
    receiver.post(
        [this, &receiver, message = receiver.waiting_.front()] { deliver(receiver, message); });
  }
  receiver.waiting_.pop_front();
}

void Controllers::corrupt(const std::string& originator, const std::string& receiver,
                          RecordFault fault, bool nextPublication) {
  changeFaults(originator, receiver, [&](Fault& faults) {
    (nextPublication ? faults.next : faults.present) = fault;
    return !nextPublication;
  });
}

void Controllers::withdrawRecord(const std::string& originator, const std::string& receiver) {
  changeFaults(originator, receiver, [](Fault& faults) {
    faults.withheld = true;
    return true;
  });
}

void Controllers::restoreRecord(const std::string& originator, const std::string& receiver) {
  changeFaults(originator, receiver, [](Fault& faults) {
    faults = {};
    return true;
  });
}

/// Calls `change` for the faults of every receiver that is meant; it returns whether the receiver
/// is to be told at once.
template <class Change>
void Controllers::changeFaults(const std::string& originator, const std::string& receiver,
                               Change change) {
  Member& from = member(originator);
  for (const std::unique_ptr<Member>& to : members_) {
    if (to.get() == &from || (!receiver.empty() && to->name_ != receiver)) {
      continue;
    }
    if (change(from.faults_.emplace(to->name_).first) && directory_.has(from.address_)) {
      distribute(from.address_, *to);
    }
  }
}

Controllers::Member& Controllers::member(const std::string& name) const {
  const auto found = std::ranges::find_if(
      members_, [&](const std::unique_ptr<Member>& each) { return each->name_ == name; });
  if (found == members_.end()) {
    throw std::invalid_argument("controllers: no router \"" + name + "\"");
  }
  return **found;
}

void Controllers::takeRecord(Member& originator) {
  const Controller::LocalKeyDir& dir = *originator.client_.localKeyDir;
  if (!originator.connected() || dir.updateVersion() == originator.takenVersion_) {
    return;  // Taken when the connection is back, or taken already with an earlier change.
  }
  originator.takenVersion_ = dir.updateVersion();

  const IpGenAddr address = dir.originatorId();
  if (originator.address_ != address && !originator.address_.isUnspecified()) {
    store(originator, originator.address_, nullptr);
  }
  originator.address_ = address;
  for (auto& [receiver, faults] : originator.faults_) {
    faults.present = std::exchange(faults.next, std::nullopt);
  }
  store(originator, address, readRecord(dir));
}

void Controllers::store(Member& originator, const IpGenAddr& address, Record record) {
  Entry& entry = directory_.emplace(address).first;
  entry.originator = &originator;
  if (!record && !entry.record) {
    return;
  }
  entry.record = std::move(record);
  if (observer_ != nullptr) {
    observer_->handlePublished(originator.name_, entry.record.get());
  }
  distribute(address);
}

void Controllers::distribute(const IpGenAddr& address) {
  for (const std::unique_ptr<Member>& receiver : members_) {
    distribute(address, *receiver);
  }
}

void Controllers::distribute(const IpGenAddr& address, Member& receiver) {
  for (size_t controller = 0; controller < plans_.size(); ++controller) {
    if (receiver.attached() && receiver.sessions_[controller].up) {
      send(address, receiver, controller);
    }
  }
}

void Controllers::openSession(Member& router, size_t controller) {
  router.post([this, &router] { takeRecord(router); });
  for (const auto& [address, entry] : directory_) {
    send(address, router, controller);
  }
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
  receiver.postAfter(
      plans_[controller].delay + receiver.delay_,
      [this, &receiver, message = std::move(message)] { receive(receiver, message); });
}

Controllers::Record Controllers::recordFor(const Entry& entry, const Member& receiver) const {
  const Fault* fault = entry.originator->faults_.find(receiver.name_);
  if (fault == nullptr || !entry.record) {
    return entry.record;
  }
  if (fault->withheld) {
    return nullptr;
  }
  if (!fault->present) {
    return entry.record;
  }
  const auto spoilt = std::make_shared<Controller::PeerKeyInfo>(*entry.record);
  spoil(*spoilt, *fault->present);
  return spoilt;
}

void Controllers::receive(Member& receiver, const Message& message) {
  if (held_) {
    receiver.waiting_.push_back(message);
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
    return false;
  }
  delivered = message.sequence;
  const Controller::PeerKeyDir& dir = *receiver.client_.peerKeyDir;
  const bool known = dir.ipsecPeerKeyInfoHas(message.address);
  return message.record ? !known || dir.ipsecPeerKeyInfo(message.address) != *message.record
                        : known;
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

void Controllers::reportConnected(Member& router) {
  const bool connected = router.connected();
  if (router.client_.status->connected() == connected) {
    return;
  }
  if (observer_ != nullptr) {
    observer_->handleConnected(router.name_, connected);
  }
  router.client_.status->connectedIs(connected);
}

}  // namespace tessel::lab
