// YamlText: a tree as the text of a YAML document.
#pragma once

#include <string>

#include "lab/scenario/YamlTree.h"

namespace tessel::lab {

/// The text of a document, each line ended, from which `parseYaml` makes an equal tree. Lists at
/// the top have a line or more per item; below, what fits in a line stands in one.
std::string yamlText(const YamlNode& root);

}  // namespace tessel::lab
