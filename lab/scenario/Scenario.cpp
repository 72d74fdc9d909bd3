#include "lab/scenario/Scenario.h"

#include <algorithm>

namespace tessel::lab {
namespace {

template <class Member>
const Member* findByName(const std::vector<Member>& members, const std::string& name) {
  const auto found = std::ranges::find(members, name, &Member::name);
  return found == members.end() ? nullptr : &*found;
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
  settings.latency = change.latency.value_or(settings.latency);
  settings.jitter = change.jitter.value_or(settings.jitter);
  settings.lossRate = change.loss.value_or(settings.lossRate);
  settings.duplicateRate = change.duplication.value_or(settings.duplicateRate);
  settings.reorderRate = change.reordering.value_or(settings.reorderRate);
  settings.bitFlipRate = change.corruption.value_or(settings.bitFlipRate);
  settings.replayRate = change.replay.value_or(settings.replayRate);
  return settings;
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
