// NarratorColours: a narrator's lines on a terminal.
#pragma once

#include "lab/cli/Terminal.h"
#include "lab/report/Narrator.h"

namespace tessel::lab {

/// Writes lines to the terminal, which outlives the function, in the colours of their tones.
inline Narrator::Write colouredLines(const Terminal& terminal) {
  return [&terminal](Narrator::Tone tone, std::string_view line) {
    Colour colour = Colour::none;
    switch (tone) {
      case Narrator::Tone::plain:
        break;
      case Narrator::Tone::good:
        colour = Colour::green;
        break;
      case Narrator::Tone::bad:
        colour = Colour::red;
        break;
      case Narrator::Tone::lab:
        colour = Colour::cyan;
        break;
    }
    terminal.out << terminal.in(colour, line);
  };
}

}  // namespace tessel::lab
