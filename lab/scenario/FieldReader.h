// FieldReader: takes typed fields out of a YAML tree and notes every fault with its position.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/model/Duration.h"
#include "host/model/IpGenAddr.h"
#include "lab/scenario/LoadScenario.h"
#include "lab/scenario/Quantities.h"
#include "lab/scenario/YamlTree.h"

namespace tessel::lab {

/// What one reading of a file collects.
struct ReadingState {
  std::vector<ScenarioError> errors{};
  /// Checks of one field against the rest, run once the whole scenario has been read.
  std::vector<std::function<void(const Scenario&)>> checks{};
  /// Nodes that the file leaves out and a reader needs; they stay where they are.
  std::deque<YamlNode> madeNodes{};
};

/// The names of an enumeration's values.
template <class Enum>
using Names = std::vector<std::pair<std::string, Enum>>;

/// The names that the state model prints, without their numbers. "unknown" names nothing.
template <class Enum>
Names<Enum> modelNames(uint32_t count) {
  Names<Enum> names;
  for (uint32_t number = 0; number < count; ++number) {
    std::string name = stringValue(static_cast<Enum>(number));
    name.resize(name.find('('));
    if (name != "unknown") {
      names.emplace_back(std::move(name), static_cast<Enum>(number));
    }
  }
  return names;
}

/// One value in the tree and where it stands.
class Field {
 public:
  Field(ReadingState& state, const YamlNode& node, std::string path)
      : state_(&state), node_(&node), path_(std::move(path)) {}

  const YamlNode& node() const { return *node_; }
  const std::string& path() const { return path_; }
  ReadingState& state() const { return *state_; }
  bool isText() const { return node_->kind == YamlNode::Kind::scalar && !node_->blank; }
  bool isText(std::string_view text) const { return isText() && node_->text == text; }

  /// Notes a fault of this field. Returns false, so that a reader can leave with it.
  bool refuse(std::string problem) const;
  /// Refuses a choice that is not among `candidates`, with the nearest of them.
  bool refuseName(const std::string& what, const std::vector<std::string>& candidates) const;

  // Each leaves `value` alone and returns false when the field does not hold such a value.
  bool read(std::string& value) const;
  bool read(bool& value) const;
  bool read(Duration& value) const;
  bool read(IpGenAddr& value) const;
  bool readCount(uint64_t& value, uint64_t least, uint64_t most) const;
  template <class Number>
  bool readCount(Number& value, Number least,
                 Number most = std::numeric_limits<Number>::max()) const {
    uint64_t number = 0;
    if (!readCount(number, uint64_t{least}, uint64_t{most})) {
      return false;
    }
    value = static_cast<Number>(number);
    return true;
  }
  bool readDuration(Duration& value, Duration least, Duration most) const;
  /// A duration of whole seconds that fits 32 bits.
  bool readSeconds(uint32_t& value, uint32_t least) const;
  bool readPercentage(double& share) const;
  bool readSize(uint64_t& bytes, uint64_t least, uint64_t most) const;
  template <class Enum>
  bool readName(Enum& value, const std::string& what, const Names<Enum>& names) const {
    std::vector<std::string> candidates;
    for (const auto& [name, meaning] : names) {
      if (isText(name)) {
        value = meaning;
        return true;
      }
      candidates.push_back(name);
    }
    return refuseName(what, candidates);
  }

  /// As `readName`, of an enumeration of the state model: its number will do as well.
  template <class Enum>
  bool readModelName(Enum& value, const std::string& what, const Names<Enum>& names) const {
    for (const auto& [name, meaning] : names) {
      if (isText(std::to_string(static_cast<uint32_t>(meaning)))) {
        value = meaning;
        return true;
      }
    }
    return readName(value, what, names);
  }

  /// The items of a sequence; refused when it is none.
  std::vector<Field> items() const;

 private:
  bool requireText(const char* what) const;
  template <class Value>
  bool take(Parsed<Value> parsed, Value& value) const;

  ReadingState* state_;
  const YamlNode* node_;
  std::string path_;
};

/// The members of a map, taken one by one. What is never asked for is reported as unknown.
class MapReader {
 public:
  explicit MapReader(const Field& field);
  MapReader(const MapReader&) = delete;
  MapReader& operator=(const MapReader&) = delete;
  ~MapReader() { refuseUnknown(); }

  const Field& field() const { return field_; }
  bool has(std::string_view key) const;
  /// The member, or nothing when it is not there.
  std::optional<Field> find(const std::string& key);
  /// As `find`; a missing member is a fault.
  std::optional<Field> require(const std::string& key);

  /// Reads a member that may be missing; an optional value then stays as it is.
  template <class Value>
  bool get(const std::string& key, Value& value) {
    const std::optional<Field> member = find(key);
    return member && member->read(value);
  }
  template <class Value>
  bool get(const std::string& key, std::optional<Value>& value) {
    Value read{};
    if (!get(key, read)) {
      return false;
    }
    value = std::move(read);
    return true;
  }

 private:
  void refuseUnknown();

  Field field_;
  std::vector<std::string> known_;
};

}  // namespace tessel::lab
