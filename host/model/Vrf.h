// Vrf: VRF numbers and names.
#pragma once

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Keys.h"

namespace tessel::Vrf::VrfIdMap {

/// VRF names by number.
class TESSEL_API Status final : public Entity {
  HOST_VALUES(idToName, VrfId, L3::VrfName);
};

/// VRF numbers by name.
class TESSEL_API NameToIdMap final : public Entity {
  HOST_VALUES(nameToId, L3::VrfName, VrfId);
};

}  // namespace tessel::Vrf::VrfIdMap

namespace tessel {

/// The name of a VRF. Total: 0 and every number that the map does not hold give "default".
inline L3::VrfName vrfIdToName(VrfId vrfId, const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus) {
  if (vrfIdStatus && vrfIdStatus->idToNameHas(vrfId)) {
    return vrfIdStatus->idToName(vrfId);
  }
  return L3::kDefaultVrfName;
}

}  // namespace tessel
