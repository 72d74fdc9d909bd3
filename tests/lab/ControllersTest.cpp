// The controllers between routers that have no machine: who gets which record when, and what a
// lost connection, a restart and a corrupt record do to that.
#include "lab/controller/Controllers.h"
#include "lab/net/SmallRandom.h"

namespace tessel::lab {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// A router that publishes what it is told to, and writes down what it gets.
class Site {
 public:
  Site(const Ptr<VirtualTime>& time, Controllers& controllers, std::string siteName,
       uint32_t number)
      : name(std::move(siteName)), time_(time), controllers_(controllers), number_(number) {
    controllers_.routerIs(name, Duration());
    start();
  }

  void start() {
    scheduler = makePtr<VirtualTimeScheduler>(time_, name);
    local = makePtr<Controller::LocalKeyDir>();
    peers = makePtr<Controller::PeerKeyDir>();
    status = makePtr<Controller::Status>();
    local->originatorIdIs(address());
    statusSubscription_.attach<&Site::handleStatus>(*status, *this);
    controllers_.attach(name, {scheduler, local, peers, status});
    statusChanges.clear();
  }
  void stop() { controllers_.detach(name); }

  IpGenAddr address() const { return IpGenAddr::fromV4(0xC0000200 + number_); }

  /// Publishes a generation in the order in which a machine writes it.
  void publish(uint64_t counter) {
    local->dhGroupIs(19);
    local->dhKeyIs(Bytes(64, static_cast<uint8_t>(counter + 1)));
    local->dhKeyLenIs(64);
    local->nonceIs(Bytes(32, static_cast<uint8_t>(number_)));
    local->nonceLenIs(32);
    local->encryptAlgoIs(4);
    local->hashAlgoIs(2);
    local->rekeyCounterIs(counter);
    local->validIs(true);
    local->updateVersionInc(1);
  }
  void destroyKey() {
    local->validIs(false);
    local->updateVersionInc(1);
    local->rekeyCounterIs(0);
  }

  /// The generation that this router knows of another one.
  std::optional<uint64_t> generationOf(const Site& other) const {
    return peers->ipsecPeerKeyInfoHas(other.address())
               ? std::optional(peers->ipsecPeerKeyInfo(other.address()).rekeyCounter)
               : std::nullopt;
  }

  const std::string name;
  Ptr<VirtualTimeScheduler> scheduler;
  Ptr<Controller::LocalKeyDir> local;
  Ptr<Controller::PeerKeyDir> peers;
  Ptr<Controller::Status> status;
  std::vector<bool> statusChanges;

 private:
  void handleStatus(const Change&) { statusChanges.push_back(status->connected()); }

  const Ptr<VirtualTime> time_;
  Controllers& controllers_;
  const uint32_t number_;
  Subscription statusSubscription_;
};

class ControllersTest : public testing::Test, public ControllersObserver {
 protected:
  explicit ControllersTest(const std::vector<ControllerPlan>& plans = {{"pf", seconds(1)}})
      : controllers(
            plans, [](const std::string&, const std::string&) { return true; }, this) {}

  void handlePublished(const std::string&, const Controller::PeerKeyInfo*) override {}
  void handleConnected(const std::string&, bool) override {}
  void handleDelivered(const std::string& router, const IpGenAddr& originator,
                       const Controller::PeerKeyInfo* record) override {
    const std::string what = record == nullptr ? "none" : std::to_string(record->rekeyCounter);
    deliveries.push_back(stringValue(time->monotonicTime()) + " " + router + ": " +
                         originator.stringValue() + " " + what);
  }

  std::vector<std::string> run(double span) {
    time->runFor(seconds(span));
    return std::exchange(deliveries, {});
  }

