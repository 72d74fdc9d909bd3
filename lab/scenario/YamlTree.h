// YamlTree: a YAML document as it stands in its file, with the position of everything and with
// repeated keys kept, which a tree of maps would hide.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tessel::lab {

struct YamlNode {
  enum class Kind { scalar, sequence, map };

  Kind kind = Kind::scalar;
  std::string text{};             ///< Of a scalar; empty when nothing stands there.
  bool blank = false;             ///< Nothing stands there.
  int line = 0;                   ///< From 1.
  int column = 0;                 ///< From 1, in bytes.
  std::vector<YamlNode> items{};  ///< Of a sequence.
  std::vector<std::pair<YamlNode, YamlNode>> members{};  ///< Of a map: key scalars and values.
};

/// The node on one line, in flow style: "{path: a, loss: 5 %}". Of a map at the outside the braces
/// are left out.
std::string flowText(const YamlNode& node);

/// What stands wrong where.
struct YamlError {
  int line = 0;
  int column = 0;
  std::string problem{};
};

/// Either the tree of the one document in a text, or why there is none. Anchors, aliases and keys
/// that are no scalars are refused.
struct YamlTree {
  YamlNode root{};
  std::optional<YamlError> error{};
};
YamlTree parseYaml(std::string_view text);

}  // namespace tessel::lab
