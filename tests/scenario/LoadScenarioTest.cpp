// Scenario files: what is read from good ones, what is said of bad ones, and what is written.
#include <filesystem>
#include <set>

#include "lab/ReadFile.h"
#include "lab/scenario/EffectiveTimers.h"
#include "lab/scenario/LoadScenario.h"
#include "lab/scenario/Quantities.h"
#include "lab/scenario/WriteScenario.h"

namespace tessel::lab {
namespace {

using testing::ElementsAre;

const std::filesystem::path source = TESSEL_SOURCE_DIR;

std::string textOf(const std::filesystem::path& file) {
  return readFile(source / file).value();
}

Scenario readGood(const std::string& text) {
  LoadedScenario loaded = readScenario(text);
  for (const ScenarioError& error : loaded.errors) {
    ADD_FAILURE() << stringValue(error) << "\nin\n" << text;
  }
  return std::move(loaded.scenario);
}

/// What is written of a scenario is read as an equal one, down to the words of its actions.
void expectComesBack(const Scenario& scenario) {
  const std::string text = scenarioText(scenario);
  const Scenario again = readGood(text);
  EXPECT_TRUE(again == scenario) << text;
  for (const TimelineEntry& entry : again.timeline) {
    EXPECT_EQ(actionText(entry.action), entry.text);
  }
}

// Each file ends with what is to be said of the part above.
TEST(LoadScenario, SaysOfEveryBadFileWhatIsWrongAndWhere) {
  const std::string heading = "# What is wrong:\n";
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(source / "tests/scenario/bad")) {
    SCOPED_TRACE(entry.path().filename());
    const std::string text = textOf(entry.path());
    const size_t end = text.find(heading);
    ASSERT_NE(end, std::string::npos);
    std::string said = heading;
    for (const ScenarioError& error : readScenario(text.substr(0, end)).errors) {
      said.append("# ").append(stringValue(error)).append("\n");
    }
    EXPECT_EQ(said, text.substr(end));
    ++files;
  }
  EXPECT_EQ(files, 17U);
}

TEST(LoadScenario, RoutersStartFromTheDefaults) {
  const Scenario scenario = readGood(textOf("tests/scenario/defaults.yaml"));
  const RouterSettings& east = scenario.router("east")->settings;
  EXPECT_EQ(east.group, IpsecDhGroup::modp2048);
  EXPECT_EQ(east.holdTime, 0U);
  EXPECT_EQ(east.profile.sa.lifetime, 3600U);
  EXPECT_EQ(east.profile.sa.byteLimit, 2'000'000'000U);
  EXPECT_THAT(east.profile.sa.suites,
              ElementsAre(CryptoSuitePlan{.name = "b",
                                          .preference = 10,
                                          .encryption = EncryptionAlgo::nullEncryption,
                                          .integrity = IntegrityAlgo::sha512}));
  ASSERT_EQ(east.otherProfiles.size(), 1U);
  EXPECT_EQ(east.otherProfiles[0].sa.lifetime, 900U);
  EXPECT_EQ(east.otherProfiles[0].sa.suites, east.profile.sa.suites);
  EXPECT_EQ(east.profile.sourcePorts, (Ike::EncapSrcPortRange{49152, 65535}));

  const RouterPlan& west = *scenario.router("west");
  EXPECT_EQ(west.settings.holdTime, 600U);
  EXPECT_EQ(west.settings.profile.sa.suites[0].name, "a");
  EXPECT_EQ(west.settings.yieldAfter, 3U);
  EXPECT_FALSE(west.present);
  EXPECT_EQ(west.routerId, IpGenAddr::parse("2001:db8::2"));
}

TEST(LoadScenario, TimelineIsByTimeAndKeepsItsWords) {
  const Scenario scenario = readGood(textOf("tests/scenario/timeline.yaml"));
  ASSERT_EQ(scenario.timeline.size(), 3U);
  EXPECT_EQ(scenario.timeline[0].at, seconds(90));
  EXPECT_EQ(scenario.timeline[0].text, "lose-controllers");
  EXPECT_EQ(std::get<RestartRouter>(scenario.timeline[1].action).downFor, seconds(0.5));
  EXPECT_EQ(scenario.timeline[1].text, "restart-router: {router: west, down-for: 500 ms}");
  EXPECT_EQ(scenario.timeline[1].line, 12);
  const auto& change = std::get<ChangeLink>(scenario.timeline[2].action);
  EXPECT_EQ(change.from, "west");
  EXPECT_EQ(change.loss, 0.3);
  EXPECT_EQ(change.latency, seconds(0));
  EXPECT_FALSE(change.jitter.has_value());
  const LinkSettings link = changedLink({.latency = seconds(1), .jitter = seconds(2)}, change);
  EXPECT_EQ(link, (LinkSettings{.latency = seconds(0), .jitter = seconds(2), .lossRate = 0.3}));

  ASSERT_EQ(scenario.expectations.size(), 2U);
  EXPECT_THAT(std::get<ExpectPathState>(scenario.expectations[0].fact).states,
              ElementsAre(DynamicPathState::active, DynamicPathState::established));
  EXPECT_TRUE(scenario.expectations[1].at.isNever());
  const Bounds bounds = std::get<ExpectLost>(scenario.expectations[1].fact).bounds;
  EXPECT_TRUE(bounds.contains(0) && bounds.contains(5) && !bounds.contains(6));
}

// The file ends with what the settings above come to.
TEST(LoadScenario, ShowsWhatEachRouterRunsWith) {
  const std::string text = textOf("tests/scenario/timers.yaml");
  std::string shown;
  for (const RouterTimers& timers : effectiveTimers(readGood(text))) {
    std::istringstream lines(stringValue(timers));
    for (std::string line; std::getline(lines, line);) {
      shown.append("# ").append(line).append("\n");
    }
  }
  EXPECT_EQ(shown, text.substr(text.find("# ")));
}

TEST(Quantities, AreReadWithTheirUnitsOnly) {
  const std::map<std::string, std::optional<double>> durations = {
      {"20 ms", 0.02}, {"20ms", 0.02},    {"1.5 s", 1.5},    {"2 h 30 min", 9000.0},
      {"1d", 86400.0}, {"0 s", 0.0},      {"1 s 1 min", {}}, {"1 s 1 s", {}},
      {"s", {}},       {"1..5 s", {}},    {"-1 s", {}},      {"1e3 s", {}},
      {"", {}},        {"1 s later", {}}, {"inf", {}}};
  for (const auto& [text, expected] : durations) {
    const Parsed<Duration> parsed = parseDuration(text);
    EXPECT_EQ(parsed.value, expected ? std::optional(Duration(*expected)) : std::nullopt) << text;
    EXPECT_EQ(parsed.problem.empty(), expected.has_value()) << text;
  }
  EXPECT_EQ(parseSize("1.5 kB").value, 1500U);
  EXPECT_FALSE(parseSize("1 KB").value);
  EXPECT_FALSE(parseRate("0 /s").value);
  EXPECT_EQ(parseCount("18446744073709551615").value, std::numeric_limits<uint64_t>::max());
  EXPECT_FALSE(parseCount("18446744073709551616").value);
  EXPECT_FALSE(parseCount("_").value);
}

TEST(Quantities, AreWrittenSoThatTheyComeBackExactly) {
  const std::pair<double, const char*> durations[] = {{0, "0 s"},
                                                      {0.02, "20 ms"},
                                                      {0.0005, "0.5 ms"},
                                                      {1.5, "1.5 s"},
                                                      {9001, "2 h 30 min 1 s"},
                                                      {86400, "1 d"},
                                                      {0.1 + 0.2, "300.00000000000004 ms"},
                                                      {1e-7, "0.0000001 s"}};
  for (const auto& [value, text] : durations) {
    EXPECT_EQ(durationText(Duration(value)), text);
    EXPECT_EQ(parseDuration(text).value, Duration(value)) << text;
  }
  const std::pair<double, const char*> shares[] = {
      {0, "0 %"},   {0.125, "12.5 %"},   {0.001, "0.1 %"},
      {1, "100 %"}, {1e-7, "0.00001 %"}, {0.1 + 0.2, "30.000000000000004 %"}};
  for (const auto& [value, text] : shares) {
    EXPECT_EQ(percentageText(value), text);
    EXPECT_EQ(parsePercentage(text).value, value) << text;
  }
  EXPECT_EQ(sizeText(1500), "1500 B");
  EXPECT_EQ(sizeText(64000), "64 kB");
  EXPECT_THROW((void)sizeText(2'000'000'000'000'000), std::invalid_argument);
  EXPECT_THROW((void)durationText(Duration(-1)), std::invalid_argument);
  EXPECT_THROW((void)durationText(Duration::never()), std::invalid_argument);
  EXPECT_THROW((void)percentageText(1.5), std::invalid_argument);
}

TEST(WriteScenario, KeepsWhatDiffersFromTheDefaultsAndFromEachOther) {
  expectComesBack(readGood(textOf("tests/scenario/defaults.yaml")));
  expectComesBack(readGood(textOf("tests/scenario/timers.yaml")));
  Scenario scenario = readGood(textOf("tests/scenario/timeline.yaml"));
  scenario.description = "two lines:\n\t\"quoted\" \\ # {no} [flow], \xC3\xA4";
  scenario.seed = std::numeric_limits<uint64_t>::max();
  scenario.duration = Duration(1e6 / 3);
  scenario.distribution = Distribution::neighbours;
  scenario.probes.on = false;
  scenario.toggles = {{"PfConnectionLoss", false}, {"TrellisSnapshot", true}};
  scenario.controllers = {{.name = "a", .delay = Duration(1 / 3.0)}, {.name = "b"}};
  // Each end of a scale, and back to a built-in default that the others do not have.
  scenario.routers[0].settings = {.group = IpsecDhGroup::modp768, .holdTime = 1, .yieldAfter = 1};
  scenario.routers[0].settings.profile.sa = {.lifetime = 0, .packetLimit = 1, .byteLimit = 1};
  scenario.routers[0].settings.otherProfiles = {{.name = "short"}};
  scenario.routers[1].settings = {};
  scenario.paths[0].condition.connection = std::nullopt;
  scenario.traffic = {{.name = "a",
                       .paths = {"net"},
                       .interval = Duration(1 / 7.0),
                       .start = Duration::never(),
                       .stop = seconds(1)}};
  expectComesBack(scenario);
}

// Every example of the manual is read and written, and every action and expectation has one.

struct Example {
  std::string kind;  ///< What stands after the fence's "yaml".
  std::string text;
};

std::vector<Example> examples() {
  const std::string manual = textOf("docs/lab.md");
  const std::string fence = "```yaml";
  std::vector<Example> found;
  for (size_t at = manual.find(fence); at != std::string::npos; at = manual.find(fence, at)) {
    const size_t newline = manual.find('\n', at);
    const size_t kind = std::min(at + fence.size() + 1, newline);
    at = manual.find("```", newline);
    found.push_back({.kind = manual.substr(kind, newline - kind),
                     .text = manual.substr(newline + 1, at - newline - 1)});
  }
  return found;
}

/// A part of a scenario as a whole one: the manual's own, up to the section that the part replaces.
std::string wholeScenario(const Example& example, const std::string& manualScenario) {
  if (example.kind.empty()) {
    return example.text;
  }
  const auto upTo = [&](const std::string& section) {
    return manualScenario.substr(0, manualScenario.find("\n" + section + ":") + 1);
  };
  if (example.kind == "timeline" || example.kind == "expectations") {
    return upTo("timeline") + example.kind + ":\n" + example.text;
  }
  return upTo(example.kind == "defaults" ? "routers" : example.kind) + example.text +
         (example.kind == "defaults" ? "routers: [{name: east, router-id: 192.0.2.1}]\n" : "");
}

TEST(Manual, ExamplesAreReadWrittenAndLeaveNothingOut) {
  const std::vector<Example> all = examples();
  ASSERT_FALSE(all.empty());
  std::set<size_t> actions;
  std::set<size_t> facts;
  for (const Example& example : all) {
    const Scenario scenario = readGood(wholeScenario(example, all[0].text));
    expectComesBack(scenario);
    for (const TimelineEntry& entry : scenario.timeline) {
      actions.insert(entry.action.index());
    }
    for (const Expectation& expectation : scenario.expectations) {
      facts.insert(expectation.fact.index());
    }
    if (example.kind == "defaults") {
      EXPECT_EQ(scenario.routers.at(0).settings, RouterSettings{}) << "the manual's defaults";
    }
  }
  EXPECT_EQ(actions.size(), std::variant_size_v<Action>);
  EXPECT_EQ(facts.size(), std::variant_size_v<ExpectedFact>);
}

TEST(Manual, ShippedScenariosAreSoundAndComeBack) {
  for (const auto& entry : std::filesystem::directory_iterator(source / "scenarios")) {
    SCOPED_TRACE(entry.path().filename());
    const Scenario scenario = readGood(textOf(entry.path()));
    expectComesBack(scenario);
    EXPECT_EQ(scenario.name, entry.path().stem());
    EXPECT_FALSE(scenario.expectations.empty()) << "a run that can only succeed";
  }
}

}  // namespace
}  // namespace tessel::lab
