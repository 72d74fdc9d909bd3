#include "lab/scenario/YamlText.h"

#include <utility>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

constexpr size_t kLineWidth = 100;

/// A text as a scalar: as it is where it can mean nothing else.
std::string scalarText(const std::string& text) {
  constexpr const char* plainStart =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/";
  constexpr const char* plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/-_.%() ";
  if (!text.empty() && text.find_first_of(plainStart) == 0 && text.back() != ' ' &&
      text.find_first_not_of(plain) == std::string::npos) {
    return text;
  }
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') {
      quoted += '\\';
      quoted += character;
    } else if (static_cast<unsigned char>(character) < 0x20 || character == 0x7F) {
      quoted += fmt::format("\\x{:02x}", static_cast<unsigned>(character));
    } else {
      quoted += character;
    }
  }
  return quoted + "\"";
}

/// A node on one line.
std::string lineText(const YamlNode& node) {
  std::string text;
  const auto separate = [&] { text += text.empty() ? "" : ", "; };
  switch (node.kind) {
    case YamlNode::Kind::scalar:
      return node.blank ? "" : scalarText(node.text);
    case YamlNode::Kind::sequence:
      for (const YamlNode& item : node.items) {
        separate();
        text += lineText(item);
      }
      return fmt::format("[{}]", text);
    case YamlNode::Kind::map:
      for (const auto& [key, value] : node.members) {
        separate();
        text += scalarText(key.text) + ": " + lineText(value);
      }
      return fmt::format("{{{}}}", text);
  }
  return text;
}

class Printer {
 public:
  /// The members of a map, a line or more each, behind what stands on the first line already.
  void members(const YamlNode& map, size_t indent) {
    bool first = true;
    for (const auto& [key, value] : map.members) {
      if (!std::exchange(first, false)) {
        text_.append(indent, ' ');
      }
      const std::string name = scalarText(key.text) + ":";
      text_ += name;
      const bool listAtTop = indent == 0 && value.kind == YamlNode::Kind::sequence;
      place(value, indent, indent + name.size() + 1, listAtTop && !value.items.empty());
    }
  }

  const std::string& text() const { return text_; }

 private:
  /// A member's value: on its key's line, which is `column` wide, if it fits there.
  void place(const YamlNode& value, size_t indent, size_t column, bool spread) {
    const std::string line = lineText(value);
    if (value.kind == YamlNode::Kind::scalar || (!spread && column + line.size() <= kLineWidth)) {
      text_ += " " + line + "\n";
      return;
    }
    text_ += "\n";
    if (value.kind == YamlNode::Kind::map) {
      text_.append(indent + 2, ' ');
      members(value, indent + 2);
    } else {
      items(value, indent + 2);
    }
  }

  void items(const YamlNode& list, size_t indent) {
    for (const YamlNode& item : list.items) {
      text_.append(indent, ' ').append("- ");
      const std::string line = lineText(item);
      if (item.kind == YamlNode::Kind::map && indent + 2 + line.size() > kLineWidth) {
        members(item, indent + 2);
      } else {
        text_ += line + "\n";
      }
    }
  }

  std::string text_;
};

}  // namespace

std::string yamlText(const YamlNode& root) {
  if (root.kind != YamlNode::Kind::map || root.members.empty()) {
    return lineText(root) + "\n";
  }
  Printer printer;
  printer.members(root, 0);
  return printer.text();
}

}  // namespace tessel::lab