  Ptr<VirtualTime> time = makePtr<VirtualTime>();
  Controllers controllers;
  Site east{time, controllers, "east", 1};
  Site west{time, controllers, "west", 2};
  Site north{time, controllers, "north", 3};
  std::vector<std::string> deliveries;
};

class TwoControllersTest : public ControllersTest {
 protected:
  TwoControllersTest() : ControllersTest({{"fast", seconds(1)}, {"slow", seconds(3)}}) {}
};

TEST_F(ControllersTest, CarryTheWholeRecordToEveryOtherRouterAndNeverAnOlderOne) {
  controllers.routerDelayIs("north", seconds(2));
  east.publish(7);
  EXPECT_THAT(run(10), ElementsAre("1 s west: 192.0.2.1 7", "3 s north: 192.0.2.1 7"));
  const Controller::PeerKeyInfo record = west.peers->ipsecPeerKeyInfo(east.address());
  EXPECT_TRUE(record.isEq({.originatorId = east.address(),
                           .dhKey = Bytes(64, 8),
                           .dhKeyLen = 64,
                           .dhGroup = 19,
                           .nonce = Bytes(32, 1),
                           .nonceLen = 32,
                           .encryptAlgo = 4,
                           .hashAlgo = 2,
                           .valid = 1,
                           .rekeyCounter = 7,
                           .received = 1}));

  // The first record would arrive at 20 s, after the newer one.
  controllers.routerDelayIs("north", seconds(9));
  east.publish(8);
  run(1);
  controllers.routerDelayIs("north", Duration());
  east.publish(9);
  EXPECT_THAT(run(20), ElementsAre("12 s west: 192.0.2.1 9", "12 s north: 192.0.2.1 9"));
}

TEST_F(ControllersTest, TakeARecordWhenItsVersionChangesAndTheJobIsOver) {
  east.publish(0);
  run(2);
  east.local->rekeyCounterIs(1);  // Half a record.
  EXPECT_THAT(run(5), IsEmpty());

  // A key that is destroyed and made anew at once was never away.
  east.destroyKey();
  east.publish(5);
  EXPECT_THAT(run(5), ElementsAre("8 s west: 192.0.2.1 5", "8 s north: 192.0.2.1 5"));

  east.destroyKey();
  EXPECT_THAT(run(5), ElementsAre("13 s west: 192.0.2.1 none", "13 s north: 192.0.2.1 none"));
  EXPECT_EQ(west.generationOf(east), std::nullopt);
}

TEST_F(TwoControllersTest, TellTheSameThingOnceAndLosingOneOfThemCostsItsSpeedOnly) {
  east.publish(1);
  EXPECT_THAT(run(10), ElementsAre("1 s west: 192.0.2.1 1", "1 s north: 192.0.2.1 1"));
  controllers.connectedIs("west", "fast", false);
  east.publish(2);
  EXPECT_THAT(run(10), ElementsAre("11 s north: 192.0.2.1 2", "13 s west: 192.0.2.1 2"));

  // What is under way in the session that ends is lost, what is in the other is not.
  controllers.connectedIs("west", "fast", true);
  run(10);
  east.publish(3);
  run(0.5);
  controllers.connectedIs("west", "fast", false);
  EXPECT_THAT(run(10), ElementsAre("31 s north: 192.0.2.1 3", "33 s west: 192.0.2.1 3"));
  EXPECT_THAT(west.statusChanges, IsEmpty());
}

TEST_F(ControllersTest, BringBothSidesUpToDateWhenTheConnectionIsBack) {
  east.publish(0);
  west.publish(0);
  run(5);
  east.publish(1);
  run(0.5);
  controllers.connectedIs("west", "", false);  // The record is on its way.
  run(5);
  EXPECT_EQ(west.generationOf(east), 0U);
  EXPECT_THAT(west.statusChanges, ElementsAre(false));

  east.publish(2);
  east.publish(3);
  west.publish(1);
  west.publish(2);
  run(5);
  EXPECT_EQ(east.generationOf(west), 0U);

  controllers.connectedIs("west", "", true);
  EXPECT_THAT(run(5), UnorderedElementsAre("16.5 s west: 192.0.2.1 3", "16.5 s east: 192.0.2.2 2",
                                           "16.5 s north: 192.0.2.2 2"));
  EXPECT_THAT(west.statusChanges, ElementsAre(false, true));
}

TEST_F(ControllersTest, KeepTheRecordOfARouterThatRestarts) {
  east.publish(3);
  west.publish(1);
  run(5);
  east.stop();
  run(5);
  EXPECT_EQ(west.generationOf(east), 3U);

  east.start();
  EXPECT_TRUE(east.status->connected());
  EXPECT_THAT(run(5), ElementsAre("11 s east: 192.0.2.2 1"));
  EXPECT_THAT(east.statusChanges, IsEmpty());  // It has never been disconnected.
  east.publish(0);
  run(5);
  EXPECT_EQ(west.generationOf(east), 0U);

  east.stop();
  controllers.withdraw("east");
  run(5);
  EXPECT_EQ(west.generationOf(east), std::nullopt);
  EXPECT_EQ(north.generationOf(east), std::nullopt);
}

TEST_F(ControllersTest, SpoilARecordAsAskedAndForThoseWhoAreMeant) {
  using Record = Controller::PeerKeyInfo;
  const std::pair<RecordFault, void (*)(Record&)> rows[] = {
      {RecordFault::badPublicKey, [](Record& record) { record.dhKey = Bytes(64); }},
      {RecordFault::badKeyLength, [](Record& record) { record.dhKey.resize(--record.dhKeyLen); }},
      {RecordFault::badNonceLength, [](Record& record) { record.nonce.resize(--record.nonceLen); }},
      {RecordFault::otherEncryption, [](Record& record) { record.encryptAlgo = 3; }},
      {RecordFault::otherIntegrity, [](Record& record) { record.hashAlgo = 1; }},
      {RecordFault::otherGroup, [](Record& record) { record.dhGroup = 20; }}};
  uint64_t counter = 0;
  for (const auto& [fault, spoil] : rows) {
    SCOPED_TRACE(static_cast<int>(fault));
    east.publish(++counter);
    run(2);
    controllers.corrupt("east", "west", fault, false);
    run(2);
    Record record = north.peers->ipsecPeerKeyInfo(east.address());
    EXPECT_EQ(record.rekeyCounter, counter);
    spoil(record);
    EXPECT_TRUE(west.peers->ipsecPeerKeyInfo(east.address()).isEq(record));
    controllers.restoreRecord("east", "west");
    run(2);
    EXPECT_EQ(west.peers->ipsecPeerKeyInfo(east.address()),
              north.peers->ipsecPeerKeyInfo(east.address()));
  }
}

TEST_F(ControllersTest, SpoilTheNextPublicationAndNoOther) {
  east.publish(1);
  run(2);
  controllers.corrupt("east", "", RecordFault::otherGroup, true);
  EXPECT_THAT(run(2), IsEmpty());
  east.publish(2);
  run(2);
  EXPECT_EQ(west.peers->ipsecPeerKeyInfo(east.address()).dhGroup, 20U);
  EXPECT_EQ(north.peers->ipsecPeerKeyInfo(east.address()).dhGroup, 20U);
  east.publish(3);
  run(2);
  EXPECT_EQ(west.peers->ipsecPeerKeyInfo(east.address()).dhGroup, 19U);
}

/// The generations of a router in the order in which another one's machine would see them.
class Watch {
 public:
  Watch(const Site& at, const Site& of) : at_(at), of_(of) {
    subscription_.attach<&Watch::handlePeers>(*at.peers, *this);
  }
  std::vector<uint64_t> seen;

