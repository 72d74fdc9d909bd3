// The frame: which change reaches which handler, what start-up arms, and what teardown leaves.
#include "tests/entity/Allocations.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class Frame : public MachineTest {
 protected:
  /// The handlers that `change` reaches, in order.
  static std::vector<std::string> reached(const std::function<void()>& change) {
    TraceCapture traces;
    change();
    std::vector<std::string> handlers;
    for (const std::string& line : traces.lines()) {
      for (const char* handler :
           {"handleInitialized", "handleProfile", "handlePath", "Handle clear"}) {
        if (line.starts_with(handler)) {
          handlers.emplace_back(handler);
        }
      }
    }
    return handlers;
  }
};

TEST_F(Frame, MembersAreFollowedFromTheStartAndUntilTheyGo) {
  const ConnectionKey key = pathKey(1);
  const MergeResolutionKey mergeKey{0, key.srcAddr, key.dstAddr};
  for (const bool before : {true, false}) {  // Whether the machine finds them at its construction.
    startOver();
    Ptr<Ike::ClearPathCounter> counter;
    Ptr<ProfileNotification> notification;
    Ptr<MergeConnectionInfo> info;
    const auto add = [&] {
      counter = host->ipsecStatus->clearKeyIs(key);
      notification = host->profileNotificationList->notificationIs(profileName);
      info = host->mergeData->connectionInfoIs(mergeKey);
    };
    // Attaching counts as a change for clear requests and profiles, not for merged data.
    if (before) {
      add();
      EXPECT_THAT(reached([&] { start(); }),
                  ElementsAre("Handle clear", "handleProfile", "handleInitialized"));
      EXPECT_EQ(host->ipsecLocalKeyDir->updateVersion(), 1U);  // Not for the profile once more.
    } else {
      start();
      EXPECT_THAT(reached(add), ElementsAre("Handle clear", "handleProfile"));
    }
    // The same member once more is no other; another one in its place is.
    EXPECT_THAT(reached([&] {
                  sm->clearCliPathIs(counter);
                  sm->profileNotificationIs(notification);
                  sm->pathConnectionInfoIs(info);
                }),
                IsEmpty());
    EXPECT_THAT(reached([&] {
                  sm->clearCliPathIs(makePtr<Ike::ClearPathCounter>(key));
                  sm->clearCliPathIs(counter);
                }),
                ElementsAre("Handle clear", "Handle clear"));
    const auto change = [&] {
      counter->clearCntInc(1);
      notification->changeCntInc(1);
      info->connectionIs(key, {.version = info->connection(key).version + 1});
      info->connectionDel(key);
    };
    EXPECT_THAT(reached(change),
                ElementsAre("Handle clear", "handleProfile", "handlePath", "handlePath"));
    EXPECT_THAT(reached([&] {
                  host->ipsecStatus->clearKeyDel(key);
                  host->profileNotificationList->notificationDel(profileName);
                  host->mergeData->connectionInfoDel(mergeKey);
                  change();  // Of members that somebody else still holds.
                }),
                IsEmpty());
  }
  EXPECT_THROW(sm->clearCliPathIs(nullptr), NullArgument);
  EXPECT_THROW(sm->profileNotificationIs(nullptr), NullArgument);
  EXPECT_THROW(sm->pathConnectionInfoIs(nullptr), NullArgument);
  EXPECT_THROW(makePtr<NestedSm_ClearCliPath>(*sm, nullptr), NullArgument);
  const auto helper = sm->confHelper();
  EXPECT_EQ(sm->confHelperIs(host->ipsecConfig, host->ipsecStatus, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr),
            helper);
  EXPECT_NE(sm->confHelperIs(host->ipsecConfig, host->ipsecStatus, nullptr, nullptr, nullptr,
                             host->mergeData, nullptr, nullptr),
            helper);
}

