// EventFile: the event stream for programs, one JSON object per line. docs/events.schema.json
// describes a line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "lab/report/LabEvent.h"

namespace tessel::lab {

/// Writes a line per event. Lines are numbered from 1 without gaps: `n` comes first.
class EventFile final : public LabEventSink {
 public:
  /// The stream outlives this.
  explicit EventFile(std::ostream& out) : out_(out) {}

  void handle(const LabEvent& event) override;

 private:
  std::ostream& out_;
  uint64_t count_ = 0;
};

/// The line of an event, with its newline.
std::string eventLine(uint64_t number, const LabEvent& event);
/// The members of the line that depend on the event's kind, as an object.
std::string eventFields(const LabEvent& event);

}  // namespace tessel::lab
