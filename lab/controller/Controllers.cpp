#include "lab/controller/Controllers.h"

#include <algorithm>
#include <deque>
#include <stdexcept>
#include <utility>

#include "lab/controller/ControllersMember.h"

namespace tessel::lab {
namespace {

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
  std::optional<Controller::PeerKeyInfo> record = publishedRecord(dir);
  return record ? std::make_shared<Controller::PeerKeyInfo>(std::move(*record)) : nullptr;
}

Controllers::Controllers(const std::vector<ControllerPlan>& plans, Audience audience,
                         ControllersObserver* observer, uint64_t seed)
    : plans_(plans), audience_(std::move(audience)), observer_(observer), seed_(seed) {}

Controllers::~Controllers() = default;

void Controllers::routerIs(const std::string& router, Duration delay) {
  members_.push_back(std::make_unique<Member>(*this, router, delay, plans_.size(),
                                              streamSeed(seed_, router + "/delivery")));
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
  member.waiting_.clear();
  member.heldBack_.clear();
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
