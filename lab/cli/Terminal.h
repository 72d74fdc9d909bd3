// Terminal: where the program writes, and whether it may use colours.
#pragma once

#include <ostream>
#include <string>
#include <string_view>

namespace tessel::lab {

enum class Colour { none, red, green, cyan, bold, dim };

struct Terminal {
  std::ostream& out;
  std::ostream& err;
  bool colours = false;

  /// The text in a colour, where there are any. A newline at its end stays behind the colour.
  std::string in(Colour colour, std::string_view text) const;

  void complain(const std::string& file, const std::string& problem) {
    err << file << ":" << problem << "\n";
  }
};

}  // namespace tessel::lab
