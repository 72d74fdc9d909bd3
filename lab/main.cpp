// tessel-lab: plays scenarios. Exit status: see Program.h.

#include <cstdlib>
#include <iostream>
#include <string_view>

#include <unistd.h>

#include "host/crypto/WipingMemory.h"
#include "lab/Program.h"

namespace {

/// On a terminal, unless the user wants none: https://no-color.org.
bool coloursWanted() {
  const char* const noColour = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || *noColour == '\0') &&
         (terminal == nullptr || std::string_view(terminal) != "dumb");
}

}  // namespace

int main(int argc, char** argv) {
  if (!tessel::wipeLibcryptoMemory()) {
    std::cerr << "libcrypto was used before the program began\n";
    return tessel::lab::internalError;
  }
  std::ios::sync_with_stdio(false);
  return tessel::lab::runProgram({argv + 1, argv + argc}, std::cout, std::cerr, coloursWanted());
}
