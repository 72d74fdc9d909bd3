// AgentLog: messages for the operator. Each is registered once, with what it means and what to do.
//
//   const AgentLogMessage AGENT_STARTED{{.identifier = "AGENT_STARTED",
//                                        .text = "Agent %s started",
//                                        .explanation = "The agent is up.",
//                                        .severity = 6}};
//   AGENT_STARTED.log(agentName);
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "host/facility/Export.h"
#include "host/facility/Trace.h"
#include "host/model/Duration.h"

namespace tessel {

/// How often a message may be logged. Only the defaults are accepted, which log every occurrence.
struct TESSEL_API AgentLogRate {
  Duration interval;
  double factor = 1.0;
  uint32_t burstLimit = 0;
  uint32_t totalLimit = 0;

  friend bool operator==(const AgentLogRate&, const AgentLogRate&) = default;
};

/// What is registered about a message.
struct TESSEL_API AgentLogDefinition {
  std::string identifier;
  std::string text;  ///< With "%s" for each argument, "%%" for a percent sign.
  std::string explanation{};
  std::string recommendedAction{};  ///< Empty when there is nothing to do.
  int severity = 6;                 ///< As in RFC 5424, section 6.2.1: 0 emergency ... 7 debug.
  AgentLogRate rate{};
};

/// One occurrence of a message. The views end with the call that gets it.
struct TESSEL_API AgentLogLine {
  std::string_view identifier;
  int severity;
  std::string_view text;     ///< Arguments filled in.
  std::string_view context;  ///< Which agent logged; empty outside of one.
  Duration time;             ///< Monotonic time of the agent's clock; 0 outside of one.
  Duration utcTime;          ///< UTC time of the agent's clock; 0 outside of one.
};

/// Takes log lines, on the thread that logs.
class TESSEL_API AgentLogSink {
 public:
  virtual ~AgentLogSink() = default;
  virtual void log(const AgentLogLine& line) = 0;
};

/// A registered message; an object of static storage, made once.
class TESSEL_API AgentLogMessage {
 public:
  /// Registers the message. Throws std::invalid_argument for an identifier that is empty or
  /// registered already, a severity outside 0 to 7, and rate parameters that are not supported.
  explicit AgentLogMessage(AgentLogDefinition definition);
  ~AgentLogMessage();
  AgentLogMessage(const AgentLogMessage&) = delete;
  AgentLogMessage& operator=(const AgentLogMessage&) = delete;

  const AgentLogDefinition& definition() const { return definition_; }
  /// Occurrences since the start of the process, by all agents, with or without a sink.
  uint64_t count() const { return count_.load(std::memory_order_relaxed); }

  /// Logs an occurrence. Arguments are what a trace takes. A missing one leaves its "%s" in the
  /// text, a surplus one is not printed.
  template <Traceable... Args>
  void log(const Args&... args) const {
    logItems({TraceItem(args)...});
  }

 private:
  void logItems(std::initializer_list<TraceItem> args) const;

  AgentLogDefinition definition_;
  mutable std::atomic<uint64_t> count_{0};
};

/// The process's log.
class TESSEL_API AgentLog {
 public:
  /// All lines go to `sink`, which outlives its use here; null: nowhere.
  static void sinkIs(AgentLogSink* sink);

  /// All registered messages by identifier, whatever the order in which they were registered.
  static std::vector<const AgentLogMessage*> messages();
  /// The message with that identifier; null when there is none.
  static const AgentLogMessage* message(std::string_view identifier);
};

}  // namespace tessel
