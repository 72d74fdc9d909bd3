#include "lab/report/Narrator.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

constexpr std::string_view kLab = "lab";

using Tone = Narrator::Tone;

bool isTold(const LabEvent& event) {
  if (const auto* step = std::get_if<event::SaStep>(&event.what)) {
    return step->step != event::SaStep::Step::retyped;  // The rekey that does it is told.
  }
  const auto* checked = std::get_if<event::Checked>(&event.what);
  return checked == nullptr || !checked->verdict.held;
}

Tone toneOf(const LabEvent& event) {
  return std::visit(
      Overloaded{[](const event::PeerStatus& e) {
                   return e.status == PeerConnStatus::ready ? Tone::good : Tone::bad;
                 },
                 [](const event::SaStep& e) {
                   return e.step == event::SaStep::Step::notInstalled ? Tone::bad : Tone::plain;
                 },
                 [](const event::PathState& e) {
                   return e.to == DynamicPathState::active ? Tone::good : Tone::plain;
                 },
                 [](const event::Connection& e) { return e.connected ? Tone::good : Tone::bad; },
                 [](const event::FirstPacket&) { return Tone::good; },
                 [](const event::RouterDown&) { return Tone::bad; },
                 [](const event::HardLimit&) { return Tone::bad; },
                 [](const event::Drop&) { return Tone::bad; },
                 [](const event::Checked&) { return Tone::bad; },
                 [](const event::TimelineAction&) { return Tone::lab; },
                 [](const auto&) { return Tone::plain; }},
      event.what);
}

}  // namespace

Narrator::Narrator(const Scenario& scenario, Write write)
    : write_(std::move(write)), nameWidth_(kLab.size()) {
  for (const RouterPlan& router : scenario.routers) {
    nameWidth_ = std::max(nameWidth_, router.name.size());
  }
}

void Narrator::handle(const LabEvent& event) {
  tellDueDrops(event.at);
  if (const auto* drop = std::get_if<event::Drop>(&event.what)) {
    handleDrop(event, *drop);
    return;
  }
  if (!isTold(event)) {
    return;
  }
  if (const std::string text = textOf(event); !text.empty()) {
    tell(event.at, event.router.empty() ? kLab : event.router, toneOf(event), text);
  }
}

void Narrator::handleDrop(const LabEvent& event, const event::Drop& drop) {
  DropRun& run = drops_[DropKind(event.router, event.path, drop.reason, drop.sending)];
  if (!run.due.isNever()) {
    ++run.untold;
    return;
  }
  tell(event.at, event.router, Tone::bad, textOf(event));
  run = {.due = event.at + seconds(1)};
  nextDue_ = std::min(nextDue_, run.due);
}

/// Tells the drops that came since the last line, or ends the run when there were none.
void Narrator::tellDueDrops(Duration now) {
  static constexpr std::array<double, 2> intervals = {10, 60};  // Seconds, after the first one.
  while (nextDue_ <= now) {
    const Duration due = nextDue_;
    nextDue_ = Duration::never();
    for (auto& [kind, run] : drops_) {
      if (run.due == due) {
        const auto& [router, path, reason, sending] = kind;
        if (run.untold > 0) {
          tell(due, router, Tone::bad,
               fmt::format("dropped {} more {}{}: {}", std::exchange(run.untold, 0),
                           sending ? "to send" : "received", path.empty() ? "" : " on path " + path,
                           dropReasonName(reason)));
          run.due = due + seconds(intervals[run.step]);
          run.step = std::min(run.step + 1, intervals.size() - 1);
        } else {
          run.due = Duration::never();
        }
      }
      nextDue_ = std::min(nextDue_, run.due);
    }
  }
}

void Narrator::tell(Duration time, std::string_view router, Tone tone, std::string_view text) {
  write_(tone, fmt::format("{:>11.3f} s  {:<{}}  {}\n", time.seconds(), router, nameWidth_, text));
}

}  // namespace tessel::lab
