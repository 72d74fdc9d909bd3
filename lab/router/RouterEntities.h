// RouterEntities: everything that an agent shares with its machine.
#pragma once

#include "host/entity/Ptr.h"
#include "host/model/Agent.h"
#include "host/model/Controller.h"
#include "host/model/Counters.h"
#include "host/model/Events.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeStatus.h"
#include "host/model/Path.h"
#include "host/model/Vrf.h"
#include "host/runtime/Clock.h"
#include "lab/scenario/Scenario.h"

namespace tessel::lab {

/// The inputs of one machine in the order of its factory, but for the scheduler. One set per start
/// of a router: what a router knew dies with it.
struct RouterEntities {
  /// Empty entities with the VRF "default". The clock must outlive them.
  RouterEntities(const Clock& clock, const RouterSettings& settings);

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

/// Writes a profile with its SA settings and crypto suites, or changes them; notifies nobody.
void writeProfile(Ike::Config& config, const ProfileSettings& profile);

/// Says that a profile changed.
void notifyProfile(RouterEntities& entities, const std::string& profile);

}  // namespace tessel::lab
