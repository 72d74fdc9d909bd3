// Controllers: the PF controllers, which carry every router's published key record to the others.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/entity/Entity.h"
#include "host/model/Controller.h"
#include "host/model/Duration.h"
#include "host/runtime/VirtualTime.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// What the controllers and an agent share: one set per start of a router.
struct ControllerClient {
  Ptr<VirtualTimeScheduler> scheduler;
  Ptr<const Controller::LocalKeyDir> localKeyDir;
  Ptr<Controller::PeerKeyDir> peerKeyDir;
  Ptr<Controller::Status> status;
};

/// `publishedRecord`, shared by all who are to receive it; null while nothing is published.
std::shared_ptr<const Controller::PeerKeyInfo> readRecord(const Controller::LocalKeyDir& dir);

/// What became of disturbed deliveries to a router, since the lab began.
struct DeliveryCounts {
  uint64_t repeated = 0;  ///< Written once more.
  uint64_t outdated = 0;  ///< Arrived behind something newer and were dropped.
  uint64_t skipped = 0;   ///< Never sent: something newer came while they waited.
};

/// Is told what passes between the controllers and the routers.
class ControllersObserver {
 public:
  virtual ~ControllersObserver() = default;
  /// A router's record was taken up; null: it withdrew its key.
  virtual void handlePublished(const std::string& router,
                               const Controller::PeerKeyInfo* record) = 0;
  /// A router was told of the record filed under `originator`; null: that there is none any more.
  virtual void handleDelivered(const std::string& router, const IpGenAddr& originator,
                               const Controller::PeerKeyInfo* record) = 0;
  virtual void handleConnected(const std::string& router, bool connected) = 0;
};

/// The controllers of a lab. They hold one directory together: a record that reaches one of them is
/// known to all. Each has sessions of its own with the routers, which can be lost one by one.
///
/// - A record is taken from a router when its `updateVersion` has changed, as a whole, after the
///   job that wrote it; a router without session is asked when it has one again. A record that is
///   not valid is a withdrawal, and a new originator id withdraws what stood under the old one.
/// - A record reaches every other router that has a session, through each of its sessions, after
///   the delay of the controller and that of the router. What is under way in a session that ends
///   is lost; a new session begins with everything that the controllers hold. A router never gets
///   an older state of a record after a newer one.
/// - `Controller::Status` of a router says whether it has any session. Everything is written in
///   jobs of the router's scheduler.
class Controllers {
 public:
  /// Whether a controller sends `originator`'s record to `receiver`.
  using Audience = std::function<bool(const std::string& originator, const std::string& receiver)>;

  Controllers(const std::vector<ControllerPlan>& plans, Audience audience,
              ControllersObserver* observer, uint64_t seed = 1);
  Controllers(const Controllers&) = delete;
  Controllers& operator=(const Controllers&) = delete;
  ~Controllers();

  /// Makes a router known, with a session to every controller once it is attached.
  void routerIs(const std::string& router, Duration delay);

  /// An agent comes up: its status is written at once, records follow. For the agent's own jobs.
  void attach(const std::string& router, const ControllerClient& client);
  /// An agent goes down: its sessions end, its record stays.
  void detach(const std::string& router);
  /// A router is gone for good: its record is withdrawn everywhere.
  void withdraw(const std::string& router);

  /// Connectivity between a router and a controller; empty names mean all.
  void connectedIs(const std::string& router, const std::string& controller, bool connected);
  /// Whether the router can reach a controller at all.
  bool connected(const std::string& router) const;
  /// Added to a controller's delay for what the router receives.
  void routerDelayIs(const std::string& router, Duration delay);
  void controllerDelayIs(const std::string& controller, Duration delay);

  /// Holds back what routers would receive from now on: it waits, per router and in its order,
  /// until it is delivered. The end of the hold delivers all.
  void heldIs(bool held);
  /// Whether something waits for a router that it does not know already. What it knows is dropped.
  bool waiting(const std::string& router);
  /// Delivers, in a job of the router, the first of what waits for it.
  void deliverNext(const std::string& router);

  /// Misbehaves.
  void mutantIs(Mutant mutant) { mutant_ = mutant; }

  /// Misbehaviour, for what `receiver` gets of `originator`; an empty receiver means every router.
  /// Records that arrive stay as they are until something newer is sent.

  /// Sends a record spoilt by `fault`: the present one, or the next that is published instead of
  /// it. A later publication is sent as it is.
  void corrupt(const std::string& originator, const std::string& receiver, RecordFault fault,
               bool nextPublication);
  /// Withdraws the record and sends nothing of the originator until `restoreRecord`.
  void withdrawRecord(const std::string& originator, const std::string& receiver);
  /// Ends both and sends the record as the originator published it last.
  void restoreRecord(const std::string& originator, const std::string& receiver);

  /// Disturbs what is sent to `receiver` from now on, see `DisturbDelivery`. Random numbers come
  /// from a stream of the receiver's own.
  void disturb(const std::string& receiver, const DisturbDelivery& disturbance);
  /// Ends it, and sends the receiver everything that the controllers hold.
  void settle(const std::string& receiver);
  const DeliveryCounts& deliveryCounts(const std::string& receiver) const;

 private:
  /// Null: withdrawn.
  using Record = std::shared_ptr<const Controller::PeerKeyInfo>;
  struct Fault;
  class Member;
  struct Entry;
  struct Message;

  Member& member(const std::string& name) const;
  void takeRecord(Member& originator);
  void store(Member& originator, const IpGenAddr& address, Record record);
  void distribute(const IpGenAddr& address);
  void distribute(const IpGenAddr& address, Member& receiver);
  void openSession(Member& router, size_t controller);
  void send(const IpGenAddr& address, Member& receiver, size_t controller);
  void receive(Member& receiver, const Message& message);
  void deliverFirst(Member& receiver);
  bool isNews(Member& receiver, const Message& message);
  void hold(Member& receiver, Message message);
  void dispatch(Member& receiver, const Message& message);
  static Message again(Message message, uint64_t session);
  static bool sameRecord(const Message& a, const Message& b);
  void travel(Member& receiver, Message message, Duration way);
  void deliver(Member& receiver, const Message& message);
  void reportConnected(Member& router);
  Record recordFor(const Entry& entry, const Member& receiver) const;
  template <class Change>
  void changeFaults(const std::string& originator, const std::string& receiver, Change change);

  std::vector<ControllerPlan> plans_;
  const Audience audience_;
  ControllersObserver* const observer_;
  const uint64_t seed_;
  std::vector<std::unique_ptr<Member>> members_;  // In the order in which they were made known.
  KeyedCollection<IpGenAddr, Entry> directory_;   // Withdrawn records included.
  uint64_t lastSequence_ = 0;
  bool held_ = false;

  Mutant mutant_ = Mutant::none;
};

}  // namespace tessel::lab
