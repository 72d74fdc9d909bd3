// The periodic log: a path whose traffic stops is reported once, when it had flowed both ways.
#include "tests/sm/MachineFixture.h"

namespace tessel::Ipsec {
namespace {

class PeriodicLogTest : public MachineTest {
 protected:
  static constexpr const char* kStopped = "prevPktsIn :";

  /// A minute in which that many packets come in and go out; how often the path is reported.
  uint64_t minute(uint64_t in, uint64_t out) {
    auto& counters = host->ipsecCounterTable->sessionCounterEntryIs(path(key_)->reqid());
    counters.pktsIn += in;
    counters.pktsOut += out;
    TraceCapture traces;
    run(60);
    return static_cast<uint64_t>(std::ranges::count_if(
        traces.lines(), [](const auto& line) { return line.find(kStopped) != std::string::npos; }));
  }

  const ConnectionKey key_ = establish(makePeer(2));
};

TEST_F(PeriodicLogTest, AStopIsReportedOnce) {
  EXPECT_EQ(minute(0, 0) + minute(5, 0) + minute(0, 5), 0U) << "it has never flowed both ways";
  EXPECT_EQ(minute(5, 5) + minute(5, 5), 0U);
  EXPECT_EQ(minute(5, 0), 1U) << "one direction is enough";
  EXPECT_EQ(minute(0, 0) + minute(5, 0), 0U);
  EXPECT_EQ(minute(5, 5), 0U);
  EXPECT_EQ(minute(0, 0), 1U) << "it had flowed again";
}

TEST_F(PeriodicLogTest, NeedsSoundCountersAndItsToggle) {
  EXPECT_EQ(minute(5, 5), 0U);
  const uint32_t reqid = path(key_)->reqid();
  host->ipsecCounterTable->sessionCounterEntryDel(reqid);
  run(60);
  EXPECT_EQ(minute(0, 0), 0U) << "no counters: nothing is known";
  startOver();
  Toggles::toggleIs("Ipsec.json", "TrellisSnapshot", false);
  establish(makePeer(2));
  EXPECT_EQ(minute(5, 5) + minute(0, 0), 0U);
}

}  // namespace
}  // namespace tessel::Ipsec
