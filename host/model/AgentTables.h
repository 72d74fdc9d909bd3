// The sibling objects of the machine in the agent: the SA table towards the data path, the
// configuration helper, encapsulation ids, profile notifications.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeSa.h"
#include "host/model/IkeStatus.h"
#include "host/model/Keys.h"
#include "host/model/Path.h"
#include "host/model/Vrf.h"

namespace tessel {

namespace IpsecCommon {

/// The agent's table of SAs towards the data path. The data path observes it: `sa` added or
/// written is a hand-over, removed is a deletion.
class TESSEL_API TesselV1 final : public Entity {
 public:
  static constexpr CollectionName<SecurityAssociationKey> saName{{"sa"}};
  const KeyedCollection<SecurityAssociationKey, Ptr<Ike::SecurityAssociation>>& sa() const {
    return sa_.values();
  }
  /// Hands an SA over. A repeated hand-over of the same SA is silent.
  void saIs(const Ptr<Ike::SecurityAssociation>& sa) {
    sa_.valueIs(*this, saName, sa->sakey(), sa);
  }
  void saDel(const SecurityAssociationKey& key) { sa_.valueDel(*this, saName, key); }

  /// The path of each SA: cpSa(key), cpSaIs(key, connectionKey), cpSaDel(key).
  HOST_VALUES(cpSa, SecurityAssociationKey, ConnectionKey);

 private:
  ValueCollection<SecurityAssociationKey, Ptr<Ike::SecurityAssociation>> sa_;
};

}  // namespace IpsecCommon

namespace Capabilities {
/// An input of the configuration helper that the machine passes empty.
class TESSEL_API Status final : public Entity {};
}  // namespace Capabilities

namespace Ike {
/// An input of the configuration helper that the machine passes empty.
class TESSEL_API ConnectionTable final : public Entity {};
}  // namespace Ike

/// An input of the configuration helper that the machine passes empty.
class TESSEL_API PkiLocalStatus final : public Entity {};

/// Where the encapsulation id of a connection comes from.
struct TESSEL_API ConnectionKeySource {
  ConnectionKey connectionKey;
  uint8_t connectionType = 0;  ///< 2 = dynamic path.

  uint32_t hash(uint32_t seed) const { return connectionKey.hash(seed + connectionType); }
  friend bool operator==(const ConnectionKeySource&, const ConnectionKeySource&) = default;
};

/// The connection type of a dynamic path.
inline constexpr uint8_t kDynamicPathConnection = 2;

/// Encapsulation id of a connection; request id 0 means none.
struct TESSEL_API EncapId {
  uint32_t reqid = 0;
  friend bool operator==(const EncapId&, const EncapId&) = default;
};

/// The agent's table of encapsulation ids.
class TESSEL_API EncapIdHelper final : public Entity {
  HOST_VALUES(encapId, ConnectionKeySource, EncapId);
};

/// The agent's configuration helper: applies profiles.
class TESSEL_API ConfHelper final : public RefCounted {
 public:
  ConfHelper(Ptr<const Ike::Config> config, Ptr<Ike::Status> status,
             Ptr<const Capabilities::Status> capabilitiesStatus,
             Ptr<const Ike::ConnectionTable> connectionTable,
             Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus, Ptr<const MergeData> mergeData,
             Ptr<const PkiLocalStatus> pkiLocalStatus, Ptr<const EncapIdHelper> encapIdHelper);

  /// Whether the helper was built from exactly these inputs.
  bool isBuiltFrom(const Ptr<const Ike::Config>& config, const Ptr<Ike::Status>& status,
                   const Ptr<const Capabilities::Status>& capabilitiesStatus,
                   const Ptr<const Ike::ConnectionTable>& connectionTable,
                   const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus,
                   const Ptr<const MergeData>& mergeData,
                   const Ptr<const PkiLocalStatus>& pkiLocalStatus,
                   const Ptr<const EncapIdHelper>& encapIdHelper) const;

  /// Applies a profile and returns its entry, never null.
  Ptr<Ike::IpsecProfileConnectionMap> updateAppliedProfile(const std::string& profileName,
                                                           bool appliedToKeyController);
  /// Drops the entry of a profile that nothing applies any more.
  void maybeDeleteAppliedProfile(const std::string& profileName);

 private:
  const Ptr<const Ike::Config> config_;
  const Ptr<Ike::Status> status_;
  const Ptr<const Capabilities::Status> capabilitiesStatus_;
  const Ptr<const Ike::ConnectionTable> connectionTable_;
  const Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus_;
  const Ptr<const MergeData> mergeData_;
  const Ptr<const PkiLocalStatus> pkiLocalStatus_;
  const Ptr<const EncapIdHelper> encapIdHelper_;
};

/// Says that a profile changed: each increment is one change.
class TESSEL_API ProfileNotification final : public Entity {
 public:
  explicit ProfileNotification(std::string name) : profileName_(std::move(name)) {}
  const std::string& profileName() const { return profileName_; }

  HOST_COUNTER(changeCnt);

 private:
  const std::string profileName_;
};

/// One notification per profile name.
class TESSEL_API ProfileNotificationList final : public Entity {
  HOST_COLLECTION(notification, std::string, ProfileNotification);
};

// Compiled once, in AgentTables.cpp: most units of the engine use these.
extern template class KeyedCollection<SecurityAssociationKey, ConnectionKey>;
extern template class KeyedCollection<ConnectionKeySource, EncapId>;
extern template class KeyedCollection<std::string, Ptr<ProfileNotification>>;

}  // namespace tessel
