#include "host/model/IkePath.h"
#include "host/model/IkeStatus.h"

namespace tessel::Ike {

std::string stringValue(const EncapSrcPortRange& range) {
  return std::to_string(range.first) + "-" + std::to_string(range.last);
}

std::string stringValue(ConnectionState state) {
  const char* name = "unknown";
  switch (state) {
    case ConnectionState::down:
      name = "down";
      break;
    case ConnectionState::established:
      name = "established";
      break;
    case ConnectionState::connected:
      name = "connected";
      break;
  }
  return std::string(name) + "(" + std::to_string(static_cast<uint32_t>(state)) + ")";
}

std::string SanityCheck::str() const {
  return "inSaPkts " + std::to_string(inSaPkts()) + " outSaPkts " + std::to_string(outSaPkts()) +
         " lastActive " + tessel::stringValue(lastActiveTime()) + " lastEstablished " +
         tessel::stringValue(lastEstablishedTime()) + " expires " +
         tessel::stringValue(expiryTime_);
}

}  // namespace tessel::Ike

namespace tessel {

template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::SecurityAssociation>>;
template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::LifetimeCfg>>;
template class KeyedCollection<std::string, Ptr<Ike::IpsecProfileConfig>>;
template class KeyedCollection<std::string, Ptr<Ike::SecurityAssociationConfig>>;
template class KeyedCollection<std::string, Ptr<Ike::SaCryptoSuiteConfig>>;
template class KeyedCollection<DhKeyPair, Ptr<Ike::DhState>>;
template class KeyedCollection<DhKeyPair, Ptr<Ike::CryptoInfoPair>>;
template class KeyedCollection<SecurityAssociationKey, Ptr<Ike::PathConnSaInfo>>;
template class KeyedCollection<ConnectionKey, Ptr<Ike::PathConnState>>;
template class KeyedCollection<ConnectionKey, Ptr<Ike::PathTestKnob>>;
template class KeyedCollection<IpGenAddr, Ptr<Ike::PeerConnectionState>>;
template class KeyedCollection<ConnectionKey, Ptr<Ike::IpsecConnectionStatusInfo>>;
template class KeyedCollection<std::string, Ptr<Ike::IpsecProfileConnectionMap>>;
template class KeyedCollection<ConnectionKey, Ptr<Ike::ClearPathCounter>>;
template class KeyedCollection<L3::VrfName, Ptr<Ike::VrfStatus>>;

}  // namespace tessel
