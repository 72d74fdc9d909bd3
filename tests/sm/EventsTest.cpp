// Event recording: rings, the toggle, what is recorded for what is missing, the index of names.
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class EventsTest : public MachineTest {};

TEST_F(EventsTest, ARingKeepsTheLatest) {
  const struct {
    uint32_t capacity;
    uint64_t recorded, inFirstSlot, oldest;
  } rows[] = {{3, 2, 1, 1}, {3, 3, 1, 1}, {3, 5, 4, 3}, {3, 6, 4, 4}, {1, 3, 3, 3}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.recorded);
    startOver();
    host->recordEvents->maxEventRecordIs(0);
    start();
    EXPECT_EQ(host->recordEvents->localEvents(), nullptr);  // 0 records nothing.
    host->recordEvents->maxEventRecordIs(row.capacity);
    for (uint64_t number = 1; number <= row.recorded; ++number) {
      run(1);
      sm->events().recordLocalEvent("generateDhKey", number);
      host->recordEvents->maxEventRecordIs(row.capacity + 1);  // Read once, when the log is made.
    }
    const LocalEventLog& log = *host->recordEvents->localEvents();
    EXPECT_EQ(log.events().size(), row.recorded - row.oldest + 1);
    EXPECT_EQ(log.events().front().number, row.inFirstSlot);
    EXPECT_EQ(log.inOrder().front().number, row.oldest);
    EXPECT_EQ(log.inOrder().back().number, row.recorded);
    EXPECT_EQ(log.inOrder().back().time, time->utcTime());
  }
}

TEST_F(EventsTest, NumbersOfEverySizeAreKeptAndOverwritten) {
  const std::vector<uint64_t> numbers = {1,          UINT32_MAX, UINT64_MAX, 7, 1ULL << 32U,
                                         UINT32_MAX, 2,          3,          4};
  PathEventEntry log({}, 3);
  std::vector<DhKeyPair> latest;
  for (const uint64_t number : numbers) {
    for (const DhKeyPair& pair : {DhKeyPair{number, 0}, DhKeyPair{0, number}}) {
      log.eventsIs(log.head(), {{}, "handlePath", {}, DynamicPathState::active, pair});
      log.headIs((log.head() + 1) % log.capacity());
      latest.push_back(pair);
      if (latest.size() > log.capacity()) {
        latest.erase(latest.begin());
      }
      std::vector<DhKeyPair> kept;
      for (const PathEvent& event : log.inOrder()) {
        kept.push_back(event.dhKeyPair);
      }
      EXPECT_EQ(kept, latest) << number;
    }
  }
}

TEST_F(EventsTest, TheToggleTurnsRecordingOffForGood) {
  Toggles::toggleIs("Ipsec.json", "TrellisSnapshot", false);
  const FakePeer peer = makePeer(2);
  establish(peer);
  Toggles::toggleIs("Ipsec.json", "TrellisSnapshot", true);  // Read once.
  finish(peer);
  EXPECT_THAT(events.take(), IsEmpty());
  const RecordEvents& logs = *host->recordEvents;
  EXPECT_EQ(logs.localEvents(), nullptr);
  EXPECT_EQ(logs.peerEvents().size() + logs.pathEvents().size() + logs.saEvents().size(), 0U);
}

TEST_F(EventsTest, EveryLogHasItsFieldsAndPathsAreFoundByName) {
  FakePeer peer = makePeer(2);
  peer.record.rekeyCounter = 7;
  const ConnectionKey key = establish(peer);
  const DhKeyPair pair{0, 7};
  const RecordEvents& logs = *host->recordEvents;
  const SecurityAssociationKey saKey = sa(key, SaType::steadyOut)->sakey();
  sm->paths().setPathState(path(key), DynamicPathState::active);
  (void)events.take();
  sm->events().recordPathEvent("handlePath", key, {3, 4});
  sm->events().recordSaEvent("deleteSA", saKey, key);
  EXPECT_THAT(events.take(), ElementsAre("path 1 handlePath active(3)", "sa deleteSA"));
  EXPECT_EQ((*logs.pathEvents().find(key))->inOrder().back().dhKeyPair, (DhKeyPair{3, 4}));
  const SaEvent ofSa = (*logs.saEvents().find(saKey))->inOrder().back();
  EXPECT_EQ(ofSa.spi, saKey.spi);
  EXPECT_EQ(ofSa.dhKeyPair, pair);
  EXPECT_EQ((*logs.peerEvents().find(peer.address))->inOrder().back().dhKeyPair, pair);

  const PathNameMapping& mapping = **logs.pathNameMapping().find("path 1");
  EXPECT_EQ(mapping.pathEvents(), *logs.pathEvents().find(key));
  EXPECT_EQ(mapping.peerEvents(), *logs.peerEvents().find(peer.address));
  EXPECT_EQ(*mapping.saEvents().find(saKey), *logs.saEvents().find(saKey));

  // Without status or state of the path: nothing, and the reason.
  const ConnectionKey bare = pathKey(9);
  for (const char* reason : {"pathStatus not found.", "pathConnState not found"}) {
    TraceCapture traces;
    sm->events().recordPathEvent("prunePath", bare, pair);
    sm->events().recordSaEvent("deleteSA", saKey, bare);
    EXPECT_TRUE(traces.has(reason));
    EXPECT_THAT(events.take(), IsEmpty());
    host->ipsecPathStatusDir->ipsecPathStatusIs(bare)->remoteIpIs(peer.address);
  }
}

TEST_F(EventsTest, ComingUpAndGoingDownIsRecordedInThisOrder) {
  const FakePeer peer = makePeer(2);
  addPath(peer, 1);
  start();
  (void)events.take();
  deliver(peer);
  const std::string p = "peer 192.0.2.2 ";
  EXPECT_THAT(events.take(),
              ElementsAre(p + "handleIpsecPeerKeyInfo", p + "generateCryptoKeys",
                          p + "generatePeerCryptoInfo", "path 1 fillPathConnSaInfo established(1)",
                          "sa createControllerSA", "path 1 fillPathConnSaInfo established(1)",
                          "sa createControllerSA", "path 1 createControllerSAs established(1)",
                          "path 1 establishPath established(1)", p + "firstDhExchange"));
  takeAway(peer);
  EXPECT_THAT(events.take(),
              ElementsAre(p + "handleIpsecPeerKeyInfo", "path 1 destroyPath established(1)",
                          "sa deleteSA", "sa deleteSA", "path 1 deleteControllerSAs established(1)",
                          p + "deletePeerSAs", p + "deletePeerKeyInfo"));
}

}  // namespace
}  // namespace tessel::Ipsec
