#include "host/model/AgentTables.h"

namespace tessel {

ConfHelper::ConfHelper(Ptr<const Ike::Config> config, Ptr<Ike::Status> status,
                       Ptr<const Capabilities::Status> capabilitiesStatus,
                       Ptr<const Ike::ConnectionTable> connectionTable,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus, Ptr<const MergeData> mergeData,
                       Ptr<const PkiLocalStatus> pkiLocalStatus,
                       Ptr<const EncapIdHelper> encapIdHelper)
    : config_(std::move(config)),
      status_(std::move(status)),
      capabilitiesStatus_(std::move(capabilitiesStatus)),
      connectionTable_(std::move(connectionTable)),
      vrfIdStatus_(std::move(vrfIdStatus)),
      mergeData_(std::move(mergeData)),
      pkiLocalStatus_(std::move(pkiLocalStatus)),
      encapIdHelper_(std::move(encapIdHelper)) {}

bool ConfHelper::isBuiltFrom(const Ptr<const Ike::Config>& config, const Ptr<Ike::Status>& status,
                             const Ptr<const Capabilities::Status>& capabilitiesStatus,
                             const Ptr<const Ike::ConnectionTable>& connectionTable,
                             const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus,
                             const Ptr<const MergeData>& mergeData,
                             const Ptr<const PkiLocalStatus>& pkiLocalStatus,
                             const Ptr<const EncapIdHelper>& encapIdHelper) const {
  return config_ == config && status_ == status && capabilitiesStatus_ == capabilitiesStatus &&
         connectionTable_ == connectionTable && vrfIdStatus_ == vrfIdStatus &&
         mergeData_ == mergeData && pkiLocalStatus_ == pkiLocalStatus &&
         encapIdHelper_ == encapIdHelper;
}

Ptr<Ike::IpsecProfileConnectionMap> ConfHelper::updateAppliedProfile(
    const std::string& profileName, bool /*appliedToKeyController*/) {
  return status_->appliedProfilesIs(profileName);
}

void ConfHelper::maybeDeleteAppliedProfile(const std::string& profileName) {
  const Ptr<Ike::IpsecProfileConnectionMap> entry = status_->appliedProfiles(profileName);
  if (entry && !entry->appliedToKeyController()) {
    status_->appliedProfilesDel(profileName);
  }
}

template class KeyedCollection<SecurityAssociationKey, ConnectionKey>;
template class KeyedCollection<ConnectionKeySource, EncapId>;
template class KeyedCollection<std::string, Ptr<ProfileNotification>>;

}  // namespace tessel
