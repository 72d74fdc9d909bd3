#include "lab/cli/RunCommand.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include <fmt/format.h>

#include "lab/Program.h"
#include "lab/check/Invariants.h"
#include "lab/cli/LoadScenarioFile.h"
#include "lab/cli/NarratorColours.h"
#include "lab/cli/ScannedStream.h"
#include "lab/report/EspKeyFile.h"
#include "lab/report/EventFile.h"
#include "lab/report/EventStream.h"
#include "lab/report/Explain.h"
#include "lab/report/JsonReport.h"
#include "lab/report/PacketCapture.h"
#include "lab/report/ReportPage.h"
#include "lab/report/TextReport.h"
#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

/// A file that the run writes. It is opened before the run: a name that cannot be written should
/// not cost one.
class OutputFile {
 public:
  OutputFile(std::string name, Terminal& terminal) : name_(std::move(name)), terminal_(terminal) {
    if (wanted()) {
      stream_.open(name_, std::ios::binary);
    }
  }

  bool wanted() const { return !name_.empty(); }
  std::ostream& stream() { return stream_; }
  /// Lets nobody but its owner read the file.
  void protect() {
    using std::filesystem::perms;
    std::error_code ignored;
    std::filesystem::permissions(name_, perms::owner_read | perms::owner_write, ignored);
  }
  /// Whether everything has been written; complains when not.
  bool good() {
    if (wanted() && !stream_.flush()) {
      terminal_.complain(name_, " cannot be written");
      return false;
    }
    return true;
  }

 private:
  const std::string name_;
  Terminal& terminal_;
  std::ofstream stream_;
};

}  // namespace

int runCommand(const RunOptions& options, Terminal& unscanned) {
  Invariants invariants;
  ScannedStream out(unscanned.out, invariants);
  Terminal terminal{.out = out, .err = unscanned.err, .colours = unscanned.colours};
  std::optional<Scenario> scenario = loadScenarioFile(options.file, terminal);
  if (!scenario) {
    return badInput;
  }
  if (const std::optional<ToggleFileError> error = loadToggles(options.toggleFile)) {
    terminal.complain(options.toggleFile, stringValue(*error) + "; every toggle keeps its default");
  }
  OutputFile json(options.jsonFile, terminal);
  OutputFile page(options.reportFile, terminal);
  OutputFile events(options.eventFile, terminal);
  OutputFile capture(options.captureFile, terminal);
  OutputFile espKeys(options.espKeyFile, terminal);
  OutputFile* const files[] = {&json, &page, &events, &capture, &espKeys};
  for (OutputFile* file : files) {
    if (!file->good()) {
      return badInput;
    }
  }
  scenario->seed = options.seed.value_or(scenario->seed);

  std::vector<LabObserver*> observers{&invariants};
  ScannedStream eventOut(events.stream(), invariants);
  ScannedStream captureOut(capture.stream(), invariants);
  std::vector<LabEventSink*> sinks;
  Narrator narrator(*scenario, colouredLines(terminal));
  EventFile eventFile(eventOut);
  if (!options.quiet) {
    sinks.push_back(&narrator);
    terminal.out << terminal.in(Colour::bold, scenario->name)
                 << fmt::format(", seed {}\n\n", scenario->seed);
  }
  if (events.wanted()) {
    sinks.push_back(&eventFile);
  }
  // Drops that would fall into one pixel of the report are one thing to look at.
  History history(std::max(seconds(1), scenario->duration * 0.0005));
  const bool examined = json.wanted() || page.wanted();
  if (examined) {
    sinks.push_back(&history);
  }
  EventStream stream(*scenario, sinks);
  if (!sinks.empty()) {
    observers.push_back(&stream);
  }
  std::optional<PacketCapture> packetCapture;
  if (capture.wanted()) {
    observers.push_back(&packetCapture.emplace(captureOut));
  }
  EspKeyFile keyFile(espKeys.stream());
  if (espKeys.wanted()) {
    espKeys.protect();
    observers.push_back(&keyFile);
  }

  Lab lab(std::move(*scenario), observers);
  lab.tracingIs(options.trace);
  invariants.start(lab);
  lab.finish();

  if (!options.quiet) {
    narrator.finish(lab.now());
    terminal.out << routerTables(lab) << trafficTable(lab) << "\n";
  }
  eventOut.flush();
  captureOut.flush();
  out.flush();
  if (examined) {
    const Explain explain(history, lab);
    const Examination examination{.evaluated = invariants.evaluated(),
                                  .violations = invariants.violations(),
                                  .findings = explain.findings()};
    if (json.wanted()) {
      ScannedStream(json.stream(), invariants) << jsonReport(lab, examination);
    }
    if (page.wanted()) {
      ScannedStream pageOut(page.stream(), invariants);
      writeReportPage(pageOut, lab, history, explain, examination);
    }
  }
  for (const Violation& violation : invariants.violations()) {
    terminal.out << terminal.in(Colour::red, "invariant violated: " + stringValue(violation))
                 << "\n";
    for (const std::string& event : violation.events) {
      terminal.out << "    " << event << "\n";
    }
  }
  terminal.out << terminal.in(lab.held() ? Colour::green : Colour::red, verdictText(lab));
  for (OutputFile* file : files) {
    if (!file->good()) {
      return badInput;
    }
  }
  return lab.held() && invariants.violations().empty() ? held : notHeld;
}

}  // namespace tessel::lab
