#include "lab/cli/ExplainCommand.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "lab/Program.h"
#include "lab/ReadFile.h"

namespace tessel::lab {
namespace {

using Document = nlohmann::json;

/// Chooses findings by path: those of a path, and those between its two routers that are of none.
class PathChoice {
 public:
  PathChoice(const Document& report, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      names_.insert(name);
      bool known = false;
      for (const Document& router : report.at("routers")) {
        for (const Document& path : router.at("paths")) {
          if (path.at("name") == name) {
            known = true;
            pairs_.emplace(router.at("name"), path.at("peer"));
          }
        }
      }
      if (!known) {
        unknown_ = unknown_.value_or(name);
      }
    }
  }

  const std::optional<std::string>& unknown() const { return unknown_; }

  bool includes(const Document& finding) const {
    if (names_.empty()) {
      return true;
    }
    return finding.contains("path")
               ? names_.contains(finding["path"].get<std::string>())
               : pairs_.contains({finding.at("router"), finding.value("peer", std::string())});
  }

 private:
  std::set<std::string> names_;
  std::set<std::pair<std::string, std::string>> pairs_;
  std::optional<std::string> unknown_;
};

std::string headText(const Document& report, size_t findings) {
  const Document& expectations = report.at("expectations");
  const auto held = std::ranges::count_if(
      expectations, [](const Document& each) { return each.at("held").get<bool>(); });
  return fmt::format(
      "{}, seed {}: {} of {} expectations held, {} of {} invariant checks violated, {} finding{}\n",
      report.at("scenario").at("name").get<std::string>(),
      report.at("scenario").at("seed").get<uint64_t>(), held, expectations.size(),
      report.at("invariants").at("violations").size(),
      report.at("invariants").at("evaluated").get<uint64_t>(), findings, findings == 1 ? "" : "s");
}

std::string findingText(const Document& finding, const Terminal& terminal) {
  std::string text =
      "\n" + terminal.in(Colour::bold, finding.at("title").get<std::string>()) + "\n";
  const Document& to = finding.at("to_seconds");
  text += terminal.in(
      Colour::dim,
      fmt::format("  {:.3f} s to {}\n", finding.at("from_seconds").get<double>(),
                  to.is_null() ? "the end" : fmt::format("{:.3f} s", to.get<double>())));
  text += wrapped(finding.at("explanation"), 2);
  const Document& before = finding.at("before");
  if (!before.empty()) {
    text += "  before it:\n";
  }
  for (const Document& line : before) {
    text +=
        fmt::format("  {:>11.3f} s  {}  {}\n", line.at("at_seconds").get<double>(),
                    line.value("router", std::string("lab")), line.at("text").get<std::string>());
  }
  return text;
}

int explain(const Document& report, const ExplainOptions& options, Terminal& terminal) {
  if (report.at("format") != "tessel-lab-report" || report.at("version") != 2) {
    terminal.complain(options.file, " is no report of this version of tessel-lab");
    return badInput;
  }
  const PathChoice choice(report, options.paths);
  if (choice.unknown()) {
    terminal.complain(options.file, " has no path \"" + *choice.unknown() + "\"");
    return badInput;
  }
  std::vector<Document> findings;
  std::ranges::copy_if(report.at("findings"), std::back_inserter(findings),
                       [&](const Document& each) { return choice.includes(each); });
  terminal.out << headText(report, findings.size());
  for (const Document& finding : findings) {
    terminal.out << findingText(finding, terminal);
  }
  return held;
}

}  // namespace

int explainCommand(const ExplainOptions& options, Terminal& terminal) {
  const std::optional<std::string> text = readFile(options.file);
  if (!text) {
    terminal.complain(options.file, " cannot be read");
    return badInput;
  }
  try {
    return explain(Document::parse(*text), options, terminal);
  } catch (const Document::exception&) {
    terminal.complain(options.file, " is no report: write one with tessel-lab run --json");
    return badInput;
  }
}

}  // namespace tessel::lab
