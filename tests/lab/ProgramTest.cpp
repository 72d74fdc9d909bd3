// tessel-lab as its users meet it: exit status, what it prints, the report for programs.
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "lab/Program.h"
#include "lab/ReadFile.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"
#include "tests/lab/JsonSchema.h"

namespace tessel::lab {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kSample = TESSEL_SOURCE_DIR "/tests/lab/sample.yaml";

class ProgramTest : public testing::Test {
 protected:
  ProgramTest()
      : folder_(std::filesystem::path(testing::TempDir()) /
                testing::UnitTest::GetInstance()->current_test_info()->name()) {
    std::filesystem::create_directories(folder_);
  }
  ~ProgramTest() override { std::filesystem::remove_all(folder_); }

  std::string file(const std::string& name) const { return (folder_ / name).string(); }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }

  int run(std::vector<std::string> args) {
    out.str("");
    err.str("");
    return runProgram(std::move(args), out, err);
  }

  std::ostringstream out;
  std::ostringstream err;

 private:
  std::filesystem::path folder_;
};

TEST_F(ProgramTest, TellsTheStoryThenTheTablesThenTheVerdict) {
  ASSERT_EQ(run({"run", kSample}), held);
  const std::string text = out.str();
  const char* const inThisOrder[] = {
      "sample, seed 1\n",
      "      0.000 s  east  up as 192.0.2.1, profile overlay, group ecp-256\n",
      "      0.000 s  west  published key 0: ecp-256, aes-256-gcm-16 and sha256\n",
      "      0.050 s  east  received west's key 0: ecp-256, aes-256-gcm-16 and sha256\n",
      " in: handed over for path internet, steady-in\n",
      "      0.050 s  east  peer west: first DH exchange done, keys 0/0\n",
      "      1.010 s  west  path internet: first packet decrypted\n",
      "     10.000 s  lab   timeline: cut-link: {path: internet, from: east}\n",
      "\neast (192.0.2.1): key 0 published, connected to the controllers\n",
      "\n  west  192.0.2.2  ready   0 ",
      "\n  internet  west  established  0/0   10.0.0.1:4500  10.0.0.2:4500  19",
      "  steady-in   0/0   rfc4106(gcm(aes)) hmac(sha256)  19.9 s  19",
      "\n  dropped: nothing\n",
      "\n  bulk  internet  east  191   90        100\n",
      "\nOK: all 2 expectations held\n"};
  size_t position = 0;
  for (const char* part : inThisOrder) {
    const size_t found = text.find(part, position);
    ASSERT_NE(found, std::string::npos) << part << "\nis missing in\n" << text;
    position = found;
  }
  EXPECT_THAT(err.str(), IsEmpty());
}

TEST_F(ProgramTest, SaysWhichExpectationFailedAndWhatWasFound) {
  std::string text = readFile(kSample).value();
  text.replace(text.find("from: west}\n"), 10, "from: east");
  ASSERT_EQ(run({"run", "--quiet", write("broken.yaml", text)}), notHeld);
  EXPECT_EQ(out.str(),
            "not held: line 21, at 20 s: lost: {from: east}; found: 100\n"
            "FAILED: 1 of 2 expectations did not hold\n");
}

