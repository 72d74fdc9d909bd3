// TextReport: what a lab's run ends with on the terminal.
#pragma once

#include <string>

#include "lab/run/Lab.h"

namespace tessel::lab {

/// How every router stands: its peers, paths and SAs, and what its data path dropped.
std::string routerTables(const Lab& lab);

/// What the flows sent, and what became of it.
std::string trafficTable(const Lab& lab);

/// Every expectation that did not hold, with what was found instead, and the verdict as the last
/// line.
std::string verdictText(const Lab& lab);

}  // namespace tessel::lab
