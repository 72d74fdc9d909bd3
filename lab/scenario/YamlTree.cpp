#include "lab/scenario/YamlTree.h"

#include <sstream>

#include <fmt/format.h>
#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

namespace tessel::lab {
namespace {

/// Builds the tree from the parser's events. Throws a YamlError for what we refuse.
class TreeBuilder final : public YAML::EventHandler {
 public:
  TreeBuilder(std::string_view source, YamlNode& root) : source_(source), root_(root) {}

  void OnDocumentStart(const YAML::Mark&) override {}
  void OnDocumentEnd() override {}

  void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override {
    // "null" is the name of a cipher too: only what is really blank counts as such.
    std::string text(sourceWord(mark));
    const bool isWord = text == "null" || text == "Null" || text == "NULL" || text == "~";
    add({.text = isWord ? text : "", .blank = !isWord}, mark, anchor);
  }
  void OnScalar(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                const std::string& value) override {
    add({.text = value}, mark, anchor);
  }
  void OnAlias(const YAML::Mark& mark, YAML::anchor_t) override { refuseAnchors(mark); }

  void OnSequenceStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                       YAML::EmitterStyle::value) override {
    open_.push_back(&add({.kind = YamlNode::Kind::sequence}, mark, anchor));
  }
  void OnSequenceEnd() override { open_.pop_back(); }
  void OnMapStart(const YAML::Mark& mark, const std::string&, YAML::anchor_t anchor,
                  YAML::EmitterStyle::value) override {
    open_.push_back(&add({.kind = YamlNode::Kind::map}, mark, anchor));
  }
  void OnMapEnd() override { open_.pop_back(); }

 private:
  /// The node is not moved while it is open: only its own members are added to meanwhile.
  YamlNode& add(YamlNode node, const YAML::Mark& mark, YAML::anchor_t anchor) {
    if (anchor != 0) {
      refuseAnchors(mark);
    }
    node.line = mark.line + 1;
    node.column = mark.column + 1;
    if (open_.empty()) {
      return root_ = std::move(node);
    }
    YamlNode& parent = *open_.back();
    if (parent.kind == YamlNode::Kind::sequence) {
      return parent.items.emplace_back(std::move(node));
    }
    if (!keyPending_.empty() && keyPending_.back() == &parent) {
      keyPending_.pop_back();
      return parent.members.back().second = std::move(node);
    }
    if (node.kind != YamlNode::Kind::scalar || node.blank) {
      throw YamlError{node.line, node.column, "a key must be a name"};
    }
    keyPending_.push_back(&parent);
    return parent.members.emplace_back(std::move(node), YamlNode()).first;
  }

  std::string_view sourceWord(const YAML::Mark& mark) const {
    const auto start = static_cast<size_t>(mark.pos);
    if (mark.pos < 0 || start >= source_.size()) {
      return {};
    }
    const std::string_view rest = source_.substr(start);
    return rest.substr(0, rest.find_first_of(" \t\r\n,:#]}"));
  }

  [[noreturn]] static void refuseAnchors(const YAML::Mark& mark) {
    throw YamlError{mark.line + 1, mark.column + 1, "anchors and aliases are not supported"};
  }

  std::string_view source_;
  YamlNode& root_;
  std::vector<YamlNode*> open_;
  std::vector<YamlNode*> keyPending_;  // Open maps that have a key and wait for its value.
};

/// Takes the events of a second document, which is one too many.
class OneDocumentOnly final : public YAML::EventHandler {
 public:
  void OnDocumentStart(const YAML::Mark& mark) override {
    throw YamlError{mark.line + 1, mark.column + 1, "a file holds one document only"};
  }
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
  void OnAlias(const YAML::Mark&, YAML::anchor_t) override {}
  void OnScalar(const YAML::Mark&, const std::string&, YAML::anchor_t,
                const std::string&) override {}
  void OnSequenceStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                       YAML::EmitterStyle::value) override {}
  void OnSequenceEnd() override {}
  void OnMapStart(const YAML::Mark&, const std::string&, YAML::anchor_t,
                  YAML::EmitterStyle::value) override {}
  void OnMapEnd() override {}
};

std::string membersText(const YamlNode& map) {
  std::string text;
  for (const auto& [key, value] : map.members) {
    text += (text.empty() ? "" : ", ") + key.text + ": ";
    text += value.kind == YamlNode::Kind::map ? fmt::format("{{{}}}", membersText(value))
                                              : flowText(value);
  }
  return text;
}

}  // namespace

std::string flowText(const YamlNode& node) {
  if (node.kind == YamlNode::Kind::scalar) {
    return node.text;
  }
  if (node.kind == YamlNode::Kind::map) {
    return membersText(node);
  }
  std::string text;
  for (const YamlNode& item : node.items) {
    text += (text.empty() ? "" : ", ");
    text += item.kind == YamlNode::Kind::map ? fmt::format("{{{}}}", membersText(item))
                                             : flowText(item);
  }
  return fmt::format("[{}]", text);
}

YamlTree parseYaml(std::string_view text) {
  YamlTree tree;
  try {
    std::istringstream stream{std::string(text)};
    YAML::Parser parser(stream);
    TreeBuilder builder(text, tree.root);
    if (!parser.HandleNextDocument(builder)) {
      tree.error = YamlError{1, 1, "the file is empty"};
      return tree;
    }
    OneDocumentOnly second;
    parser.HandleNextDocument(second);
  } catch (const YamlError& error) {
    tree.error = error;
  } catch (const YAML::Exception& exception) {
    // A null mark has line and column -1: such a problem concerns the whole file.
    tree.error = YamlError{std::max(exception.mark.line, 0) + 1,
                           std::max(exception.mark.column, 0) + 1, "not YAML: " + exception.msg};
  }
  return tree;
}

}  // namespace tessel::lab
