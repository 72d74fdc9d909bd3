#include "host/facility/Trace.h"

#include <charconv>
#include <utility>

namespace tessel {
namespace {

std::atomic<TraceSink*> currentTraceSink{nullptr};
thread_local const TraceContext* currentContext = nullptr;

template <class Number>
std::string numberText(Number value) {
  char text[64];
  const std::to_chars_result end = std::to_chars(text, text + sizeof text, value);
  return {text, end.ptr};
}

}  // namespace

void Trace::sinkIs(TraceSink* sink, int maxLevel) {
  currentTraceSink = sink;
  maxLevel_ = sink != nullptr ? maxLevel : off;
}

TraceContext::TraceContext(std::string_view name, const Clock& clock)
    : name_(name), clock_(clock), outer_(std::exchange(currentContext, this)) {}

TraceContext::~TraceContext() {
  currentContext = outer_;
}

const TraceContext* TraceContext::current() {
  return currentContext;
}

std::string TraceItem::formatted(double value) {
  return numberText(value);
}

std::string TraceItem::formatted(uint64_t value) {
  return numberText(value);
}

std::string TraceItem::formatted(int64_t value) {
  return numberText(value);
}

void detail::writeTrace(int level, std::initializer_list<TraceItem> items) {
  TraceSink* const sink = currentTraceSink;
  if (sink == nullptr) {
    return;  // Switched off by another thread since the caller looked.
  }
  std::string text;
  for (const TraceItem& item : items) {
    const std::string next = item.text();
    if (!text.empty() && !next.empty() && text.back() != ' ' && next.front() != ' ') {
      text += ' ';
    }
    text += next;
  }
  const TraceContext* const context = TraceContext::current();
  sink->trace({.context = context != nullptr ? context->name() : std::string_view(),
               .level = level,
               .time = context != nullptr ? context->clock().monotonicTime() : Duration(),
               .text = text});
}

}  // namespace tessel
