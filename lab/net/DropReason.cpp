#include "lab/net/DropReason.h"

#include <numeric>

namespace tessel::lab {

const char* dropReasonName(DropReason reason) {
  switch (reason) {
    case DropReason::noSa:
      return "no_sa";
    case DropReason::badIcv:
      return "bad_icv";
    case DropReason::replayed:
      return "replayed";
    case DropReason::tooOld:
      return "too_old";
    case DropReason::noOutbound:
      return "no_outbound";
    case DropReason::malformed:
      return "malformed";
    case DropReason::badSa:
      return "bad_sa";
  }
  return "unknown";
}

uint64_t DropCounts::total() const {
  return std::accumulate(by.begin(), by.end(), uint64_t{0});
}

DropCounts& DropCounts::operator+=(const DropCounts& other) {
  for (size_t i = 0; i < by.size(); ++i) {
    by[i] += other.by[i];
  }
  return *this;
}

}  // namespace tessel::lab
