// PageParts: the files of lab/report/page/, which the build puts into the program.
#pragma once

#include <string_view>

namespace tessel::lab {

/// The page, with the marks {{style}}, {{data}} and {{script}} in this order.
std::string_view pageHtml();
std::string_view pageStyle();
/// All scripts, one behind the other.
std::string_view pageScript();

}  // namespace tessel::lab