TEST_F(Frame, AMemberThatIsGoneBeforeTheMachineHearsOfItIsIgnored) {
  // Others hear of it first, and take it away again.
  const Meddler clear(*host->ipsecStatus,
                      [&](const Change&) { host->ipsecStatus->clearKeyDelAll(); });
  const Meddler profile(*host->profileNotificationList, [&](const Change&) {
    host->profileNotificationList->notificationDelAll();
  });
  const Meddler merge(*host->mergeData,
                      [&](const Change&) { host->mergeData->connectionInfoDelAll(); });
  start();
  EXPECT_THAT(reached([&] {
                host->ipsecStatus->clearKeyIs(pathKey(1));
                host->profileNotificationList->notificationIs("x");
                host->mergeData->connectionInfoIs({});
              }),
              IsEmpty());
}

TEST_F(Frame, AClearRequestMayEndWhileItIsServed) {
  const ConnectionKey key = establish(makePeer(2));
  for (const bool attached : {true, false}) {
    const auto counter = attached ? nullptr : host->ipsecStatus->clearKeyIs(key);
    const auto old = path(key);
    const Meddler meddler(*old, [&](const Change&) { host->ipsecStatus->clearKeyDelAll(); });
    attached ? void(host->ipsecStatus->clearKeyIs(key)) : counter->clearCntInc(1);
    EXPECT_NE(path(key), old);
    EXPECT_FALSE(host->ipsecStatus->clearKeyHas(key));
    expectTablesAgree();
  }
}

TEST_F(Frame, NothingRunsAfterTeardown) {
  const FakePeer peer = makePeer(2);
  const ConnectionKey key = establish(peer);
  run(30);
  publish(makePeer(3));  // Queues the peer task.
  time->runNext();       // One job; the rest stays queued.
  sm->pathHealth().sanitizeAllPaths();
  sm->dhRekeyBacklogIs(peer.address);
  sm->dhRekeyTask()->scheduleTask();
  const Ptr<Task> keptTask = sm->pathTask();  // An owner elsewhere does not keep the work alive.
  const Ptr<TimerTask> keptTimer = sm->sanityTimer();
  const auto keptPath = path(key);
  const auto keptSaInfo = *keptPath->pathConnSaInfo().find(sa(key, SaType::steadyIn)->sakey());

  sm = nullptr;
  TraceCapture traces;
  (void)events.take();
  run(7200);
  keptSaInfo->addTimeIs(seconds(1));
  keptSaInfo->pktsPresentIs(true);
  keptPath->pathConnSaInfoDelAll();
  host->ipsecConfig->keyControllerIs({});
  host->ipsecDpsPathConfig->routerIdIs(address("192.0.2.8"));
  withdraw(peer);
  host->controllerStatus->connectedIs(false);
  host->ipsecStatus->clearKeyIs(key)->clearCntInc(1);
  host->profileNotificationList->notificationIs(profileName)->changeCntInc(1);
  touchMerge(key);
  EXPECT_THAT(traces.lines(), IsEmpty());
  EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(Frame, AThousandMachinesOverTheSameEntitiesLeaveNothingBehind) {
  host->recordEvents->observerIs(nullptr);  // The fixture's own record of events would grow.
  establish(makePeer(2));
  sm = nullptr;
  // The most that a round leaves allocated, per hundred rounds. One round is no measure for
  // another: each retires the logs of two SAs that are gone and adds those of two new ones, and the
  // tables of the logs give back the blocks that this empties only every few rounds, when gaps
  // prevail.
  int64_t most[10] = {};
  for (size_t round = 0; round < 1000; ++round) {
    start();
    run(0);  // Timers, the peer's first exchange, the path's SAs.
    ASSERT_EQ(vrf()->tesselSa().size(), 2U);
    ASSERT_EQ(host->ipsecStatus->ipsecPeerConnectionState().size(), 1U);
    {
      const Everything everything(*host);
      sm = nullptr;
      ASSERT_EQ(everything.notifications(), 0U);
    }
    ASSERT_TRUE(host->ipsecLocalKeyDir->valid());
    ASSERT_FALSE(time->runNext());  // No timer and no task is left.
    most[round / 100] = std::max(most[round / 100], test::liveAllocations());
  }
  EXPECT_EQ(most[9], most[1]);  // The first hundred fill what grows to its full size.
}

}  // namespace
}  // namespace tessel::Ipsec
