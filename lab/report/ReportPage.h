// ReportPage: a run as one HTML page that needs nothing but itself.
#pragma once

#include <iosfwd>

#include "lab/report/Explain.h"
#include "lab/report/JsonReport.h"

namespace tessel::lab {

/// Writes the page: what happened as a timeline, what was found, how everything ended.
void writeReportPage(std::ostream& out, const Lab& lab, const History& history,
                     const Explain& explain, const Examination& examination);

}  // namespace tessel::lab
