// tessel-lab: plays scenarios. Exit status: see Program.h.

#include <iostream>

#include "lab/Program.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  return tessel::lab::runProgram({argv + 1, argv + argc}, std::cout, std::cerr);
}
