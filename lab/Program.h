// Program: tessel-lab, which plays scenarios.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tessel::lab {

enum ExitStatus : int {
  held = 0,      ///< Every expectation held, or the scenario has no fault.
  notHeld = 1,   ///< An expectation did not hold.
  badInput = 2,  ///< Bad usage, or a file that cannot be used.
  internalError = 3,
};

/// Runs the program on its arguments, without its own name, and returns its exit status. `colours`:
/// `out` may be written in colours. Never throws.
int runProgram(std::vector<std::string> args, std::ostream& out, std::ostream& err,
               bool colours = false);

}  // namespace tessel::lab
