#include "lab/cli/TourCommand.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "lab/Program.h"
#include "lab/check/Invariants.h"
#include "lab/cli/LoadScenarioFile.h"
#include "lab/cli/NarratorColours.h"
#include "lab/report/EventStream.h"
#include "lab/report/TextReport.h"
#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

namespace fs = std::filesystem;

/// From the first packet to what can go wrong.
constexpr const char* kStops[] = {"two-routers",
                                  "hub",
                                  "sa-rekey-time",
                                  "sa-rekey-both-at-once",
                                  "sa-rekey-loss-30-percent",
                                  "dh-rekey",
                                  "dh-rekey-both-at-once",
                                  "pf-loss-hold-timer",
                                  "router-restart",
                                  "path-outage",
                                  "peer-recovers-from-wrong-group",
                                  "limit-one-sided-rebuild"};

/// Takes a day of thirty paths: for whoever asks for it by name.
constexpr std::string_view kTooLong = "mesh-day";

constexpr size_t kSentences = 3;
constexpr size_t kLines = 16;
constexpr size_t kLinesOfAKind = 3;

/// Tells the turning points of a run, a few of each kind.
class ShortStory final : public LabEventSink {
 public:
  explicit ShortStory(Narrator& narrator) : narrator_(narrator) {}

  void handle(const LabEvent& event) override {
    if (isTurningPoint(event)) {
      if (told_ < kLines && ofKind_[kindOf(event)]++ < kLinesOfAKind) {
        narrator_.handle(event);
        ++told_;
      } else {
        ++untold_;
      }
    }
  }
  bool wantsEverything() const override { return false; }
  size_t untold() const { return untold_; }

 private:
  static std::string kindOf(const LabEvent& event) {
    const auto* machine = std::get_if<event::Machine>(&event.what);
    return machine == nullptr ? nameOf(event) : machine->name;
  }
  static bool isTurningPoint(const LabEvent& event) {
    return std::visit(
        Overloaded{
            [](const event::PathState& e) { return e.to == DynamicPathState::active; },
            [](const event::Published& e) { return !e.key || e.key->generation > 0; },
            [](const event::Received&) { return false; },
            [](const event::SaStep& e) { return e.step == event::SaStep::Step::notInstalled; },
            [](const event::Machine& e) {
              return e.name == "maybeRekeySa" || e.name == "markRekeyComplete" ||
                     e.name == "dhRekeyInitiated" || e.name == "dhRekeyNotRekeying";
            },
            [](const event::TraceText&) { return false; },
            [](const event::Checked& e) { return !e.verdict.held; },
            [](const auto&) { return true; }},
        event.what);
  }

  Narrator& narrator_;
  std::map<std::string, size_t> ofKind_;
  size_t told_ = 0;
  size_t untold_ = 0;
};

/// The folder itself, or where it is beside or above the program.
fs::path findFolder(const std::string& folder) {
  std::error_code ignored;
  if (fs::is_directory(folder, ignored)) {
    return folder;
  }
  for (fs::path above = fs::read_symlink("/proc/self/exe", ignored).parent_path();
       above.has_relative_path(); above = above.parent_path()) {
    for (const fs::path& place : {above / folder, above / "share/tessel" / folder}) {
      if (fs::is_directory(place, ignored)) {
        return place;
      }
    }
  }
  return {};
}

std::vector<fs::path> stopsOf(const fs::path& folder, bool all) {
  std::vector<fs::path> stops;
  const auto add = [&](const fs::path& file) {
    if (fs::exists(file) && std::ranges::find(stops, file) == stops.end()) {
      stops.push_back(file);
    }
  };
  for (const char* name : kStops) {
    add(folder / (std::string(name) + ".yaml"));
  }
  if (all) {
    std::vector<fs::path> others;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == ".yaml" && entry.path().stem() != kTooLong) {
        others.push_back(entry.path());
      }
    }
    std::ranges::sort(others);
    std::ranges::for_each(others, add);
  }
  return stops;
}

/// Of the first paragraph.
std::string firstSentences(const std::string& description) {
  std::string text = description.substr(0, description.find("\n\n"));
  size_t end = 0;
  for (size_t i = 0; i < kSentences && end < text.size(); ++i) {
    const size_t stop = text.find(". ", end);
    end = stop == std::string::npos ? text.size() : stop + 1;
  }
  text.resize(end);
  text.erase(text.find_last_not_of(" \n") + 1);
  return text;
}

bool play(const fs::path& file, size_t number, size_t all, Terminal& terminal) {
  std::optional<Scenario> scenario = loadScenarioFile(file.string(), terminal);
  if (!scenario) {
    return false;
  }
  terminal.out << terminal.in(Colour::bold,
                              fmt::format("{} of {}: {}", number, all, scenario->name))
               << "\n\n"
               << wrapped(firstSentences(scenario->description), 0) << "\n";
  Narrator narrator(*scenario, colouredLines(terminal));
  ShortStory story(narrator);
  EventStream stream(*scenario, {&story});
  Invariants invariants;
  Lab lab(std::move(*scenario), {&invariants, &stream});
  invariants.start(lab);
  lab.finish();
  if (story.untold() > 0) {
    terminal.out << terminal.in(Colour::dim,
                                fmt::format("              and {} more\n", story.untold()));
  }
  const bool good = lab.held() && invariants.violations().empty();
  terminal.out << "\n"
               << terminal.in(good ? Colour::green : Colour::red, verdictText(lab))
               << fmt::format("Look closer: tessel-lab run {} --report {}.html\n\n", file.string(),
                              file.stem().string());
  terminal.out.flush();
  return good;
}

}  // namespace

int tourCommand(const TourOptions& options, Terminal& terminal) {
  const fs::path folder = findFolder(options.folder);
  const std::vector<fs::path> stops =
      folder.empty() ? std::vector<fs::path>() : stopsOf(folder, options.all);
  if (stops.empty()) {
    terminal.complain(options.folder,
                      " has no scenarios: name their folder with --scenarios, or run from the "
                      "folder that they came in");
    return badInput;
  }
  bool good = true;
  for (size_t i = 0; i < stops.size(); ++i) {
    good &= play(stops[i], i + 1, stops.size(), terminal);
  }
  terminal.out << fmt::format("The end. {}\n",
                              good ? "Every expectation held." : "Not every expectation held.");
  return good ? held : notHeld;
}

}  // namespace tessel::lab
