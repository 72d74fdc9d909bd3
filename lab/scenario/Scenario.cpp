#include "lab/scenario/Scenario.h"

#include <algorithm>

namespace tessel::lab {
namespace {

template <class Member>
const Member* findByName(const std::vector<Member>& members, const std::string& name) {
  const auto found = std::ranges::find(members, name, &Member::name);
  return found == members.end() ? nullptr : &*found;
}

/// Calls `visit` with the member of a change and that of the settings which it changes.
template <class Visit>
void forEachLinkMember(Visit visit) {
  visit(&ChangeLink::latency, &LinkSettings::latency);
  visit(&ChangeLink::jitter, &LinkSettings::jitter);
  visit(&ChangeLink::loss, &LinkSettings::lossRate);
  visit(&ChangeLink::burstStart, &LinkSettings::burstStartRate);
  visit(&ChangeLink::burstEnd, &LinkSettings::burstEndRate);
  visit(&ChangeLink::duplication, &LinkSettings::duplicateRate);
  visit(&ChangeLink::duplicateDelay, &LinkSettings::duplicateDelay);
  visit(&ChangeLink::reordering, &LinkSettings::reorderRate);
  visit(&ChangeLink::reorderDelay, &LinkSettings::reorderDelay);
  visit(&ChangeLink::corruption, &LinkSettings::bitFlipRate);
  visit(&ChangeLink::replay, &LinkSettings::replayRate);
  visit(&ChangeLink::replayDepth, &LinkSettings::replayDepth);
}

}  // namespace

const RouterPlan* Scenario::router(const std::string& routerName) const {
  return findByName(routers, routerName);
}

const PathPlan* Scenario::path(const std::string& pathName) const {
  return findByName(paths, pathName);
}

const FlowPlan* Scenario::flow(const std::string& flowName) const {
  return findByName(traffic, flowName);
}

LinkSettings changedLink(LinkSettings settings, const ChangeLink& change) {
  forEachLinkMember([&](auto inChange, auto inSettings) {
    settings.*inSettings = (change.*inChange).value_or(settings.*inSettings);
  });
  return settings;
}

ChangeLink linkChange(const LinkSettings& from, const LinkSettings& to) {
  ChangeLink change;
  forEachLinkMember([&](auto inChange, auto inSettings) {
    if (from.*inSettings != to.*inSettings) {
      change.*inChange = to.*inSettings;
    }
  });
  return change;
}

const std::vector<std::string>& logMessages() {
  static const std::vector<std::string> names = {
      "TESSEL_HOLDTIMER_EXPIRED", "TESSEL_DH_REKEY_PAUSED", "TESSEL_DH_REKEY_RESUMED",
      "IPSEC_INVALID_DN_AS_REMOTE_ID"};
  return names;
}

const std::vector<std::string>& machineCounters() {
  static const std::vector<std::string> names = {"peerKeyTaskNewKey",   "peerKeyTaskDelKey",
                                                 "peerKeyTaskRekey",    "peerKeyTaskNewKeyWithDel",
                                                 "peerKeyTaskNoOp",     "pathAddCnt",
                                                 "pathDelCnt",          "connChangeCnt",
                                                 "lostConnectionToPfs", "restoredConnectionToPfs"};
  return names;
}

}  // namespace tessel::lab
