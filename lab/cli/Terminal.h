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

  void complain(const std::string& file, const std::string& problem) const {
    err << file << ":" << problem << "\n";
  }
};

/// Breaks a text between its words into lines of at most 96 columns, `indent` spaces included.
std::string wrapped(const std::string& text, size_t indent);

}  // namespace tessel::lab
