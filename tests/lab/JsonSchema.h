// JSON documents against a schema, as far as our schemas go.
#pragma once

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace tessel {

/// What is wrong with `value` according to `schema`, which may refer to parts of `root`: one line
/// per fault with its place in the document. Throws std::invalid_argument for a schema with
/// keywords that are not known here.
inline std::vector<std::string> schemaFaults(const nlohmann::json& root,
                                             const nlohmann::json& schema,
                                             const nlohmann::json& value,
                                             const std::string& place = "") {
  using Json = nlohmann::json;
  std::vector<std::string> faults;
  const auto require = [&](bool holds, const std::string& fault) {
    if (!holds) {
      faults.push_back(place + ": " + fault);
    }
  };
  const auto descend = [&](const Json& part, const Json& member, const std::string& name) {
    std::ranges::move(schemaFaults(root, part, member, place + name), std::back_inserter(faults));
  };
  if (schema.is_boolean()) {
    require(schema, "must not be there");
    return faults;
  }
  for (const auto& [keyword, rule] : schema.items()) {
    if (keyword == "$ref") {
      descend(root.at(Json::json_pointer(rule.get<std::string>().substr(1))), value, "");
    } else if (keyword == "type") {
      const Json types = rule.is_array() ? rule : Json::array({rule});
      require(std::ranges::find(types, value.type_name()) != types.end() ||
                  (value.is_number_integer() && std::ranges::find(types, "integer") != types.end()),
              "is no " + rule.dump());
    } else if (keyword == "const") {
      require(value == rule, "is not " + rule.dump());
    } else if (keyword == "enum") {
      require(std::ranges::find(rule, value) != rule.end(), value.dump() + " is unknown");
    } else if (keyword == "anyOf") {
      const auto fits = [&](const Json& each) { return schemaFaults(root, each, value).empty(); };
      require(std::ranges::any_of(rule, fits), "fits no alternative");
    } else if (keyword == "pattern") {
      const auto matches = ::testing::Matches(::testing::ContainsRegex(rule.get<std::string>()));
      require(!value.is_string() || matches(value.get<std::string>()), "is not " + rule.dump());
    } else if (keyword == "minimum" || keyword == "maximum") {
      require(!value.is_number() || (keyword == "minimum" ? value >= rule : value <= rule),
              "lies beyond the " + keyword + " " + rule.dump());
    } else if (keyword == "required") {
      for (const Json& name : rule) {
        require(value.contains(name), "lacks " + name.dump());
      }
    } else if (keyword == "items") {
      for (size_t i = 0; i < value.size(); ++i) {
        descend(rule, value[i], "/" + std::to_string(i));
      }
    } else if (keyword == "properties" || keyword == "additionalProperties") {
      for (const auto& [name, member] : value.items()) {
        const bool known = schema.contains("properties") && schema["properties"].contains(name);
        if (known == (keyword == "properties")) {
          descend(known ? rule[name] : rule, member, "/" + name);
        }
      }
    } else if (keyword != "$schema" && keyword != "title" && keyword != "description" &&
               keyword != "definitions") {
      throw std::invalid_argument("schema: keyword " + keyword);
    }
  }
  return faults;
}

}  // namespace tessel
