// Choices: what the timeline and the expectations of a scenario file have in common. Both are lists
// of a time and a choice of one named thing with its arguments.
#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lab/scenario/ScenarioForms.h"

namespace tessel::lab {

/// One thing that can stand under `do` or `expect`.
template <class Variant>
struct Choice {
  std::string name;
  Variant start;  ///< Of this thing's kind: what a reader begins with.
  std::function<void(Form&, Variant&)> describe;
  /// Whether the name stands for a value of that kind; null: for every one.
  std::function<bool(const Variant&)> means{};
};

/// A choice with the description of its arguments, `describe(Form&, Thing&)`.
template <class Variant, class Thing>
Choice<Variant> choice(const char* name, void (*describe)(Form&, Thing&)) {
  return {.name = name, .start = Thing(), .describe = [describe](Form& form, Variant& value) {
            describe(form, std::get<Thing>(value));
          }};
}

/// A time within the run.
inline void checkTime(const Field& field, Duration at) {
  field.state().checks.push_back([field, at](const Scenario& scenario) {
    if (at > scenario.duration) {
      field.refuse("after the end of the run, " + stringValue(scenario.duration));
    }
  });
}

/// The chosen thing: its name alone, or a map of its name and its arguments.
template <class Variant>
std::optional<Variant> readChoice(const Field& field, const std::string& what,
                                  const std::vector<Choice<Variant>>& choices) {
  const YamlNode& node = field.node();
  const bool isMap = node.kind == YamlNode::Kind::map;
  if (isMap && node.members.size() != 1) {
    field.refuse("one at a time: several stand in a list");
    return std::nullopt;
  }
  const Field name = isMap ? Field(field.state(), node.members[0].first, field.path()) : field;
  const auto choice = std::ranges::find_if(
      choices, [&](const Choice<Variant>& each) { return name.isText(each.name); });
  if (choice == choices.end()) {
    std::vector<std::string> names;
    std::ranges::transform(choices, std::back_inserter(names), &Choice<Variant>::name);
    name.refuseName(what, names);
    return std::nullopt;
  }
  const YamlNode* arguments = nullptr;
  if (isMap) {
    arguments = &node.members[0].second;
  } else {
    arguments = &field.state().madeNodes.emplace_back(
        YamlNode{.blank = true, .line = node.line, .column = node.column});
  }
  MapReader map(Field(field.state(), *arguments, field.path() + "." + choice->name));
  Form form(map);
  Variant value = choice->start;
  choice->describe(form, value);
  return value;
}

/// The reverse of `readChoice`.
template <class Variant>
YamlNode choiceNode(Variant value, const std::vector<Choice<Variant>>& choices) {
  const auto choice = std::ranges::find_if(choices, [&](const Choice<Variant>& each) {
    return each.start.index() == value.index() && (!each.means || each.means(value));
  });
  YamlNode arguments;
  Form form(arguments);
  choice->describe(form, value);
  if (arguments.members.empty()) {
    return {.text = choice->name};
  }
  YamlNode node;
  Form(node).add(choice->name, std::move(arguments));
  return node;
}

/// The one thing or the list of things under `key`.
template <class Variant, class Take>
void readChoices(MapReader& item, const std::string& key, const std::string& what,
                 const std::vector<Choice<Variant>>& choices, Take take) {
  const auto field = item.require(key);
  if (!field) {
    return;
  }
  const bool several = field->node().kind == YamlNode::Kind::sequence;
  for (const Field& each : several ? field->items() : std::vector<Field>{*field}) {
    if (std::optional<Variant> chosen = readChoice(each, what, choices)) {
      take(std::move(*chosen), flowText(each.node()), each.node().line);
    }
  }
}

}  // namespace tessel::lab
