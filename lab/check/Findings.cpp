#include "lab/check/Findings.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

constexpr size_t kLastEvents = 10;

constexpr std::array<const char*, kInvariants> kNames = {
    "receiver-holds-sa",   "iv-never-twice",     "equal-spi-equal-key",   "nonces-arrive",
    "ends-cross",          "packets-accounted",  "tables-agree",          "tables-bounded",
    "generations-retired", "states-bounded",     "removal-takes-its-own", "records-whole",
    "logs-contiguous",     "no-secret-in-output"};

std::string text(const LocalEvent& event) {
  return event.eventName.string() + " " + std::to_string(event.number);
}

std::string text(const PathEvent& event) {
  return event.eventName.string() + " " + stringValue(event.pathState) + " " +
         stringValue(event.dhKeyPair);
}

template <class Log>
void appendLast(std::vector<std::string>& lines, const Router& router, const Log& log,
                Duration utcAtStart) {
  if (!log) {
    return;
  }
  const auto events = log->inOrder();
  for (size_t i = events.size() - std::min(events.size(), kLastEvents); i < events.size(); ++i) {
    lines.push_back(router.name() + " " + stringValue(events[i].time - utcAtStart) + " " +
                    text(events[i]));
  }
}

std::vector<std::string> lastEvents(const Lab& lab, const Place& place) {
  std::vector<std::string> lines;
  const Duration utcAtStart = lab.time()->utcTime() - lab.now();
  for (const std::string& name : place.routers) {
    const Router& router = lab.router(name);
    if (!router.up()) {
      lines.push_back(name + " is down");
      continue;
    }
    const RecordEvents& events = *router.entities().recordEvents;
    const RouterPath* const path = router.path(place.path);
    if (path == nullptr) {
      appendLast(lines, router, events.localEvents(), utcAtStart);
    } else if (const auto* const log = events.pathEvents().find(path->end.key)) {
      appendLast(lines, router, *log, utcAtStart);
    }
  }
  return lines;
}

std::string inWords(const Place& place) {
  std::string words;
  for (const std::string& router : place.routers) {
    words += (words.empty() ? "" : " and ") + router;
  }
  if (!place.path.empty()) {
    words += (words.empty() ? "path " : ", path ") + place.path;
  }
  if (!place.detail.empty()) {
    words += ", " + place.detail;
  }
  return words;
}

}  // namespace

const char* invariantName(Invariant invariant) {
  return kNames[static_cast<size_t>(invariant)];
}

std::string stringValue(const Violation& violation) {
  return violation.invariant + " at " + tessel::stringValue(violation.at) + ", " + violation.where +
         ": " + violation.what;
}

Place placeOf(const PathPlan& path) {
  return {.routers = {path.ends[0].router, path.ends[1].router}, .path = path.name};
}

Violation violationAt(const Lab* lab, const char* invariant, const Place& place, std::string what) {
  return {.invariant = invariant,
          .at = lab != nullptr ? lab->now() : Duration(),
          .where = inWords(place),
          .what = std::move(what),
          .routers = place.routers,
          .path = place.path,
          .events = lab != nullptr ? lastEvents(*lab, place) : std::vector<std::string>()};
}

void Findings::add(Invariant invariant, const Place& place, std::string what) {
  const char* const name = invariantName(invariant);
  if (known_.insert(name + inWords(place)).second) {
    violations_.push_back(violationAt(lab_, name, place, std::move(what)));
  }
}

}  // namespace tessel::lab