TEST_F(ProgramTest, ExitStatusSaysWhatIsWrong) {
  const std::string unit = write("unit.yaml", "duration: 20\nrouters: []\n");
  const struct {
    const char* what;
    std::vector<std::string> args;
    int status;
    std::string error;
  } cases[] = {
      {"nothing asked", {}, held, ""},
      {"no subcommand", {"--seed", "1"}, badInput, "subcommand"},
      {"unknown option", {"run", kSample, "--sed", "1"}, badInput, "--sed"},
      {"seed is no number", {"run", kSample, "--seed", "x"}, badInput, "seed"},
      {"no such file", {"run", file("none.yaml")}, badInput, "none.yaml: cannot be read"},
      {"no such file to check", {"check", file("none.yaml")}, badInput, "cannot be read"},
      {"bad file", {"run", unit}, badInput, "unit.yaml:1:11: duration: \"20\""},
      {"bad file to check", {"check", unit}, badInput, "unit.yaml:1:11: duration: \"20\""},
      {"bad report", {"run", kSample, "--json", file("no/dir")}, badInput, "cannot be written"},
      {"no report to explain", {"explain", file("none.json")}, badInput, "cannot be read"},
      {"explain a scenario", {"explain", kSample}, badInput, "is no report"},
      {"explain other JSON", {"explain", write("list.json", "[1]")}, badInput, "is no report"},
      {"tour of nothing", {"tour", "--scenarios", file("none")}, badInput, "has no scenarios"},
      {"bad event file",
       {"run", kSample, "--events", file("no/dir")},
       badInput,
       "cannot be written"},
      {"good file to check", {"check", kSample}, held, ""},
      {"help", {"--help"}, held, ""},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.what);
    EXPECT_EQ(run(each.args), each.status);
    EXPECT_THAT(err.str(), HasSubstr(each.error));
    EXPECT_EQ(err.str().empty(), each.status == held);
  }
  const Lab other(meshScenario({}));
  EXPECT_EQ(run({"run", kSample, "--quiet"}), internalError);
  EXPECT_THAT(err.str(), StartsWith("tessel-lab: internal error: "));
}

TEST_F(ProgramTest, SeedTraceAndTogglesReachTheRun) {
  run({"run", kSample});
  const std::string first = out.str();
  run({"run", kSample, "--seed", "1"});
  EXPECT_EQ(out.str(), first);
  run({"run", kSample, "--seed", "2"});
  EXPECT_NE(out.str(), first);
  EXPECT_THAT(first, Not(HasSubstr("| ")));
  run({"run", kSample, "--trace"});
  EXPECT_THAT(out.str(), HasSubstr("      0.000 s  east  | doGenerateDhKey"));

  EXPECT_EQ(run({"run", kSample, "--quiet", "--toggles", write("bad.json", "{\"A\": 1}")}), held);
  EXPECT_THAT(err.str(), HasSubstr("bad.json:1:"));
}

TEST_F(ProgramTest, TheReportFollowsItsSchema) {
  using Json = nlohmann::json;
  const Json schema = Json::parse(*readFile(TESSEL_SOURCE_DIR "/docs/report.schema.json"));
  for (const char* name : {"two-routers.yaml", "hub.yaml"}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(run({"run", "--json", file("report.json"),
                   TESSEL_SOURCE_DIR "/scenarios/" + std::string(name)}),
              held);
    Json report = Json::parse(*readFile(file("report.json")));
    if (std::string(name) == "hub.yaml") {  // Both ends show why their peer is down.
      ASSERT_EQ(report["findings"].size(), 2U);
      EXPECT_EQ(report["findings"][1]["title"], "hub-5: peer spoke-9 is down, dh-group-mismatch");
      EXPECT_THAT(std::string(report["findings"][1]["explanation"]),
                  HasSubstr("spoke-9's key 0: modp-2048, aes-128-gcm-16"));
      EXPECT_THAT(out.str(), HasSubstr("spoke-9  192.0.2.29  down: dh-group-mismatch"));
      EXPECT_THAT(out.str(), HasSubstr("hub-5  192.0.2.15  down: dh-group-mismatch"));
    }
    EXPECT_THAT(schemaFaults(schema, schema, report), IsEmpty());
    EXPECT_TRUE(report["held"]);

    // The schema says something.
    report["routers"][0]["sas"][0].erase("spi");
    report["routers"][1]["colour"] = "blue";
    EXPECT_THAT(schemaFaults(schema, schema, report),
                testing::ElementsAre("/routers/0/sas/0: lacks \"spi\"",
                                     "/routers/1/colour: must not be there"));
  }
}

