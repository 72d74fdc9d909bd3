// What the controllers keep of a router and of a record. For their own sources alone.
#pragma once

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lab/controller/Controllers.h"
#include "lab/net/SmallRandom.h"

namespace tessel::lab {

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
  bool again = false;  ///< It was sent before.
};

/// A router as the controllers know it.
class Controllers::Member {
 public:
  struct Session {
    bool up = true;
    uint64_t number = 0;  ///< Grows when a session ends: what is under way in it is then lost.
  };

  Member(Controllers& controllers, std::string name, Duration delay, size_t sessions, uint64_t seed)
      : name_(std::move(name)),
        delay_(delay),
        sessions_(sessions),
        random_(seed),
        controllers_(controllers) {}

  void handleLocalKeyDir(const Change& change) {
    if (controllers_.mutant_ == Mutant::readsHalves &&
        change.is(Controller::LocalKeyDir::nonceName)) {
      const Record half = readRecord(*client_.localKeyDir);
      if (half) {
        controllers_.store(*this, address_, half);
      }
    }
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
  /// What has arrived and is held back.
  std::deque<Message> heldBack_;

  // Disturbed deliveries to this router.

  /// What was sent last and what was sent before that was different, by the originator's address.
  struct Sent {
    std::optional<Message> latest{};
    std::optional<Message> older{};
  };
  /// Which controller has what in store for the router until it has waited long enough.
  using Waiting = std::map<std::pair<size_t, IpGenAddr>, Message>;

  std::optional<DisturbDelivery> disturbance_;
  SmallRandom random_;
  Waiting waiting_;
  KeyedCollection<IpGenAddr, Sent> sent_;
  DeliveryCounts counts_;

 private:
  Controllers& controllers_;
};

}  // namespace tessel::lab
