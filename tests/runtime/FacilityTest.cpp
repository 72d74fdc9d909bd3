// Trace and agent log.
#include <fmt/format.h>

#include "host/facility/AgentLog.h"
#include "host/facility/Trace.h"
#include "host/model/Bytes.h"
#include "host/runtime/VirtualTime.h"

namespace tessel {
namespace {

using testing::ElementsAre;

struct Spi {
  uint32_t value;
};
std::string stringValue(const Spi& spi) {
  return "spi-" + std::to_string(spi.value);
}
struct WithoutText {};
struct RawKey : std::array<uint8_t, 16> {};
[[maybe_unused]] std::string stringValue(const RawKey&) {
  return "a key in clear";
}

// Key material has no way into a trace.
static_assert(!Traceable<Bytes> && !Traceable<BytesView> && !Traceable<SecretBytes>);
static_assert(!Traceable<std::span<uint8_t>> && !Traceable<std::array<uint8_t, 4>>);
static_assert(!Traceable<uint8_t[4]> && !Traceable<std::vector<std::byte>> && !Traceable<RawKey>);
static_assert(!Traceable<const uint8_t*> && !Traceable<void*> && !Traceable<Spi*>);
static_assert(!Traceable<WithoutText> && !Traceable<std::nullptr_t>);
static_assert(Traceable<Spi> && Traceable<Duration> && Traceable<char[4]> && Traceable<uint8_t>);

class FacilityTest : public testing::Test, protected TraceSink, protected AgentLogSink {
 protected:
  FacilityTest() {
    Trace::sinkIs(this);
    AgentLog::sinkIs(this);
  }
  ~FacilityTest() override {
    Trace::sinkIs(nullptr);
    AgentLog::sinkIs(nullptr);
  }
  void trace(const TraceLine& line) override {
    lines_.push_back(
        fmt::format("{}/{}/{}/{}", line.context, line.level, stringValue(line.time), line.text));
  }
  void log(const AgentLogLine& line) override {
    lines_.push_back(fmt::format("{}/{}/{}/{}/{}/{}", line.identifier, line.severity, line.context,
                                 stringValue(line.time), stringValue(line.utcTime), line.text));
  }

  std::vector<std::string> lines_;
};

TEST_F(FacilityTest, TraceLinesArePutTogetherFromTextsAndValues) {
  const char* const nothing = nullptr;
  const std::string text = "text";
  TRACE("spi :", uint32_t{7}, "in :", Spi{9}, seconds(2.5));
  TRACE_AT(1, "prevPktsIn :", uint64_t{1} << 63, " prevPktsOut :", -5, "", "end ", " ", 'c');
  const auto time = makePtr<VirtualTime>();
  time->runFor(seconds(4));
  const TraceContext west("west", *time);
  TRACE_ERROR(text, std::string_view("view"), true, false, uint8_t{65}, 0.1, 1e300, nothing);
  EXPECT_THAT(lines_, ElementsAre("/5/0 s/spi : 7 in : spi-9 2.5 s",
                                  "/1/0 s/prevPktsIn : 9223372036854775808 prevPktsOut : -5 end  c",
                                  "west/0/4 s/text view true false 65 0.1 1e+300 (null)"));
}

TEST_F(FacilityTest, ATraceThatIsOffEvaluatesNothing) {
  int evaluated = 0;
  const auto value = [&] { return ++evaluated; };
  Trace::sinkIs(this, 1);
  TRACE("too detailed", value());
  TRACE_AT(1, "level", value());
  Trace::sinkIs(nullptr);
  TRACE_ERROR("off", value());
  EXPECT_EQ(evaluated, 1);
  EXPECT_THAT(lines_, ElementsAre("/1/0 s/level 1"));
}

TEST_F(FacilityTest, LogMessagesFillInTheirArgumentsAndCountEveryOccurrence) {
  const AgentLogMessage message{
      {.identifier = "NAME_INVALID", .text = "%s of 100%% (%s) is 5%", .severity = 4}};
  message.log("a %s", Spi{3});
  message.log(1);
  const auto time = makePtr<VirtualTime>(seconds(1000));
  const TraceContext west("west", *time);
  message.log(1, 2, 3);
  EXPECT_THAT(lines_, ElementsAre("NAME_INVALID/4//0 s/0 s/a %s of 100% (spi-3) is 5%",
                                  "NAME_INVALID/4//0 s/0 s/1 of 100% (%s) is 5%",
                                  "NAME_INVALID/4/west/0 s/1000 s/1 of 100% (2) is 5%"));
  AgentLog::sinkIs(nullptr);
  message.log();
  EXPECT_EQ(message.count(), 4U);
}

}  // namespace
}  // namespace tessel
