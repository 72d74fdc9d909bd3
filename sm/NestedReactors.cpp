#include "sm/NestedReactors.h"

#include "sm/LocalKey.h"
#include "sm/PathHealth.h"
#include "sm/Paths.h"
#include "sm/TesselV1Sm.h"

namespace tessel::Ipsec {

namespace {

template <class T>
Ptr<T> present(Ptr<T> member, const char* what) {
  if (!member) {
    throw NullArgument(what);
  }
  return member;
}

}  // namespace

NestedSm_ClearCliPath::NestedSm_ClearCliPath(TesselV1Sm& sm, Ptr<Ike::ClearPathCounter> counter)
    : sm_(sm), counter_(present(std::move(counter), "clear-path counter is null")) {
  subscription_.attach<&NestedSm_ClearCliPath::dispatch>(*counter_, *this);
}

void NestedSm_ClearCliPath::handleAttached() {
  sm_.pathHealth().handleClearPath(counter_->connectionKey());
}

void NestedSm_ClearCliPath::dispatch(const Change& change) {
  if (sm_.hasNotificationActive() && change.is(Ike::ClearPathCounter::clearCntName)) {
    sm_.pathHealth().handleClearPath(counter_->connectionKey());
  }
}

NestedSm_ProfileNotification::NestedSm_ProfileNotification(TesselV1Sm& sm,
                                                           Ptr<ProfileNotification> notification)
    : sm_(sm), notification_(present(std::move(notification), "profile notification is null")) {
  subscription_.attach<&NestedSm_ProfileNotification::dispatch>(*notification_, *this);
}

void NestedSm_ProfileNotification::handleAttached() {
  sm_.localKey().handleProfile(notification_->profileName());
}

void NestedSm_ProfileNotification::dispatch(const Change& change) {
  if (sm_.hasNotificationActive() && change.is(ProfileNotification::changeCntName)) {
    sm_.localKey().handleProfile(notification_->profileName());
  }
}

NestedSm_PathConnectionInfo::NestedSm_PathConnectionInfo(TesselV1Sm& sm,
                                                         Ptr<MergeConnectionInfo> info)
    : sm_(sm), info_(present(std::move(info), "merged connection information is null")) {
  subscription_.attach<&NestedSm_PathConnectionInfo::dispatch>(*info_, *this);
}

void NestedSm_PathConnectionInfo::dispatch(const Change& change) {
  if (!sm_.hasNotificationActive()) {
    return;
  }
  if (const auto* key = change.memberOf(MergeConnectionInfo::connectionName)) {
    sm_.paths().handlePath(*key);
  }
}

}  // namespace tessel::Ipsec
