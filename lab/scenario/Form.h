// Form: the members of one map of a scenario file, described once for both directions.
//
// A description is a function that passes the members of a thing to a form, one by one, with their
// keys and kinds (FieldKinds.h). A form over a map that was read fills the members; a form over a
// new map writes them there. What concerns one direction alone asks for `source` or `target`.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lab/scenario/FieldKinds.h"
#include "lab/scenario/FieldReader.h"

namespace tessel::lab {

class Form {
 public:
  explicit Form(MapReader& source) : source_(&source) {}
  /// The target becomes a map; members are added to those that it has.
  explicit Form(YamlNode& target) : target_(&target) { target.kind = YamlNode::Kind::map; }
  Form(const Form&) = delete;
  Form& operator=(const Form&) = delete;

  /// The map that is read; null while one is written.
  MapReader* source() const { return source_; }
  /// The map that is written; null while one is read.
  YamlNode* target() const { return target_; }

  /// A member that has to be there.
  template <class Value, class Kind>
  void required(const std::string& key, Value& value, const Kind& kind) {
    if (target_ != nullptr) {
      addText(key, kind.text(value));
    } else if (const auto field = source_->require(key)) {
      kind.read(*field, value);
    }
  }
  /// A member that can be left out for the value `unsaid`, which the reader starts from.
  template <class Value, class Kind>
  void defaulted(const std::string& key, Value& value, const Value& unsaid, const Kind& kind) {
    if (target_ == nullptr) {
      if (const auto field = source_->find(key)) {
        kind.read(*field, value);
      }
    } else if (value != unsaid) {
      addText(key, kind.text(value));
    }
  }
  /// A member that is left out when there is no value.
  template <class Value, class Kind>
  void optional(const std::string& key, std::optional<Value>& value, const Kind& kind) {
    optionalKeys_.push_back(key);
    if (target_ == nullptr) {
      Value read{};
      if (const auto field = source_->find(key); field && kind.read(*field, read)) {
        value = std::move(read);
      }
    } else if (value) {
      addText(key, kind.text(*value));
    }
  }
  /// Faults a map without any of the optional members so far: it would do nothing.
  void requireAnOptional() const;

  /// The map under `key`; it is not written when `describe` gives it no members.
  template <class Describe>
  void part(const std::string& key, Describe describe) {
    if (target_ != nullptr) {
      YamlNode map;
      Form form(map);
      describe(form);
      if (!map.members.empty()) {
        add(key, std::move(map));
      }
    } else if (const auto field = source_->find(key)) {
      MapReader map(*field);
      Form form(map);
      describe(form);
    }
  }

  /// The list of maps under `key`, which replaces `items` when it is read. Each item is read from
  /// `start`. A list that is equal to `unsaid` is not written.
  template <class Item, class Describe>
  void list(const std::string& key, std::vector<Item>& items, const std::vector<Item>& unsaid,
            const Item& start, Describe describe) {
    if (target_ == nullptr) {
      if (const auto field = source_->find(key)) {
        readItems(*field, items, start, describe);
      }
    } else if (items != unsaid) {
      YamlNode list{.kind = YamlNode::Kind::sequence};
      for (Item& item : items) {
        Form form(list.items.emplace_back());
        describe(form, item);
      }
      add(key, std::move(list));
    }
  }

  // For a writer.

  void add(const std::string& key, YamlNode value) {
    target_->members.emplace_back(YamlNode{.text = key}, std::move(value));
  }
  void addText(const std::string& key, std::string text) { add(key, {.text = std::move(text)}); }

 private:
  template <class Item, class Describe>
  static void readItems(const Field& field, std::vector<Item>& items, const Item& start,
                        Describe describe) {
    items.clear();
    for (const Field& each : field.items()) {
      MapReader map(each);
      Form form(map);
      Item item = start;
      describe(form, item);
      items.push_back(std::move(item));
    }
  }

  MapReader* source_ = nullptr;
  YamlNode* target_ = nullptr;
  std::vector<std::string> optionalKeys_;
};

}  // namespace tessel::lab
