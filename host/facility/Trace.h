// Trace: what the code says about its own doings, for those who develop and support it.
//
//   TRACE("handleRouterId", routerId);               // every step
//   TRACE_AT(1, "path went quiet :", connectionKey); // rare and of interest by itself
//   TRACE_ERROR("Failed to generate local key");     // something that should not have happened
//
// A trace that is off costs one branch, and its arguments are not evaluated. A line is made of its
// texts and values in order; a space is put between two items where neither side has one.
//
// Byte strings, secret or not, are refused at compile time: print lengths and SPIs.
#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>

#include "host/facility/Export.h"
#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/runtime/Clock.h"

namespace tessel {

/// Levels of trace lines; the lower, the more important.
inline constexpr int traceLevelError = 0;
inline constexpr int traceLevelDefault = 5;
inline constexpr int traceLevelMax = 9;

/// One line of trace. The views end with the call that gets it.
struct TESSEL_API TraceLine {
  std::string_view context;  ///< Whose work it was: the scheduler's name; empty outside of one.
  int level;
  Duration time;  ///< Monotonic time of the context's clock; 0 outside of one.
  std::string_view text;
};

/// Takes trace lines, on the thread that traces.
class TESSEL_API TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void trace(const TraceLine& line) = 0;
};

/// The process's trace switch.
class TESSEL_API Trace {
 public:
  /// Lines of levels up to `maxLevel` go to `sink`, which outlives its use here; null: all off.
  static void sinkIs(TraceSink* sink, int maxLevel = traceLevelMax);
  static bool isOn(int level) { return level <= maxLevel_.load(std::memory_order_relaxed); }

 private:
  static constexpr int off = traceLevelError - 1;
  static inline std::atomic<int> maxLevel_{off};
};

/// Names the agent whose work runs on this thread, and its clock, for as long as it lives. Nests.
/// Schedulers open one around every run of a task or timer; whoever calls into an agent from
/// elsewhere opens one too.
class TESSEL_API TraceContext {
 public:
  /// Both arguments outlive the context.
  TraceContext(std::string_view name, const Clock& clock);
  ~TraceContext();
  TraceContext(const TraceContext&) = delete;
  TraceContext& operator=(const TraceContext&) = delete;

  std::string_view name() const { return name_; }
  const Clock& clock() const { return clock_; }

  /// The innermost context of this thread; null when there is none.
  static const TraceContext* current();

 private:
  std::string_view name_;
  const Clock& clock_;
  const TraceContext* outer_;
};

namespace detail {

template <class T>
concept Text = std::convertible_to<const T&, std::string_view>;

/// Any run of one-byte elements that is not text.
template <class T>
concept ByteString = std::same_as<T, SecretBytes> ||
    (std::ranges::range<const T> && !Text<T> && sizeof(std::ranges::range_value_t<const T>) == 1);

template <class T>
concept HasStringValue = requires(const T& value) {
  { stringValue(value) } -> std::convertible_to<std::string>;
};

}  // namespace detail

/// What a trace line can be made of: text, bool, numbers, and whatever has a `stringValue(value)`
/// in its own namespace. One-byte integers are numbers, except char, which is a character.
template <class T>
concept Traceable = std::same_as<T, const char*> || std::same_as<T, char*> ||
    (!std::is_pointer_v<T> && !std::is_null_pointer_v<T> && !detail::ByteString<T> &&
     (detail::Text<T> || std::is_arithmetic_v<T> || detail::HasStringValue<T>));

/// One item of a line, on its way to the formatter: where the value is and how it is written. It
/// is a few words to make, so that code which traces stays small, and lives no longer than the
/// call that it is made for.
class TESSEL_API TraceItem {
 public:
  // Implicit, so that a list of values is a list of items.
  // NOLINTBEGIN(cppcoreguidelines-pro-type-member-init): the other member of the union.
  TraceItem(const char* text) : text_(text != nullptr ? text : "(null)") {}
  TraceItem(std::string_view text) : text_(text) {}
  // NOLINTEND(cppcoreguidelines-pro-type-member-init)
  template <Traceable T>
  TraceItem(const T& value) : value_(&value), write_(&writeValue<T>) {}

  /// The item as text.
  std::string text() const { return value_ != nullptr ? write_(value_) : std::string(text_); }

 private:
  template <class T>
  static std::string writeValue(const void* address) {
    const T& value = *static_cast<const T*>(address);
    if constexpr (std::is_pointer_v<T>) {
      return value != nullptr ? value : "(null)";
    } else if constexpr (detail::Text<T>) {
      return std::string(std::string_view(value));
    } else if constexpr (std::same_as<T, bool>) {
      return value ? "true" : "false";
    } else if constexpr (std::same_as<T, char>) {
      return std::string(1, value);
    } else if constexpr (std::floating_point<T>) {
      return formatted(static_cast<double>(value));
    } else if constexpr (std::unsigned_integral<T>) {
      return formatted(static_cast<uint64_t>(value));
    } else if constexpr (std::integral<T>) {
      return formatted(static_cast<int64_t>(value));
    } else {
      return stringValue(value);
    }
  }
  static std::string formatted(double value);
  static std::string formatted(uint64_t value);
  static std::string formatted(int64_t value);

  const void* value_ = nullptr;
  union {
    std::string (*write_)(const void*);
    std::string_view text_;
  };
};

namespace detail {

/// Keeps formatting out of the code that traces.
[[gnu::cold]] TESSEL_API void writeTrace(int level, std::initializer_list<TraceItem> items);

}  // namespace detail
}  // namespace tessel

#define TRACE_AT(level, ...)                                \
  do {                                                      \
    if (::tessel::Trace::isOn(level)) [[unlikely]] {        \
      ::tessel::detail::writeTrace((level), {__VA_ARGS__}); \
    }                                                       \
  } while (false)
#define TRACE(...) TRACE_AT(::tessel::traceLevelDefault, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE_AT(::tessel::traceLevelError, __VA_ARGS__)
