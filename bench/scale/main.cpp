// tessel-scale: thousands of peers and paths on one router, with a data path that moves nothing.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/agent/Floors.h"
#include "bench/scale/Population.h"
#include "host/facility/Allocation.h"

namespace tessel::bench {

namespace {

using nlohmann::json;

json toJson(const PopulationResult& result) {
  json phases = json::array();
  for (const Phase& phase : result.phases) {
    phases.push_back({{"name", phase.name.data()},
                      {"operations", phase.operations},
                      {"seconds", phase.seconds},
                      {"perOperation", phase.perOperation()},
                      {"cryptoShare", phase.cryptoShare},
                      {"longest", phase.longest},
                      {"longestJob", phase.longestJob.data()},
                      {"nearlyAll", phase.nearlyAll},
                      {"residentBytes", phase.residentBytes}});
  }
  json sweeps = json::array();
  for (const Sweep& sweep : result.sweeps) {
    sweeps.push_back({{"name", sweep.name.data()},
                      {"runs", sweep.runs},
                      {"seconds", sweep.seconds},
                      {"longest", sweep.longest}});
  }
  return {{"peers", result.peers},
          {"pathsPerPeer", result.pathsPerPeer},
          {"sharedSecretFloor", result.sharedSecretFloor},
          {"prfFloor", result.prfFloor},
          {"lookupFloor", result.lookupFloor},
          {"hostBytesPerPath", result.hostBytesPerPath},
          {"engineBytesPerPath", result.engineBytesPerPath},
          {"rekeyResident", result.rekeyResident},
          {"phases", phases},
          {"sweeps", sweeps}};
}

/// Runs one population in a process of its own, so that it starts with empty memory.
json runApart(const PopulationSettings& settings) {
  int ends[2];
  check(pipe(ends) == 0);
  std::fflush(nullptr);
  const pid_t child = fork();
  check(child >= 0);
  if (child == 0) {
    close(ends[0]);
    const std::string text = toJson(runPopulation(settings)).dump();
    for (size_t sent = 0; sent < text.size();) {
      const ssize_t size = write(ends[1], text.data() + sent, text.size() - sent);
      check(size > 0);
      sent += static_cast<size_t>(size);
    }
    _exit(0);
  }
  close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t size = 0; (size = read(ends[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(size));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  check(status == 0);
  return json::parse(text);
}

void print(const json& result) {
  const auto paths = result["peers"].get<double>() * result["pathsPerPeer"].get<double>();
  fmt::print(
      "\n{} peers x {} paths; floors: shared secret {:.1f} us, prf+ {:.2f} us, lookup {:.0f} "
      "ns\n",
      result["peers"].get<int>(), result["pathsPerPeer"].get<int>(),
      result["sharedSecretFloor"].get<double>() * 1e6, result["prfFloor"].get<double>() * 1e6,
      result["lookupFloor"].get<double>() * 1e9);
  fmt::print("{:<26}{:>10}{:>10}{:>12}{:>9}{:>10}{:>10}{:>10}  {}\n", "phase", "ops", "total s",
             "us per op", "crypto", "max ms", "99.9 % ms", "MiB", "longest");
  for (const json& phase : result["phases"]) {
    fmt::print("{:<26}{:>10}{:>10.3f}{:>12.2f}{:>8.0f}%{:>10.2f}{:>10.2f}{:>10.0f}  {}\n",
               phase["name"].get<std::string>(), phase["operations"].get<uint64_t>(),
               phase["seconds"].get<double>(), phase["perOperation"].get<double>() * 1e6,
               phase["cryptoShare"].get<double>() * 100, phase["longest"].get<double>() * 1e3,
               phase["nearlyAll"].get<double>() * 1e3,
               phase["residentBytes"].get<double>() / (1 << 20),
               phase["longestJob"].get<std::string>());
  }
  fmt::print("bytes per path: the agent's own data {:.0f}, the machine's {:.0f}, together {:.0f}\n",
             result["hostBytesPerPath"].get<double>(), result["engineBytesPerPath"].get<double>(),
             result["hostBytesPerPath"].get<double>() + result["engineBytesPerPath"].get<double>());
  fmt::print("tasks and timers in the hour with traffic:\n");
  for (const json& sweep : result["sweeps"]) {
    const double seconds = sweep["seconds"];
    const double runs = sweep["runs"];
    fmt::print(
        "  {:<20}{:>8.0f} runs{:>10.3f} s{:>10.2f} ms longest{:>10.0f} ns per path and run\n",
        sweep["name"].get<std::string>(), runs, seconds, sweep["longest"].get<double>() * 1e3,
        seconds / runs / paths * 1e9);
  }
}

void printGrowth(const std::vector<json>& results) {
  fmt::print("\nmicroseconds per operation, by paths\n{:<26}", "phase");
  for (const json& result : results) {
    fmt::print("{:>12}", result["peers"].get<uint64_t>() * result["pathsPerPeer"].get<uint64_t>());
  }
  fmt::print("{:>12}\n", "last/first");
  for (size_t i = 0; i < results.front()["phases"].size(); ++i) {
    const json& first = results.front()["phases"][i];
    fmt::print("{:<26}", first["name"].get<std::string>());
    double last = 0;
    for (const json& result : results) {
      last = result["phases"][i]["perOperation"];
      fmt::print("{:>12.2f}", last * 1e6);
    }
    fmt::print("{:>12.2f}\n", last / first["perOperation"].get<double>());
  }
}

IpsecDhGroup groupOf(const std::string& name) {
  return name == "modp-2048" ? IpsecDhGroup::modp2048 : IpsecDhGroup::ecp256;
}

}  // namespace

}  // namespace tessel::bench

// What goes wrong ends the program, and its text is shown.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
  using namespace tessel::bench;
  tessel::mergeFreedMemoryAtOnce();  // As a router does.
  CLI::App app("Thousands of peers and paths on one router, with a data path that moves nothing");
  std::vector<uint32_t> peers = {100, 1000, 10000};
  PopulationSettings settings;
  settings.agent.saLifetime = 3600;  // Every path has one SA rekey in the hour.
  std::string group = "ecp-256";
  std::string file;
  app.add_option("--peers", peers, "numbers of peers to run, in turn")->capture_default_str();
  app.add_option("--paths", settings.agent.pathsPerPeer, "paths per peer")->capture_default_str();
  app.add_option("--traffic", settings.trafficSeconds, "virtual seconds with traffic")
      ->capture_default_str();
  app.add_option("--dh-rekeys", settings.dhRekeys, "DH rekeys in a row")->capture_default_str();
  app.add_option("--group", group, "DH group")
      ->check(CLI::IsMember({"ecp-256", "modp-2048"}))
      ->capture_default_str();
  app.add_option("--json", file, "writes every figure to this file");
  CLI11_PARSE(app, argc, argv);

  settings.agent.group = groupOf(group);
  std::vector<nlohmann::json> results;
  for (const uint32_t number : peers) {
    settings.agent.peers = number;
    results.push_back(runApart(settings));
    print(results.back());
    std::fflush(stdout);
  }
  if (results.size() > 1) {
    printGrowth(results);
  }
  if (!file.empty()) {
    std::ofstream out(file);
    out << nlohmann::json(results).dump(1) << '\n';
    if (!out) {
      std::fprintf(stderr, "%s: cannot be written\n", file.c_str());
      return EXIT_FAILURE;
    }
  }
  return EXIT_SUCCESS;
}
