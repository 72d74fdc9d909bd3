#include "host/agent/AgentEntities.h"

namespace tessel {
namespace {

constexpr VrfId kDefaultVrf = 0;

}  // namespace

AgentEntities::AgentEntities(const Clock& clock)
    : timing(makePtr<Ike::Timing>(clock)),
      ipsecConfig(makePtr<Ike::Config>()),
      ipsecStatus(makePtr<Ike::Status>(timing)),
      ipsecDpsPathConfig(makePtr<Path::PathConnConfig>()),
      ipsecPathStatusDir(makePtr<Path::PathStatusDir>()),
      ipsecLocalKeyDir(makePtr<Controller::LocalKeyDir>()),
      ipsecPeerKeyDir(makePtr<Controller::PeerKeyDir>()),
      controllerStatus(makePtr<Controller::Status>()),
      profileNotificationList(makePtr<ProfileNotificationList>()),
      ipsecCounterTable(makePtr<IpsecCounters::IpsecCounterTable>()),
      encapIdHelper(makePtr<EncapIdHelper>()),
      mergeData(makePtr<MergeData>()),
      vrfIdStatus(makePtr<Vrf::VrfIdMap::Status>()),
      vrfNameStatus(makePtr<Vrf::VrfIdMap::NameToIdMap>()),
      recordEvents(makePtr<RecordEvents>()),
      tesselV1(makePtr<IpsecCommon::TesselV1>()) {
  vrfIdStatus->idToNameIs(kDefaultVrf, L3::kDefaultVrfName);
  vrfNameStatus->nameToIdIs(L3::kDefaultVrfName, kDefaultVrf);
  ipsecStatus->vrfStatusIs(L3::kDefaultVrfName);
  recordEvents->follow(tesselV1);
}

}  // namespace tessel
