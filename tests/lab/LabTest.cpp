// The lab itself: that it is reproducible, that its traffic is counted truly, that each action does
// what it is called, and that expectations fail when they should: a verdict that cannot fail would
// be worth nothing.
#include <sstream>

#include <fmt/format.h>

#include "lab/ReadFile.h"
#include "lab/report/EventFile.h"
#include "lab/report/EventStream.h"
#include "lab/report/JsonReport.h"
#include "lab/report/Narrator.h"
#include "lab/report/ReportPage.h"
#include "lab/report/TextReport.h"
#include "lab/run/Expectations.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "lab/scenario/LoadScenario.h"
#include "sm/DhRekey.h"
#include "sm/LocalKey.h"

namespace tessel::lab {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

/// Everything that is told of a run with faults and rekeys of both kinds.
std::string storyOf(uint64_t seed) {
  Scenario scenario = meshScenario(
      {.seed = seed, .pathsPerPair = 2, .link = {.jitter = seconds(0.004), .lossRate = 0.05}});
  scenario.duration = seconds(400);
  scenario.timeline = {
      {.at = seconds(100), .action = ForceSaRekey{.path = "east-west-1", .router = "east"}},
      {.at = seconds(150), .action = ForceDhRekey{.router = "west"}},
      {.at = seconds(300), .action = RestartRouter{.router = "east", .downFor = seconds(3)}}};
  std::string story;
  Narrator narrator(scenario, [&](Narrator::Tone, std::string_view line) { story += line; });
  EventStream stream(scenario, {&narrator});
  Lab lab(scenario, {&stream});
  lab.tracingIs(true);
  lab.finish();
  narrator.finish(lab.now());
  return story + routerTables(lab) + trafficTable(lab) + jsonReport(lab);
}

TEST(Lab, TellsTheSameStoryForTheSameSeedAndAnotherForAnother) {
  const std::string story = storyOf(11);
  EXPECT_TRUE(storyOf(11) == story);
  EXPECT_FALSE(storyOf(12) == story);
  // It is about something.
  for (const char* part : {"east  up as 192.0.2.1", "DH rekey done, key 1", "SA rekey started",
                           "east  down", "path east-west-2: established -> active"}) {
    EXPECT_THAT(story, HasSubstr(part));
  }
}

std::string hex(BytesView bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

TEST(Lab, TellsNothingSecret) {
  Scenario scenario = meshScenario({.seed = 3});
  std::string story;
  Narrator narrator(scenario, [&](Narrator::Tone, std::string_view line) { story += line; });
  std::ostringstream events;
  EventFile eventFile(events);
  History history(seconds(1));
  EventStream stream(scenario, {&narrator, &eventFile, &history});
  Lab lab(scenario, {&stream});
  lab.tracingIs(true);
  std::set<std::string> secrets;
  const auto collect = [&] {
    for (const std::unique_ptr<Router>& router : lab.routers()) {
      for (const auto& [key, sa] : router->entities().tesselV1->sa()) {
        secrets.insert(hex(sa->cryptoKey().view()).substr(0, 16));
        if (sa->nonce() != 0) {
          secrets.insert(spiText(sa->nonce()).substr(2));
          secrets.insert(std::to_string(sa->nonce()));
          secrets.insert(std::to_string(__builtin_bswap32(sa->nonce())));
        }
      }
      secrets.insert(hex(router->entities().ipsecLocalKeyDir->nonce()).substr(0, 16));
    }
  };
  for (const Action& action : {Action(ForceSaRekey{}), Action(ForceDhRekey{})}) {
    lab.run(seconds(130));
    lab.apply(action);
    for (int step = 0; step < 100; ++step) {
      lab.run(seconds(0.7));
      collect();
    }
  }
  ASSERT_GT(secrets.size(), 10U);
  const Explain explain(history, lab);
  std::ostringstream page;
  writeReportPage(page, lab, history, explain, {.findings = explain.findings()});
  story += routerTables(lab) + jsonReport(lab) + events.str() + page.str();
  for (const std::string& secret : secrets) {
    EXPECT_THAT(story, Not(HasSubstr(secret)));
  }
}

/// Two routers with two paths that are up, and traffic both ways every 100 ms from 1 s on.
class LabActionTest : public testing::Test {
 protected:
  LabActionTest() {
    lab.establishPaths();
    lab.runUntil(seconds(10.05));  // Between two packets.
  }

  /// How many packets one end sends, and how many of them arrive, in the time.
  FlowCounts during(double span, const std::string& from, const std::string& path = {}) {
    const FlowCounts before = lab.traffic().counts({}, path, from);
    lab.run(seconds(span));
    const FlowCounts after = lab.traffic().counts({}, path, from);
    return {.sent = after.sent - before.sent,
            .received = after.received - before.received,
            .lost = after.lost - before.lost};
  }

  Lab lab{meshScenario({.pathsPerPair = 2})};
  Router& east = lab.router("east");
  Router& west = lab.router("west");
};

constexpr const char* kFirst = "east-west-1";
constexpr const char* kSecond = "east-west-2";

TEST_F(LabActionTest, PacketsOnALongWayAreNotLost) {
  lab.apply(ChangeLink{.latency = seconds(3), .jitter = seconds(1)});
  lab.run(seconds(5));
  const FlowCounts counts = lab.traffic().counts();
  EXPECT_GT(counts.sent - counts.received, 4U * 25U);
  EXPECT_EQ(counts.lost, 0U);
}

TEST_F(LabActionTest, TrafficStopsAndStartsAndProbesTakeItsPlaceUnlessTheyAreSwitchedOff) {
  const auto probesIn = [&](double span) {
    const auto sent = [&](const Router& router, const char* path) {
      return router.pathView(path).statistics().probesSent;
    };
    const std::vector<uint64_t> before = {sent(east, kFirst), sent(west, kFirst),
                                          sent(east, kSecond)};
    lab.run(seconds(span));
    return std::vector<uint64_t>{sent(east, kFirst) - before[0], sent(west, kFirst) - before[1],
                                 sent(east, kSecond) - before[2]};
  };
  EXPECT_THAT(probesIn(100), ElementsAre(0, 0, 0)) << "the paths are busy";
  lab.apply(StopTraffic{.flow = "traffic", .from = "east"});
  EXPECT_EQ(during(5, "east").sent, 0U);
  EXPECT_EQ(during(5, "west").sent, 100U);
  lab.apply(StopTraffic{});
  lab.apply(SetProbes{.path = kFirst, .router = "east", .on = false});
  lab.run(seconds(15));
  EXPECT_THAT(probesIn(100), ElementsAre(0, 10, 10));
  lab.apply(SetProbes{});
  EXPECT_THAT(probesIn(100), ElementsAre(10, 10, 10));
  const uint64_t before = lab.traffic().counts({}, {}, "east").sent;
  lab.apply(StartTraffic{});
  EXPECT_EQ(lab.traffic().counts({}, {}, "east").sent - before, 2U);  // At once, on both paths.
  lab.run(seconds(0.05));
  EXPECT_EQ(during(5, "east").sent, 100U);
}

TEST_F(LabActionTest, RemoveAPathAndAddItAgain) {
  lab.apply(RemovePath{.path = kFirst});
  EXPECT_FALSE(east.pathView(kFirst).exists());
  EXPECT_FALSE(west.pathView(kFirst).exists());
  EXPECT_TRUE(east.pathView(kSecond).exists());
  EXPECT_EQ(during(2, "east", kFirst).sent, 0U);  // Nothing is routed there.
  EXPECT_EQ(east.dataPlane().sas(east.path(kFirst)->end.key).size(), 0U);

  lab.apply(AddPath{.path = kFirst});
  lab.establishPaths(seconds(1));
  EXPECT_EQ(during(2, "east", kFirst).received, 20U);
}

TEST_F(LabActionTest, ARouterStallsAndRestartsWithNothingButItsSettings) {
  lab.apply(PauseRouter{.router = "east"});
  EXPECT_EQ(during(120, "east").received, 2400U);  // It still forwards.
  EXPECT_EQ(east.pathView(kFirst).state(), DynamicPathState::established);
  EXPECT_EQ(west.pathView(kFirst).state(), DynamicPathState::active);
  lab.apply(ResumeRouter{.router = "east"});
  lab.run(seconds(61));
  EXPECT_EQ(east.pathView(kFirst).state(), DynamicPathState::active);

  const Ptr<Ike::Status> before = east.entities().ipsecStatus;
  lab.apply(ChangeKeyController{.router = "east", .dhKeyLifetime = 7200});
  lab.apply(RestartRouter{.router = "east", .downFor = seconds(5)});
  lab.run(seconds(4.9));
  EXPECT_FALSE(east.up());
  EXPECT_TRUE(west.peer(east));  // Its record stands.
  lab.run(seconds(0.2));
  ASSERT_TRUE(east.up());
  EXPECT_NE(east.entities().ipsecStatus, before);
  EXPECT_EQ(east.entities().ipsecConfig->keyController().dhKeyLifetime, 7200U);
}

TEST_F(LabActionTest, RemoveARouterAndAddItAgain) {
  lab.apply(RemoveRouter{.router = "west"});
  EXPECT_TRUE(east.entities().mergeData->connectionInfo().empty());
  lab.run(seconds(1));
  EXPECT_FALSE(east.peer(west));
  EXPECT_TRUE(east.entities().tesselV1->sa().empty());

  lab.apply(AddRouter{.router = "west"});
  EXPECT_FALSE(lab.pathsUp());
  lab.establishPaths(seconds(1));
  EXPECT_EQ(during(2, "west").lost, 0U);
}

TEST_F(LabActionTest, ARouterIdThatChangesIsKnownToTheOtherEnd) {
  const IpGenAddr before = east.routerId();
  const IpGenAddr after = *IpGenAddr::parse("192.0.2.99");
  lab.apply(ChangeRouterId{.router = "east", .routerId = after});
  const ConnectionKey& key = west.path(kFirst)->end.key;
  EXPECT_EQ(west.entities().ipsecPathStatusDir->ipsecPathStatus(key)->remoteIp(), after);
  lab.run(seconds(1));
  EXPECT_FALSE(west.entities().ipsecPeerKeyDir->ipsecPeerKeyInfoHas(before));
  EXPECT_TRUE(west.entities().ipsecPeerKeyDir->ipsecPeerKeyInfoHas(after));
  lab.establishPaths(seconds(5));
  EXPECT_EQ(during(2, "east").lost, 0U);
}

TEST_F(LabActionTest, AProfileCanBeTakenAwayChangedAndApplied) {
  const Controller::LocalKeyDir& published = *east.entities().ipsecLocalKeyDir;
  lab.apply(RemoveProfile{.router = "east"});
  EXPECT_FALSE(published.valid());
  lab.apply(RestoreProfile{.router = "east"});
  EXPECT_TRUE(published.valid());
  lab.apply(ChangeProfile{.router = "east", .profile = ""});
  EXPECT_FALSE(published.valid());
  lab.apply(ChangeProfile{.router = "east", .profile = "overlay"});
  EXPECT_TRUE(published.valid());
  lab.apply(ChangeSa{.router = "east",
                     .encryption = EncryptionAlgo::aes128Cbc,
                     .integrity = IntegrityAlgo::sha512,
                     .lifetime = 1000});
  EXPECT_EQ(published.encryptAlgo(), 1U);
  EXPECT_EQ(published.hashAlgo(), 4U);
  EXPECT_EQ(east.entities().ipsecConfig->securityAssoc("overlay")->lifetime(), 1000U);
}

TEST_F(LabActionTest, InstallationsAreDisturbedAtRandom) {
  const auto rebuilt = [&](double span) {
    lab.apply(ClearPath{.path = kFirst, .router = "east"});
    lab.run(seconds(span));
    return east.dataPlane().sas(east.path(kFirst)->end.key);
  };
  lab.apply(DisturbInstallation{.router = "east", .delay = seconds(3), .fail = 0.25});
  size_t failed = 0;
  size_t overtaken = 0;
  for (int i = 0; i < 60; ++i) {
    const std::vector<SaReport> sas = rebuilt(3.1);
    ASSERT_EQ(sas.size(), 2U);
    for (const SaReport& sa : sas) {
      const bool isFailed = sa.state == SaInstallState::failed;
      failed += isFailed ? 1 : 0;
      EXPECT_TRUE(isFailed || sa.state == SaInstallState::installed);
    }
    const bool both = !sas[0].installedAt.isNever() && !sas[1].installedAt.isNever();
    overtaken += both && sas[1].installedAt < sas[0].installedAt ? 1 : 0;
  }
  EXPECT_TRUE(failed > 15 && failed < 45) << failed;
  EXPECT_TRUE(overtaken > 5 && overtaken < 30) << overtaken;

  lab.apply(SettleInstallation{.router = "east"});
  for (const SaReport& sa : rebuilt(0.1)) {
    EXPECT_EQ(sa.installedAt, sa.handedOverAt + seconds(0.02));
  }
}

TEST_F(LabActionTest, CountersOfOneEndRestartAndNothingElse) {
  const auto pkts = [&](const Router& router) {
    uint64_t sum = 0;
    for (const SaReport& sa : router.dataPlane().sas(router.path(kFirst)->end.key)) {
      const auto& entry = router.entities().ipsecCounterTable->saCounterEntry(sa.key);
      EXPECT_EQ(entry.addTime, sa.addTime);
      EXPECT_EQ(entry.pkts == 0, entry.bytes == 0);
      sum += entry.pkts;
    }
    return sum;
  };
  lab.run(seconds(5));
  const uint64_t before = pkts(west);
  ASSERT_GT(before, 50U);
  lab.apply(RestartCounters{.path = kFirst, .router = "east"});
  EXPECT_EQ(pkts(east), 0U);
  EXPECT_EQ(pkts(west), before);
  lab.run(seconds(1));
  EXPECT_TRUE(pkts(east) > 10 && pkts(east) < before) << pkts(east);
}

TEST_F(LabActionTest, InstallationsCanBeLateRefusedOrUnreported) {
  using Fault = FailInstallation;
  const auto rebuilt = [&](double span) {
    lab.apply(ClearPath{.path = kFirst, .router = "east"});
    lab.run(seconds(span));
    return east.dataPlane().sas(east.path(kFirst)->end.key);
  };
  lab.apply(Fault{.path = kFirst, .router = "east", .which = Fault::Which::out, .times = 1});
  std::vector<SaReport> sas = rebuilt(1);
  ASSERT_EQ(sas.size(), 2U);
  EXPECT_EQ(sas[0].state, SaInstallState::installed);
  EXPECT_EQ(sas[1].state, SaInstallState::failed);
  EXPECT_EQ(rebuilt(1)[1].state, SaInstallState::installed);  // It failed once, as asked.

  lab.apply(Fault{.path = kFirst, .router = "east", .how = Fault::How::unreported});
  const IpsecCounters::IpsecCounterTable& counters = *east.entities().ipsecCounterTable;
  sas = rebuilt(1);
  ASSERT_EQ(sas.size(), 2U);
  for (const SaReport& sa : sas) {
    EXPECT_GT(sa.pkts, 0U);
    EXPECT_EQ(counters.saCounterEntry(sa.key), IpsecCounters::IpsecSACounterEntry{});
  }
  lab.apply(RestoreInstallation{});
  EXPECT_NE(counters.saCounterEntry(rebuilt(1)[0].key).addTime, 0U);

  lab.apply(ChangeInstallDelay{.router = "east", .delay = seconds(2)});
  EXPECT_EQ(rebuilt(1.9)[1].state, SaInstallState::pending);
  lab.run(seconds(0.2));
  EXPECT_TRUE(east.dataPlane().sendingSa(east.path(kFirst)->end.key));
}

TEST_F(LabActionTest, GenerationsFailAsOftenAsAsked) {
  const auto newest = [&] { return east.machine().localKey().getNewestLocalRekeyCount(); };
  lab.runUntil(seconds(125));
  lab.apply(FailGeneration{.router = "east", .what = FailGeneration::What::dhKey, .times = 2});
  for (const uint64_t expected : {0U, 0U, 1U}) {
    lab.apply(ForceDhRekey{.router = "east"});
    lab.run(seconds(60));
    EXPECT_EQ(newest(), expected);
  }
  EXPECT_EQ(west.machine().localKey().getNewestLocalRekeyCount(), 0U);
}

/// Two routers with two paths; the second path is not allowed to come up at west, and east has lost
/// its controllers while its hold time runs.
class ExpectationsTest : public testing::Test {
 protected:
  static Scenario scenario() {
    Scenario scenario = meshScenario({.pathsPerPair = 2, .trafficStart = seconds(1)});
    scenario.traffic[0].paths = {"east-west-1"};
    scenario.paths[1].condition.allowed = false;
    scenario.routers[0].settings.holdTime = 3600;
    return scenario;
  }

  ExpectationsTest() : lab(scenario()) {
    lab.runUntil(seconds(125));
    lab.apply(LoseControllers{.router = "east"});
    lab.apply(CutLink{.path = "east-west-1", .from = "west"});
    lab.runUntil(seconds(126.05));  // Ten packets of west were lost.
  }

  Lab lab;
};

// That they hold when they should is what every scenario that ships shows.
TEST_F(ExpectationsTest, FailWhenTheyShouldAndSayWhatWasFound) {
  const std::string text = readFile(TESSEL_SOURCE_DIR "/tests/lab/expectations.yaml").value();
  const LoadedScenario loaded = readScenario(text);
  ASSERT_TRUE(loaded.errors.empty()) << stringValue(loaded.errors[0]);
  std::istringstream lines(text);
  size_t checked = 0;
  for (std::string line; std::getline(lines, line);) {
    if (const size_t comment = line.find("}  # "); comment != std::string::npos) {
      const Verdict verdict = checkExpectation(lab, loaded.scenario.expectations.at(checked++));
      SCOPED_TRACE(stringValue(verdict));
      EXPECT_FALSE(verdict.held);
      EXPECT_THAT(verdict.found, HasSubstr(line.substr(comment + 5)));
    }
  }
  EXPECT_EQ(checked, loaded.scenario.expectations.size());
  EXPECT_EQ(checked, 33U);
}

TEST_F(ExpectationsTest, NothingHoldsOfARouterThatIsDown) {
  lab.apply(RestartRouter{.router = "west", .downFor = seconds(100)});
  const ExpectedFact facts[] = {
      ExpectPathState{"east-west-1", "west", {DynamicPathState::active}},
      ExpectSaRekeyRole{"east-west-1", "west", SmState::idle},
      ExpectPeer{"west", ""},
      ExpectPeer{"west", "east"},
      ExpectCount{.what = ExpectCount::What::peers, .router = "west", .bounds = Bounds::exactly(1)},
      ExpectCounter{"west", "peerKeyTaskNewKey", {.atLeast = 1}},
      ExpectGeneration{"west", "", {}},
      ExpectGeneration{"west", "east", {}},
      ExpectDhState{"west"},
      ExpectHoldTimer{"west", false}};
  for (const ExpectedFact& fact : facts) {
    const Verdict verdict = checkExpectation(lab, {.fact = fact});
    EXPECT_FALSE(verdict.held) << verdict.expected;
  }
}

TEST(Expectations, AreCheckedAfterEverythingThatHappensAtTheirTime) {
  Scenario scenario = meshScenario({});
  scenario.duration = seconds(10);
  scenario.timeline = {{.at = seconds(5), .action = RemovePath{}}};
  const ExpectedFact up = ExpectPathState{"", "", {DynamicPathState::established}};
  const ExpectedFact gone = ExpectPathState{"", "", {}};
  scenario.expectations = {{.at = Duration::never(), .fact = up},
                           {.at = seconds(5), .fact = gone},
                           {.at = seconds(4.9), .fact = up}};
  Lab lab(scenario);
  lab.finish();
  std::vector<std::pair<Duration, bool>> held;
  for (const Verdict& verdict : lab.verdicts()) {
    held.emplace_back(verdict.at, verdict.held);
  }
  EXPECT_THAT(held, testing::ElementsAre(std::pair(seconds(4.9), true), std::pair(seconds(5), true),
                                         std::pair(seconds(10), false)));
  EXPECT_FALSE(lab.held());
  EXPECT_THROW(lab.finish(), std::logic_error);
}

}  // namespace
}  // namespace tessel::lab
