// Narrator: tells what happens in a lab, line by line.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include "lab/report/LabEvent.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// Writes a line for what a reader wants to follow: the timeline's actions, what the controllers
/// carry, how peers and paths change, which SAs come and go, rekeys, log messages, drops and broken
/// expectations. Each line has the virtual time and the router:
///
///        0.120 s  east  path internet: established -> active
///
/// Drops of one kind are gathered: the first is told at once, what follows in intervals.
class Narrator final : public LabEventSink {
 public:
  /// What a line is about, for those who colour it.
  enum class Tone : uint8_t { plain, good, bad, lab };
  /// Gets whole lines, with their newline.
  using Write = std::function<void(Tone tone, std::string_view line)>;

  Narrator(const Scenario& scenario, Write write);

  void handle(const LabEvent& event) override;
  bool wantsEverything() const override { return false; }
  /// Tells the drops that are due by then.
  void finish(Duration now) { tellDueDrops(now); }

 private:
  /// Drops of one kind: what was told of them, and when to tell the rest.
  struct DropRun {
    uint64_t untold = 0;
    size_t step = 0;
    Duration due = Duration::never();
  };
  using DropKind =
      std::tuple<std::string, std::string, DropReason, bool>;  // Router, path, sending.

  void handleDrop(const LabEvent& event, const event::Drop& drop);
  void tellDueDrops(Duration now);
  void tell(Duration time, std::string_view router, Tone tone, std::string_view text);

  const Write write_;
  size_t nameWidth_;
  std::map<DropKind, DropRun> drops_;
  Duration nextDue_ = Duration::never();
};

}  // namespace tessel::lab
