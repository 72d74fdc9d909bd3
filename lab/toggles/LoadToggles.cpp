#include "lab/toggles/LoadToggles.h"

#include <algorithm>
#include <iterator>
#include <map>

#include <nlohmann/json.hpp>

#include "host/facility/Toggles.h"
#include "lab/ReadFile.h"

namespace tessel::lab {
namespace {

/// Walks the text for the parser and lets the handler below know how far it got.
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(std::string_view text, size_t start, size_t& position)
      : text_(text), index_(start), position_(&position) {}
  reference operator*() const { return text_[index_]; }
  CountingIterator& operator++() {
    *position_ = ++index_;
    return *this;
  }
  CountingIterator operator++(int) {
    CountingIterator before = *this;
    ++*this;
    return before;
  }
  friend bool operator==(const CountingIterator& a, const CountingIterator& b) {
    return a.index_ == b.index_;
  }
  friend bool operator!=(const CountingIterator& a, const CountingIterator& b) { return !(a == b); }

 private:
  std::string_view text_;
  size_t index_;
  size_t* position_;
};

/// Accepts one object of booleans and stops at anything else.
class ToggleHandler final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit ToggleHandler(const size_t& position) : position_(position) {}

  const std::map<std::string, bool>& toggles() const { return toggles_; }
  const std::string& problem() const { return problem_; }
  size_t problemAt() const { return problemAt_; }

  bool boolean(bool value) override {
    if (depth_ == 0) {
      return refuse("expected an object of toggles");
    }
    toggles_[key_] = value;
    return true;
  }
  bool key(string_t& name) override {
    key_ = name;
    return !toggles_.contains(name) || refuse("toggle \"" + name + "\" is repeated");
  }
  bool start_object(size_t) override { return ++depth_ == 1 || refuseValue(); }
  bool end_object() override { return true; }
  bool null() override { return refuseValue(); }
  bool number_integer(number_integer_t) override { return refuseValue(); }
  bool number_unsigned(number_unsigned_t) override { return refuseValue(); }
  bool number_float(number_float_t, const string_t&) override { return refuseValue(); }
  bool string(string_t&) override { return refuseValue(); }
  bool binary(binary_t&) override { return refuseValue(); }
  bool start_array(size_t) override { return refuseValue(); }
  bool end_array() override { return true; }
  bool parse_error(size_t position, const std::string&, const nlohmann::json::exception&) override {
    problem_ = "not JSON";
    problemAt_ = position == 0 ? 0 : position - 1;  // It counts from 1.
    return false;
  }

 private:
  bool refuse(std::string problem) {
    problem_ = std::move(problem);
    problemAt_ = position_ == 0 ? 0 : position_ - 1;
    return false;
  }
  bool refuseValue() {
    return refuse(depth_ == 0 ? "expected an object of toggles"
                              : "toggle \"" + key_ + "\" must be true or false");
  }

  const size_t& position_;  // Number of characters that the parser has taken.
  std::map<std::string, bool> toggles_;
  std::string key_;
  size_t depth_ = 0;
  std::string problem_;
  size_t problemAt_ = 0;
};

ToggleFileError errorAt(std::string_view text, size_t position, std::string problem) {
  const std::string_view before = text.substr(0, std::min(position, text.size()));
  const size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0, the first line.
  return {.line = 1 + static_cast<int>(std::ranges::count(before, '\n')),
          .column = 1 + static_cast<int>(before.size() - lineStart),
          .problem = std::move(problem)};
}

}  // namespace

std::string stringValue(const ToggleFileError& error) {
  return std::to_string(error.line) + ":" + std::to_string(error.column) + ": " + error.problem;
}

std::optional<ToggleFileError> readToggles(std::string_view text) {
  size_t position = 0;
  ToggleHandler handler(position);
  const CountingIterator begin(text, 0, position);
  const CountingIterator end(text, text.size(), position);
  if (!nlohmann::json::sax_parse(begin, end, &handler)) {
    return errorAt(text, handler.problemAt(), handler.problem());
  }
  for (const auto& [name, state] : handler.toggles()) {
    Toggles::toggleIs(toggleFileName, name, state);
  }
  return std::nullopt;
}

std::optional<ToggleFileError> loadToggles(const std::filesystem::path& file) {
  std::error_code ignored;
  if (!std::filesystem::exists(file, ignored)) {
    return std::nullopt;
  }
  const std::optional<std::string> text = readFile(file);
  if (!text) {
    return ToggleFileError{.line = 1, .column = 1, .problem = "cannot be read"};
  }
  return readToggles(*text);
}

}  // namespace tessel::lab
