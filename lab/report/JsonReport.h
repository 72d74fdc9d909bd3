// JsonReport: how a lab's run ended, for programs. docs/report.schema.json describes the document.
#pragma once

#include <string>

#include "lab/run/Lab.h"

namespace tessel::lab {

/// The document as text, members and lists in a fixed order, with a newline at its end. Units stand
/// in the names of members; SPIs are text such as "0x0badcafe".
std::string jsonReport(const Lab& lab);

}  // namespace tessel::lab
