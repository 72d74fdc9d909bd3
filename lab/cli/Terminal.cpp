#include "lab/cli/Terminal.h"

#include <algorithm>

namespace tessel::lab {
namespace {

const char* code(Colour colour) {
  switch (colour) {
    case Colour::none:
      return "";
    case Colour::red:
      return "31";
    case Colour::green:
      return "32";
    case Colour::cyan:
      return "36";
    case Colour::bold:
      return "1";
    case Colour::dim:
      return "2";
  }
  return "";
}

constexpr size_t kLineWidth = 96;

}  // namespace

std::string Terminal::in(Colour colour, std::string_view text) const {
  if (!colours || colour == Colour::none || text.empty()) {
    return std::string(text);
  }
  const bool line = text.back() == '\n';
  std::string painted = std::string("\x1b[") + code(colour) + "m";
  painted.append(text.substr(0, text.size() - (line ? 1 : 0))).append("\x1b[0m");
  return painted + (line ? "\n" : "");
}

std::string wrapped(const std::string& text, size_t indent) {
  std::string result;
  std::string line;
  const auto end = [&] {
    if (!line.empty()) {
      result += std::string(indent, ' ') + line + "\n";
    }
    line.clear();
  };
  for (size_t at = 0; at < text.size();) {
    const size_t next = std::min(text.find_first_of(" \n", at), text.size());
    if (!line.empty() && indent + line.size() + 1 + next - at > kLineWidth) {
      end();
    }
    if (!line.empty()) {
      line += ' ';
    }
    line.append(text, at, next - at);
    at = next + 1;
  }
  end();
  return result;
}

}  // namespace tessel::lab
