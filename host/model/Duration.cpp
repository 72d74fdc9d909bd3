#include "host/model/Duration.h"

#include <cstdio>

namespace tessel {

std::string stringValue(Duration duration) {
  if (duration.isNever()) {
    return "never";
  }
  char text[400];  // The largest double has 309 digits before the point.
  const int length = std::snprintf(text, sizeof text, "%.6f", duration.seconds());
  std::string result(text, static_cast<size_t>(length));
  result.erase(result.find_last_not_of('0') + 1);
  if (result.back() == '.') {
    result.pop_back();
  }
  return result + " s";
}

}  // namespace tessel
