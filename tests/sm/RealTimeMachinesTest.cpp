// Two machines on one real-time loop bring up a path between them. The loop's clock does not wait:
// it moves on to where it was to wait until.
#include "host/runtime/RealTime.h"
#include "lab/controller/Controllers.h"
#include "tests/runtime/ManualClock.h"
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

/// A router on the loop: carries its published record to the other one, and reports the SAs that
/// its machine hands over as installed.
class RealTimeRouter {
 public:
  RealTimeRouter(const Ptr<RealTime>& time, uint32_t number, uint32_t peerNumber)
      : own(IpGenAddr::fromV4(0xC0000200 + number)),
        peer(IpGenAddr::fromV4(0xC0000200 + peerNumber)),
        path{0, IpGenAddr::fromV4(0x0A000000 + number), IpGenAddr::fromV4(0x0A000000 + peerNumber),
             1},
        time_(time),
        entities_(time->clock(), {}) {
    lab::writeProfile(*entities_.ipsecConfig, {.name = "profile", .sa = {.lifetime = 3600}});
    entities_.ipsecConfig->keyControllerIs({1, "profile", 86400, 0, IpsecDhGroup::ecp256});
    entities_.ipsecDpsPathConfig->routerIdIs(own);
    entities_.controllerStatus->connectedIs(true);
    describePath(entities_, path, peer, "path");
    touchMergeData(entities_, path);
  }

  void start(RealTimeRouter& other) {
    publishes_.emplace(*entities_.ipsecLocalKeyDir, [this, &other](const Change& change) {
      if (change.is(Controller::LocalKeyDir::updateVersionName)) {
        time_->post([this, &other] {
          const auto record = lab::readRecord(*entities_.ipsecLocalKeyDir);
          ASSERT_TRUE(record);
          other.entities_.ipsecPeerKeyDir->ipsecPeerKeyInfoIs(own, *record);
        });
      }
    });
    handsOver_.emplace(*entities_.tesselV1, [this](const Change&) {
      time_->post([this] { reportInstalled(entities_, time_->clock()); });
    });
    sm_ = makeMachine(makePtr<RealTimeScheduler>(time_, "router"), entities_);
  }
  void pass() {
    for (const auto& [key, sa] : entities_.tesselV1->sa()) {
      ++entities_.ipsecCounterTable->saCounterEntryIs(key).pkts;
    }
  }
  Ptr<Ike::PathConnState> pathState() const {
    const auto state = entities_.ipsecStatus->ipsecPeerConnectionState(peer);
    return state ? state->pathConnState(path) : nullptr;
  }
  Ptr<Ike::SecurityAssociation> sa(SaType type) const {
    for (const auto& [key, sa] : entities_.tesselV1->sa()) {
      if (sa->saType() == type) {
        return sa;
      }
    }
    return nullptr;
  }

  const IpGenAddr own;
  const IpGenAddr peer;
  const ConnectionKey path;

 private:
  const Ptr<RealTime> time_;
  lab::RouterEntities entities_;
  std::optional<Meddler> publishes_;
  std::optional<Meddler> handsOver_;
  Ptr<TesselV1Sm> sm_;
};

TEST(RealTimeMachines, BringUpAPathBetweenThem) {
  RandomSource::currentIs(makePtr<SeededRandomSource>(1));
  const auto time = makePtr<RealTime>(std::make_unique<ManualClock>());
  RealTimeRouter east(time, 1, 2);
  RealTimeRouter west(time, 2, 1);
  east.start(west);
  west.start(east);
  for (int second = 0; second < 130; ++second) {
    time->runFor(seconds(1));
    east.pass();
    west.pass();
  }
  for (const auto& [router, other] : {std::pair(&east, &west), std::pair(&west, &east)}) {
    ASSERT_TRUE(router->pathState());
    EXPECT_EQ(router->pathState()->pathState(), DynamicPathState::active);
    const auto out = router->sa(SaType::steadyOut);
    const auto in = other->sa(SaType::steadyIn);
    ASSERT_TRUE(out && in);
    EXPECT_EQ(out->sakey().spi, in->sakey().spi);
    EXPECT_EQ(out->cryptoKey(), in->cryptoKey());
  }
  RandomSource::currentIs(nullptr);
}

}  // namespace
}  // namespace tessel::Ipsec