TEST_F(ProgramTest, ExplainsWhatTheReportFound) {
  const std::string scenario = TESSEL_SOURCE_DIR "/scenarios/hub.yaml";
  ASSERT_EQ(run({"run", "--quiet", scenario, "--json", file("hub.json")}), held);
  ASSERT_EQ(run({"explain", file("hub.json"), "--path", "site-9"}), held);
  EXPECT_THAT(out.str(), HasSubstr("hub, seed 1: 31 of 31 expectations held"));
  EXPECT_THAT(out.str(), HasSubstr("hub-5: peer spoke-9 is down, dh-group-mismatch\n"
                                   "  0.050 s to the end\n"));
  EXPECT_THAT(out.str(), HasSubstr("spoke-9's key 0: modp-2048"));
  EXPECT_THAT(out.str(), HasSubstr("0.000 s  spoke-9  up as 192.0.2.29"));
  ASSERT_EQ(run({"explain", file("hub.json"), "--path", "site-5"}), held);
  EXPECT_THAT(out.str(), HasSubstr("0 findings"));
  EXPECT_EQ(run({"explain", file("hub.json"), "--path", "site-0"}), badInput);
  // What the network lost is no finding, but counted.
  ASSERT_EQ(run({"run", "--quiet", kSample, "--json", file("sample.json")}), held);
  const auto sample = nlohmann::json::parse(*readFile(file("sample.json")));
  EXPECT_EQ(sample["routers"][0]["paths"][0]["network_losses"]["cut"], 101);
  EXPECT_EQ(sample["routers"][1]["paths"][0]["network_losses"]["cut"], 0);
}

// One kind of explanation each, by scenario: what the sentences must say.
TEST_F(ProgramTest, ExplanationsNameTheCause) {
  const std::string shipped = TESSEL_SOURCE_DIR "/scenarios/";
  const std::string faults = TESSEL_SOURCE_DIR "/tests/lab/explain.yaml";
  const struct {
    std::string scenario;
    const char* title;
    std::vector<std::string> parts;
  } cases[] = {
      {shipped + "sa-rekey-meets-clear.yaml",
       "west: dropped 888 received packets on path internet, no_sa",
       {"east sent on it as its out-SA of keys 0/0 (sa-rekey-out), installed at 618.020 s",
        "west had deleted the in-SA for it at 617.000 s, to build the path anew"}},
      {shipped + "sa-rekey-meets-clear.yaml",
       "west: path internet was long in state sa-responder-in-sa-installed",
       {"waits for the peer's first packet on it", "when the data path had installed an SA",
        "east's end was in state established"}},
      {shipped + "router-restart.yaml",
       "west: dropped 2 packets to send on path internet, no_outbound",
       {"The path was not there: west, up since 330.000 s, has not received a key of east's"}},
      {shipped + "peer-recovers-from-wrong-group.yaml",
       "east: peer west was down, dh-group-mismatch",
       {"Without the same group there is no shared secret", "It was over at 368.050 s"}},
      {shipped + "limit-role-split.yaml",
       "west-3: dropped 76 received packets on path pair-3, no_sa",
       {"west-3 has never made the in-SA for it", "Two ends that made their SAs from other keys"}},
      {shipped + "limit-shared-key.yaml",
       "east: dropped 1 received packet on path silver, no_sa",
       {"east was handed the in-SA for it at 130.000 s and had it installed only at 130.020 s"}},
      {faults, "east: path alone is not there", {"north's key is withdrawn since 20.050 s"}},
      {faults,
       "west: SA 0xde4e8cde in of path refused was not installed",
       {"as steady-in, of keys 0/0", "could not install it: installation failed"}},
      {faults,
       "west: dropped 3958 received packets on path refused, no_sa",
       {"west's data path did not install the in-SA for it: installation failed"}},
      {faults,
       "east: dropped 22 packets to send on path refused, no_outbound",
       {"The path was not there: east has not published a key of its own"}},
      {faults,
       "north: path alone is not there",
       {"not published a key of its own; north has been without its controllers since 120.000 s"}},
      {faults,
       "east: dropped 197 received packets on path altered, bad_icv",
       {"the same key for it: the packets were altered", "altered 210 of west's 3959 packets"}},
      {faults,
       "east: dropped 258 received packets on path repeated, replayed",
       {"had received them before", "duplicated 202, replayed 194"}},
      {faults,
       "east: dropped 138 received packets on path repeated, too_old",
       {"more than 64 packets late"}},
      {faults, "east: dropped 10 received packets, malformed", {"does not fit what they are"}},
      {faults,
       "east: dropped 1 received packet on path altered, no_sa",
       {"No router has an out-SA with that SPI: the network altered the packet"}},
      {faults,
       "west: path quiet ends in state established",
       {"counts as active once a sanity check", "after 0 packets sent and 0 received"}},
  };
  std::string played;
  nlohmann::json report;
  for (const auto& each : cases) {
    SCOPED_TRACE(each.title);
    if (std::exchange(played, each.scenario) != each.scenario) {
      ASSERT_EQ(run({"run", "--quiet", each.scenario, "--json", file("report.json")}), held);
      report = nlohmann::json::parse(*readFile(file("report.json")));
    }
    const auto& findings = report["findings"];
    const auto found = std::ranges::find_if(
        findings, [&](const auto& finding) { return finding["title"] == each.title; });
    ASSERT_NE(found, findings.end());
    const std::string explanation = (*found)["explanation"];
    for (const std::string& part : each.parts) {
      EXPECT_THAT(explanation, HasSubstr(part));
    }
  }
}

