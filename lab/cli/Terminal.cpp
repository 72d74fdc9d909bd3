#include "lab/cli/Terminal.h"

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

}  // namespace tessel::lab
