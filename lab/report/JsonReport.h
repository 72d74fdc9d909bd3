// JsonReport: how a lab's run ended, for programs. docs/report.schema.json describes the document.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "lab/check/Invariants.h"
#include "lab/report/Explain.h"
#include "lab/run/Lab.h"

namespace tessel::lab {

/// What was found by looking at a run and back at it.
struct Examination {
  std::vector<std::pair<std::string, uint64_t>> evaluated{};  ///< How often, by invariant.
  std::vector<Violation> violations{};
  std::vector<Finding> findings{};
};

/// The document: members and lists in a fixed order, units in the names of members, SPIs as text
/// such as "0x0badcafe".
nlohmann::json jsonDocument(const Lab& lab, const Examination& examination);

/// The document as text, with a newline at its end.
std::string jsonReport(const Lab& lab, const Examination& examination = {});

}  // namespace tessel::lab