TEST_F(ProgramTest, TheTourPlaysAndColoursAreForTerminals) {
  std::filesystem::create_directories(file("scenarios"));
  std::filesystem::copy(TESSEL_SOURCE_DIR "/scenarios/hub.yaml", file("scenarios"));
  ASSERT_EQ(run({"tour", "--scenarios", file("scenarios")}), held);
  const std::string plain = out.str();
  EXPECT_THAT(plain, StartsWith("1 of 1: hub\n\nA hub site and its spokes"));
  EXPECT_THAT(plain, HasSubstr("0.050 s  hub-5    peer spoke-9: down, dh-group-mismatch\n"));
  EXPECT_THAT(plain, HasSubstr("OK: all 31 expectations held\nLook closer: tessel-lab run "));
  EXPECT_THAT(plain, Not(HasSubstr("\x1b")));
  std::ostringstream coloured;
  ASSERT_EQ(runProgram({"tour", "--scenarios", file("scenarios")}, coloured, err, true), held);
  std::string stripped = coloured.str();
  EXPECT_THAT(stripped, HasSubstr("\x1b[31m"));
  for (size_t at = 0; (at = stripped.find('\x1b')) != std::string::npos;) {
    stripped.erase(at, stripped.find('m', at) + 1 - at);
  }
  EXPECT_EQ(stripped, plain);
}

TEST_F(ProgramTest, TheEventsAreNumberedAndFollowTheirSchema) {
  using Json = nlohmann::json;
  const Json schema = Json::parse(*readFile(TESSEL_SOURCE_DIR "/docs/events.schema.json"));
  std::set<std::string> kinds;
  for (const char* name : {"hub", "sa-rekey-meets-clear", "router-restart", "pf-loss-hold-timer"}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(run({"run", "--quiet", "--events", file("events"),
                   TESSEL_SOURCE_DIR "/scenarios/" + std::string(name) + ".yaml"}),
              held);
    std::ifstream lines(file("events"));
    double time = 0;
    uint64_t number = 0;
    for (std::string line; std::getline(lines, line);) {
      const Json event = Json::parse(line);
      ASSERT_EQ(event["n"], ++number);
      ASSERT_GE(event["at_seconds"], time);
      ASSERT_THAT(schemaFaults(schema, schema, event), IsEmpty()) << line;
      time = event["at_seconds"];
      kinds.insert(event["event"]);
    }
  }
  EXPECT_THAT(kinds,
              testing::IsSupersetOf({"router-down", "key-received", "controllers-lost", "peer-down",
                                     "path-state", "sa-retyped", "sa-removed", "nonce-received",
                                     "packet-dropped", "machine", "log", "action", "expectation"}));
}

}  // namespace
}  // namespace tessel::lab
