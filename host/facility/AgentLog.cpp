#include "host/facility/AgentLog.h"

#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace tessel {
namespace {

std::atomic<AgentLogSink*> currentLogSink{nullptr};

struct Registry {
  std::mutex mutex;
  std::map<std::string, const AgentLogMessage*, std::less<>> messages;
};

/// Made by the first message and never destroyed: messages of static storage outlive everything.
Registry& registry() {
  static Registry& instance = *new Registry;
  return instance;
}

std::string filledIn(std::string_view text, std::initializer_list<TraceItem> args) {
  std::string result;
  const auto* arg = args.begin();
  for (size_t i = 0; i < text.size(); ++i) {
    const std::string_view pair = text.substr(i, 2);
    if (pair == "%%") {
      result += '%';
      ++i;
    } else if (pair == "%s" && arg != args.end()) {
      result += arg->text();
      ++arg;
      ++i;
    } else {
      result += text[i];
    }
  }
  return result;
}

}  // namespace

AgentLogMessage::AgentLogMessage(AgentLogDefinition definition)
    : definition_(std::move(definition)) {
  const std::string& identifier = definition_.identifier;
  if (identifier.empty()) {
    throw std::invalid_argument("log message: identifier is empty");
  }
  if (definition_.severity < 0 || definition_.severity > 7) {
    throw std::invalid_argument("log message " + identifier + ": severity " +
                                std::to_string(definition_.severity) + " is not 0 to 7");
  }
  if (definition_.rate != AgentLogRate()) {
    throw std::invalid_argument("log message " + identifier +
                                ": rate is not the one that logs every occurrence");
  }
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  if (!all.messages.emplace(identifier, this).second) {
    throw std::invalid_argument("log message " + identifier + ": identifier is registered already");
  }
}

AgentLogMessage::~AgentLogMessage() {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  all.messages.erase(definition_.identifier);
}

void AgentLogMessage::logItems(std::initializer_list<TraceItem> args) const {
  count_.fetch_add(1, std::memory_order_relaxed);
  AgentLogSink* const sink = currentLogSink;
  if (sink == nullptr) {
    return;
  }
  const std::string text = filledIn(definition_.text, args);
  AgentLogLine line{.identifier = definition_.identifier,
                    .severity = definition_.severity,
                    .text = text,
                    .context = {},
                    .time = {},
                    .utcTime = {}};
  if (const TraceContext* const context = TraceContext::current()) {
    line.context = context->name();
    line.time = context->clock().monotonicTime();
    line.utcTime = context->clock().utcTime();
  }
  sink->log(line);
}

void AgentLog::sinkIs(AgentLogSink* sink) {
  currentLogSink = sink;
}

std::vector<const AgentLogMessage*> AgentLog::messages() {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  std::vector<const AgentLogMessage*> result;
  for (const auto& [identifier, message] : all.messages) {
    result.push_back(message);
  }
  return result;
}

const AgentLogMessage* AgentLog::message(std::string_view identifier) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  const auto found = all.messages.find(identifier);
  return found != all.messages.end() ? found->second : nullptr;
}

}  // namespace tessel
