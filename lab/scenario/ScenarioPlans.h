// ScenarioPlans: what there is in a scenario at the start: routers, paths, controllers, traffic.
// The names end in Plan where the lab has a thing of that name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeStatus.h"
#include "host/model/IpGenAddr.h"
#include "host/model/Path.h"
#include "lab/net/Link.h"

namespace tessel::lab {

// Routers.

/// A named crypto suite, at its place in the preference of an SA's settings.
struct CryptoSuitePlan {
  std::string name{};
  uint32_t preference = 0;  ///< The lowest is taken.
  EncryptionAlgo encryption = EncryptionAlgo::aes256Gcm128;
  IntegrityAlgo integrity = IntegrityAlgo::sha256;
  friend bool operator==(const CryptoSuitePlan&, const CryptoSuitePlan&) = default;
};

/// Settings of the SAs of a profile.
struct SaSettings {
  std::vector<CryptoSuitePlan> suites{};
  /// Used when no suite is listed.
  EncryptionAlgo encryption = EncryptionAlgo::aes256Gcm128;
  IntegrityAlgo integrity = IntegrityAlgo::sha256;
  uint32_t lifetime = 86400;  ///< Hard limits: seconds, packets, bytes; 0 = none.
  uint32_t packetLimit = 0;
  uint64_t byteLimit = 0;
  friend bool operator==(const SaSettings&, const SaSettings&) = default;
};

struct ProfileSettings {
  std::string name = "overlay";
  std::string mode = "tunnel";  ///< Or "transport".
  bool flowEncap = false;
  Ike::EncapSrcPortRange sourcePorts{};  ///< 0 and 0: none.
  SaSettings sa{};
  friend bool operator==(const ProfileSettings&, const ProfileSettings&) = default;
};

/// Everything about a router but its name and its address. The scenario's defaults have been
/// applied already.
struct RouterSettings {
  /// The profile that the key-controller settings name at the start.
  ProfileSettings profile{};
  /// Configured as well, but applied by nothing until `ChangeProfile` names them.
  std::vector<ProfileSettings> otherProfiles{};

  IpsecDhGroup group = IpsecDhGroup::ecp256;
  uint32_t dhKeyLifetime = 86400;  ///< Seconds.
  uint32_t holdTime = 0;           ///< Seconds; 0 = no hold timer.

  /// Added to the controller's own delay for every record that this router receives.
  Duration controllerDelay{};
  /// From the hand-over of an SA to its installation in the data path.
  Duration installDelay = seconds(0.020);
  Duration sanityExpiry = seconds(180);
  Duration dhRekeyDelay = seconds(120);

  uint32_t maxEventRecord = 64;
  uint32_t maxGoneSaLogs = 2;
  /// The scheduler's `yieldAfter`: absent = a run is never asked to yield.
  std::optional<uint64_t> yieldAfter{};
  friend bool operator==(const RouterSettings&, const RouterSettings&) = default;
};

struct RouterPlan {
  std::string name{};
  IpGenAddr routerId{};  ///< VTEP address: the router's identity.
  bool present = true;   ///< False: absent until `AddRouter`.
  RouterSettings settings{};
  friend bool operator==(const RouterPlan&, const RouterPlan&) = default;
};

// Paths.

struct PathEndPlan {
  std::string router{};
  IpGenAddr address{};        ///< Underlay address, private when there is a public one.
  IpGenAddr publicAddress{};  ///< What the other end sees; unspecified = `address` itself.
  uint16_t port = 4500;       ///< Own outer UDP port.
  friend bool operator==(const PathEndPlan&, const PathEndPlan&) = default;
};

/// The state of a path as its path layer reports it, the same at both ends at the start.
struct PathCondition {
  bool up = true;       ///< Underlay established.
  bool allowed = true;  ///< The path may be established.
  bool enabled = true;  ///< The configuration asks for IPsec on it.
  std::optional<Ike::ConnectionState> connection = Ike::ConnectionState::established;
  friend bool operator==(const PathCondition&, const PathCondition&) = default;
};

struct PathPlan {
  std::string name{};
  PathEndPlan ends[2]{};
  LinkSettings link{};  ///< Of both directions.
  bool present = true;  ///< False: absent until `AddPath`.
  PathCondition condition{};
  friend bool operator==(const PathPlan&, const PathPlan&) = default;
};

// Controllers and traffic.

struct ControllerPlan {
  std::string name = "pf";
  /// From the publication of a record to its delivery to a connected router.
  Duration delay = seconds(0.050);
  friend bool operator==(const ControllerPlan&, const ControllerPlan&) = default;
};

/// Whom a controller sends a router's record.
enum class Distribution {
  everyone,
  neighbours,  ///< Routers that share a path of the scenario with it.
};

/// Packets of one size at one rate, on each of the paths, in one or both directions.
struct FlowPlan {
  std::string name{};
  std::vector<std::string> paths{};  ///< Names; at least one.
  std::string from{};                ///< The sending router; empty = both ends send.
  Duration interval = seconds(0.1);  ///< Between two packets of one direction of one path.
  uint32_t size = 500;               ///< Bytes of the inner packet.
  Duration start{};                  ///< never(): stands still until `StartTraffic`.
  Duration stop = Duration::never();
  friend bool operator==(const FlowPlan&, const FlowPlan&) = default;
};

/// The data path's probes of idle paths.
struct ProbePlan {
  bool on = true;
  Duration interval = seconds(10);
  friend bool operator==(const ProbePlan&, const ProbePlan&) = default;
};

}  // namespace tessel::lab