 private:
  void handlePeers(const Change&) { seen.push_back(at_.generationOf(of_).value()); }
  const Site& at_;
  const Site& of_;
  Subscription subscription_;
};

// 30 generations of east, while west's deliveries are disturbed in every way, their delay changes
// and the connection comes and goes.
TEST(DisturbedDelivery, NeverGoesBackAndEndsWithTheLastRecord) {
  DeliveryCounts all;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    const Ptr<VirtualTime> time = makePtr<VirtualTime>();
    Controllers controllers(
        {{"fast", seconds(1)}, {"slow", seconds(3)}},
        [](const std::string&, const std::string&) { return true; }, nullptr, seed);
    Site east(time, controllers, "east", 1);
    Site west(time, controllers, "west", 2);
    const Watch watch(west, east);
    controllers.disturb("west",
                        {.repeat = 0.5,
                         .reorder = 0.5,
                         .stale = 0.5,
                         .coalesce = seed % 2 == 0 ? std::optional(seconds(8)) : std::nullopt,
                         .late = seconds(20)});
    SmallRandom random(seed);
    for (uint64_t generation = 0; generation < 30; ++generation) {
      east.publish(generation);
      time->runFor(seconds(10 * random.uniform()));
      controllers.routerDelayIs("west", seconds(5 * random.uniform()));
      controllers.connectedIs("west", "fast", random.chance(0.7));
      controllers.connectedIs("west", "slow", random.chance(0.7));
    }
    controllers.connectedIs("west", "", true);
    controllers.settle("west");
    time->runFor(seconds(10));
    EXPECT_TRUE(std::ranges::is_sorted(watch.seen, std::less_equal())) << "none twice, none back";
    EXPECT_EQ(west.generationOf(east), 29U);
    EXPECT_EQ(west.peers->ipsecPeerKeyInfo(east.address()), *readRecord(*east.local));
    time->runFor(seconds(100));  // What was held up comes in, too late.
    EXPECT_EQ(watch.seen.back(), 29U);
    const DeliveryCounts& counts = controllers.deliveryCounts("west");
    EXPECT_EQ(counts.skipped > 0, seed % 2 == 0);
    all.repeated += counts.repeated;
    all.outdated += counts.outdated;
  }
  EXPECT_GT(all.repeated, 20U);
  EXPECT_GT(all.outdated, 100U);
}

TEST_F(ControllersTest, CoalesceWhatComesWhileADeliveryWaits) {
  controllers.disturb("west", {.coalesce = seconds(10)});
  east.publish(1);
  run(4);
  east.publish(2);
  north.publish(5);
  EXPECT_THAT(run(8), ElementsAre("5 s north: 192.0.2.1 2", "5 s east: 192.0.2.3 5",
                                  "11 s west: 192.0.2.1 2"));
  EXPECT_THAT(run(8), ElementsAre("15 s west: 192.0.2.3 5"));
  // The end does not wait for what waits.
  east.publish(3);
  controllers.settle("west");
  EXPECT_THAT(run(20), ElementsAre("21 s west: 192.0.2.1 3", "21 s north: 192.0.2.1 3"));
}

}  // namespace
}  // namespace tessel::lab
