#include "lab/dataplane/DataPlaneEvents.h"

namespace tessel::lab {

const char* saInstallStateName(SaInstallState state) {
  switch (state) {
    case SaInstallState::pending:
      return "pending";
    case SaInstallState::installed:
      return "installed";
    case SaInstallState::refused:
      return "refused";
    case SaInstallState::failed:
      return "failed";
  }
  return "unknown";
}

const char* hardLimitName(HardLimitFinding::Limit limit) {
  switch (limit) {
    case HardLimitFinding::Limit::time:
      return "time";
    case HardLimitFinding::Limit::packets:
      return "packets";
    case HardLimitFinding::Limit::bytes:
      return "bytes";
  }
  return "unknown";
}

PathStatistics& PathStatistics::operator+=(const PathStatistics& other) {
  offered += other.offered;
  sent += other.sent;
  sentBytes += other.sentBytes;
  probesSent += other.probesSent;
  received += other.received;
  receivedBytes += other.receivedBytes;
  sendDrops += other.sendDrops;
  receiveDrops += other.receiveDrops;
  return *this;
}

}  // namespace tessel::lab
