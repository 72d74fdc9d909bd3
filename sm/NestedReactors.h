// The small reactors that the machine keeps per member of an input's collection.
#pragma once

#include <stdexcept>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/AgentTables.h"
#include "host/model/IkeStatus.h"
#include "host/model/Path.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// A member that must be present is null.
class TESSEL_API NullArgument : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

/// Follows the clear requests of one path.
class TESSEL_API NestedSm_ClearCliPath final : public RefCounted {
 public:
  NestedSm_ClearCliPath(TesselV1Sm& sm, Ptr<Ike::ClearPathCounter> counter);
  const Ptr<Ike::ClearPathCounter>& notifier() const { return counter_; }
  /// Serves the requests that stand when the reactor is attached.
  void handleAttached();

 private:
  void dispatch(const Change& change);

  TesselV1Sm& sm_;
  const Ptr<Ike::ClearPathCounter> counter_;
  Subscription subscription_;
};

/// Follows the change notification of one profile.
class TESSEL_API NestedSm_ProfileNotification final : public RefCounted {
 public:
  NestedSm_ProfileNotification(TesselV1Sm& sm, Ptr<ProfileNotification> notification);
  const Ptr<ProfileNotification>& notifier() const { return notification_; }
  void handleAttached();

 private:
  void dispatch(const Change& change);

  TesselV1Sm& sm_;
  const Ptr<ProfileNotification> notification_;
  Subscription subscription_;
};

/// Follows the connections of one entry of merged path data. Attaching alone calls nothing.
class TESSEL_API NestedSm_PathConnectionInfo final : public RefCounted {
 public:
  NestedSm_PathConnectionInfo(TesselV1Sm& sm, Ptr<MergeConnectionInfo> info);
  const Ptr<MergeConnectionInfo>& notifier() const { return info_; }

 private:
  void dispatch(const Change& change);

  TesselV1Sm& sm_;
  const Ptr<MergeConnectionInfo> info_;
  Subscription subscription_;
};

}  // namespace tessel::Ipsec
