#include "lab/scenario/FieldReader.h"

#include <algorithm>
#include <cmath>

namespace tessel::lab {

bool Field::refuse(std::string problem) const {
  std::string value = flowText(*node_);
  constexpr size_t longest = 60;
  if (value.size() > longest) {
    value.resize(longest);
    value += "...";
  }
  state_->errors.push_back({.line = node_->line,
                            .column = node_->column,
                            .field = path_,
                            .value = std::move(value),
                            .problem = std::move(problem)});
  return false;
}

bool Field::refuseName(const std::string& what, const std::vector<std::string>& candidates) const {
  if (!isText()) {
    return refuse("expected " + what);
  }
  const std::string nearest = nearestName(node_->text, candidates);
  if (!nearest.empty()) {
    return refuse("not " + what + "; did you mean \"" + nearest + "\"?");
  }
  std::string list;
  for (const std::string& candidate : candidates) {
    list += (list.empty() ? "" : ", ") + candidate;
  }
  return refuse("not " + what + (list.empty() ? "" : "; known: " + list));
}

bool Field::requireText(const char* what) const {
  return isText() || refuse(std::string("expected ") + what);
}

template <class Value>
bool Field::take(Parsed<Value> parsed, Value& value) const {
  if (!parsed.value) {
    return refuse(parsed.problem);
  }
  value = *parsed.value;
  return true;
}

bool Field::read(std::string& value) const {
  if (!requireText("a text")) {
    return false;
  }
  value = node_->text;
  return true;
}

bool Field::read(bool& value) const {
  static const Names<bool> names = {{"true", true}, {"false", false}, {"on", true},
                                    {"off", false}, {"yes", true},    {"no", false}};
  return readName(value, "true or false", names);
}

bool Field::read(Duration& value) const {
  return requireText("a duration") && take(parseDuration(node_->text), value);
}

bool Field::read(IpGenAddr& value) const {
  if (!requireText("an IP address")) {
    return false;
  }
  const std::optional<IpGenAddr> address = IpGenAddr::parse(node_->text);
  if (!address) {
    return refuse("not an IP address");
  }
  value = *address;
  return true;
}

bool Field::readCount(uint64_t& value, uint64_t least, uint64_t most) const {
  uint64_t count = 0;
  if (!requireText("a number") || !take(parseCount(node_->text), count)) {
    return false;
  }
  if (count < least || count > most) {
    return refuse("out of range: " + std::to_string(least) + " to " + std::to_string(most));
  }
  value = count;
  return true;
}

bool Field::readDuration(Duration& value, Duration least, Duration most) const {
  Duration duration;
  if (!read(duration)) {
    return false;
  }
  if (duration < least || duration > most) {
    return refuse("out of range: " + stringValue(least) + " to " + stringValue(most));
  }
  value = duration;
  return true;
}

bool Field::readSeconds(uint32_t& value, uint32_t least) const {
  Duration duration;
  constexpr uint32_t most = std::numeric_limits<uint32_t>::max();
  if (!readDuration(duration, seconds(least), seconds(most))) {
    return false;
  }
  if (duration.seconds() != std::floor(duration.seconds())) {
    return refuse("whole seconds only");
  }
  value = static_cast<uint32_t>(duration.seconds());
  return true;
}

bool Field::readPercentage(double& share) const {
  return requireText("a percentage") && take(parsePercentage(node_->text), share);
}

bool Field::readSize(uint64_t& bytes, uint64_t least, uint64_t most) const {
  uint64_t size = 0;
  if (!requireText("a size") || !take(parseSize(node_->text), size)) {
    return false;
  }
  if (size < least || size > most) {
    return refuse("out of range: " + std::to_string(least) + " B to " + std::to_string(most) +
                  " B");
  }
  bytes = size;
  return true;
}

std::vector<Field> Field::items() const {
  std::vector<Field> fields;
  if (node_->kind != YamlNode::Kind::sequence) {
    refuse("expected a list");
    return fields;
  }
  for (size_t i = 0; i < node_->items.size(); ++i) {
    fields.emplace_back(*state_, node_->items[i], path_ + "[" + std::to_string(i) + "]");
  }
  return fields;
}

namespace {

std::string memberPath(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

}  // namespace

MapReader::MapReader(const Field& field) : field_(field) {
  const YamlNode& node = field.node();
  // A blank stands for a map without members: "defaults:" with everything commented out.
  if (node.kind != YamlNode::Kind::map && !node.blank) {
    field.refuse("expected fields with their names");
  }
  for (size_t i = 0; i < node.members.size(); ++i) {
    const YamlNode& key = node.members[i].first;
    const auto first = std::ranges::find_if(
        node.members, [&](const auto& member) { return member.first.text == key.text; });
    if (first->first.line != key.line || first->first.column != key.column) {
      Field(field.state(), key, memberPath(field.path(), key.text))
          .refuse("repeated: it stands on line " + std::to_string(first->first.line) + " already");
    }
  }
}

bool MapReader::has(std::string_view key) const {
  return std::ranges::any_of(field_.node().members,
                             [&](const auto& member) { return member.first.text == key; });
}

std::optional<Field> MapReader::find(const std::string& key) {
  known_.push_back(key);
  for (const auto& [name, value] : field_.node().members) {
    if (name.text == key) {
      return Field(field_.state(), value, memberPath(field_.path(), key));
    }
  }
  return std::nullopt;
}

std::optional<Field> MapReader::require(const std::string& key) {
  std::optional<Field> member = find(key);
  if (!member && (field_.node().kind == YamlNode::Kind::map || field_.node().blank)) {
    field_.state().errors.push_back({.line = field_.node().line,
                                     .column = field_.node().column,
                                     .field = memberPath(field_.path(), key),
                                     .problem = "missing"});
  }
  return member;
}

void MapReader::refuseUnknown() {
  for (const auto& [name, value] : field_.node().members) {
    if (std::ranges::find(known_, name.text) != known_.end()) {
      continue;
    }
    const std::string nearest = nearestName(name.text, known_);
    Field(field_.state(), name, memberPath(field_.path(), name.text))
        .refuse(nearest.empty() ? "unknown field"
                                : "unknown field; did you mean \"" + nearest + "\"?");
  }
}

}  // namespace tessel::lab
