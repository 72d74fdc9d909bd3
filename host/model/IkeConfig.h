// Ike: the IPsec configuration that the machine reads.
#pragma once

#include <cstdint>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Enumerations.h"

namespace tessel::Ike {

/// Range of UDP source ports over which flows are spread; 0 and 0 means none.
struct TESSEL_API EncapSrcPortRange {
  uint16_t first = 0;
  uint16_t last = 0;
  friend bool operator==(const EncapSrcPortRange&, const EncapSrcPortRange&) = default;
};
TESSEL_API std::string stringValue(const EncapSrcPortRange& range);

/// A named crypto suite.
class TESSEL_API SaCryptoSuiteConfig final : public Entity {
 public:
  explicit SaCryptoSuiteConfig(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

  HOST_ATTRIBUTE(encryptAlgo, EncryptionAlgo);
  HOST_ATTRIBUTE(integrityAlgo, IntegrityAlgo);

 private:
  const std::string name_;
};

/// The settings of a security association.
class TESSEL_API SecurityAssociationConfig final : public Entity {
 public:
  explicit SecurityAssociationConfig(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

  /// Used when no crypto suite is listed.
  HOST_ATTRIBUTE(encryptAlgo, EncryptionAlgo);
  HOST_ATTRIBUTE(integrityAlgo, IntegrityAlgo);
  /// Crypto suites by preference; the lowest number is taken.
  HOST_VALUES(cryptoSuite, uint32_t, std::string);
  /// Hard limits of the SAs: seconds, packets, bytes; 0 = none.
  HOST_ATTRIBUTE(lifetime, uint32_t);
  HOST_ATTRIBUTE(packetLimit, uint32_t);
  HOST_ATTRIBUTE(byteLimit, uint64_t);

 private:
  const std::string name_;
};

/// An IPsec profile.
class TESSEL_API IpsecProfileConfig final : public Entity {
 public:
  explicit IpsecProfileConfig(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }

  /// "tunnel" or "transport".
  HOST_ATTRIBUTE(mode, std::string);
  /// Name of the profile's security association.
  HOST_ATTRIBUTE(securityAssocName, std::string);
  HOST_ATTRIBUTE(flowEncap, bool);
  HOST_ATTRIBUTE(encapSrcPortRange, EncapSrcPortRange);

 private:
  const std::string name_;
};

/// The settings of the key controller.
struct TESSEL_API KeyControllerConfig {
  uint8_t enabled = 0;
  std::string profileName;     ///< The profile applied to the key controller; empty when none.
  uint32_t dhKeyLifetime = 0;  ///< Seconds.
  uint32_t holdTime = 0;       ///< Seconds; 0 = no hold timer.
  IpsecDhGroup dhGroup = IpsecDhGroup::none;
  friend bool operator==(const KeyControllerConfig&, const KeyControllerConfig&) = default;
};

/// The IPsec configuration.
class TESSEL_API Config final : public Entity {
  HOST_COLLECTION(ipsecProfile, std::string, IpsecProfileConfig);
  HOST_COLLECTION(securityAssoc, std::string, SecurityAssociationConfig);
  HOST_COLLECTION(saCryptoSuiteConfig, std::string, SaCryptoSuiteConfig);
  HOST_ATTRIBUTE(keyController, KeyControllerConfig);
};

}  // namespace tessel::Ike

namespace tessel {

// Compiled once, in Ike.cpp: most units of the engine use these.
extern template class KeyedCollection<std::string, Ptr<Ike::IpsecProfileConfig>>;
extern template class KeyedCollection<std::string, Ptr<Ike::SecurityAssociationConfig>>;
extern template class KeyedCollection<std::string, Ptr<Ike::SaCryptoSuiteConfig>>;

}  // namespace tessel
