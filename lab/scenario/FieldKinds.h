// FieldKinds: the kinds of values in a scenario file, each in both directions.
//
// `read` takes a value out of a field; it faults a field that holds none, leaves the value alone
// and returns false. `text` is the reverse: what a field must hold. It throws std::invalid_argument
// for a value that no field can hold.
#pragma once

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>

#include "host/model/Duration.h"
#include "host/model/IpGenAddr.h"
#include "lab/scenario/FieldReader.h"
#include "lab/scenario/Quantities.h"

namespace tessel::lab {

struct TextKind {
  bool read(const Field& field, std::string& value) const { return field.read(value); }
  std::string text(const std::string& value) const { return value; }
};

struct SwitchKind {
  bool read(const Field& field, bool& value) const { return field.read(value); }
  std::string text(bool value) const { return value ? "true" : "false"; }
};

struct AddressKind {
  bool read(const Field& field, IpGenAddr& value) const { return field.read(value); }
  std::string text(const IpGenAddr& value) const { return value.stringValue(); }
};

struct TimeKind {
  Duration least{};
  Duration most = Duration::never();
  bool read(const Field& field, Duration& value) const {
    return most.isNever() ? field.read(value) : field.readDuration(value, least, most);
  }
  std::string text(Duration value) const { return durationText(value); }
};

/// Whole seconds in a plain number.
struct SecondsKind {
  uint32_t least = 1;
  bool read(const Field& field, uint32_t& value) const { return field.readSeconds(value, least); }
  std::string text(uint32_t value) const { return durationText(seconds(value)); }
};

template <class Number>
struct CountKind {
  Number least = 0;
  Number most = std::numeric_limits<Number>::max();
  bool read(const Field& field, Number& value) const { return field.readCount(value, least, most); }
  std::string text(Number value) const { return std::to_string(value); }
};

template <class Number>
struct SizeKind {
  Number least = 1;
  Number most = std::numeric_limits<Number>::max();
  bool read(const Field& field, Number& value) const {
    uint64_t size = 0;
    if (!field.readSize(size, least, most)) {
      return false;
    }
    value = static_cast<Number>(size);
    return true;
  }
  std::string text(Number value) const { return sizeText(value); }
};

struct ShareKind {
  bool read(const Field& field, double& value) const { return field.readPercentage(value); }
  std::string text(double value) const { return percentageText(value); }
};

/// One of a few names. `what` they are called together is part of a fault's text.
template <class Value>
struct NameKind {
  std::string what;
  const Names<Value>& names;
  bool read(const Field& field, Value& value) const { return field.readName(value, what, names); }
  std::string text(const Value& value) const {
    const auto found = std::ranges::find(names, value, &Names<Value>::value_type::second);
    if (found == names.end()) {
      throw std::invalid_argument("there is a value without a name where " + what + " is expected");
    }
    return found->first;
  }
};
template <class Value>
NameKind(std::string, const Names<Value>&) -> NameKind<Value>;

/// As `NameKind`, of an enumeration of the state model: a file may also give its number.
template <class Value>
struct ModelNameKind {
  std::string what;
  const Names<Value>& names;
  bool read(const Field& field, Value& value) const {
    return field.readModelName(value, what, names);
  }
  std::string text(const Value& value) const { return NameKind<Value>{what, names}.text(value); }
};
template <class Value>
ModelNameKind(std::string, const Names<Value>&) -> ModelNameKind<Value>;

/// Another kind, with a word for one special value.
template <class Value, class Kind>
struct OrWord {
  const char* word;
  Value special;
  Kind kind;
  bool read(const Field& field, Value& value) const {
    if (field.isText(word)) {
      value = special;
      return true;
    }
    return kind.read(field, value);
  }
  std::string text(const Value& value) const { return value == special ? word : kind.text(value); }
};
template <class Value, class Kind>
OrWord(const char*, Value, Kind) -> OrWord<Value, Kind>;

/// Another kind, with a word for no value at all.
template <class Kind>
struct OrNothing {
  const char* word;
  Kind kind;
  template <class Value>
  bool read(const Field& field, std::optional<Value>& value) const {
    if (field.isText(word)) {
      value.reset();
      return true;
    }
    Value read{};
    if (!kind.read(field, read)) {
      return false;
    }
    value = std::move(read);
    return true;
  }
  template <class Value>
  std::string text(const std::optional<Value>& value) const {
    return value ? kind.text(*value) : word;
  }
};
template <class Kind>
OrNothing(const char*, Kind) -> OrNothing<Kind>;

}  // namespace tessel::lab
