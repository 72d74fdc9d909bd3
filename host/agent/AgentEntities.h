// AgentEntities: everything that an agent shares with its machine.
#pragma once

#include "host/entity/Ptr.h"
#include "host/facility/Export.h"
#include "host/model/AgentTables.h"
#include "host/model/Controller.h"
#include "host/model/Counters.h"
#include "host/model/Events.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeStatus.h"
#include "host/model/Path.h"
#include "host/model/Vrf.h"
#include "host/runtime/Clock.h"

namespace tessel {

/// The inputs of one machine in the order of its factory, but for the scheduler. A machine that is
/// made again gets a new set: what it wrote belongs to its life.
struct TESSEL_API AgentEntities {
  /// Empty entities with the VRF "default"; the event logs of SAs follow the SA table. The clock
  /// is the scheduler's and must outlive them.
  explicit AgentEntities(const Clock& clock);

  /// Its periods may be set until the machine is made.
  const Ptr<Ike::Timing> timing;

  const Ptr<Ike::Config> ipsecConfig;
  const Ptr<Ike::Status> ipsecStatus;
  const Ptr<Path::PathConnConfig> ipsecDpsPathConfig;
  const Ptr<Path::PathStatusDir> ipsecPathStatusDir;
  const Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir;
  const Ptr<Controller::PeerKeyDir> ipsecPeerKeyDir;
  const Ptr<Controller::Status> controllerStatus;
  const Ptr<ProfileNotificationList> profileNotificationList;
  const Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable;
  const Ptr<EncapIdHelper> encapIdHelper;
  const Ptr<MergeData> mergeData;
  const Ptr<Vrf::VrfIdMap::Status> vrfIdStatus;
  const Ptr<Vrf::VrfIdMap::NameToIdMap> vrfNameStatus;
  const Ptr<RecordEvents> recordEvents;
  const Ptr<IpsecCommon::TesselV1> tesselV1;
};

}  // namespace tessel
