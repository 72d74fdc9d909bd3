// Ike: the agent's IPsec status, the root of what the machine writes, and its test knobs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/IkePath.h"
#include "host/model/IkeSa.h"

namespace tessel::Ike {

/// Generation times of the local key, UTC; 0 = no key. The third field is the host's: the machine
/// copies it through unchanged.
struct TESSEL_API LocalKeyState {
  Duration firstGenerationTime;
  Duration latestGenerationTime;
  uint64_t hostData = 0;
  friend bool operator==(const LocalKeyState&, const LocalKeyState&) = default;
};

/// Test controls of one path.
class TESSEL_API PathTestKnob final : public Entity {
 public:
  explicit PathTestKnob(const ConnectionKey&) {}

  /// Forces an SA rekey; reset after use.
  HOST_ATTRIBUTE(saRekeyTrigger, bool);
};

/// Test controls.
class TESSEL_API TestKnob final : public Entity {
  /// Replaces the generated local nonce when not empty.
  HOST_ATTRIBUTE(forcedNonce, std::string);
  /// Replaces the DH key lifetime; at least 300 s.
  HOST_ATTRIBUTE(dhExpiryTime, std::optional<Duration>);
  /// Forces a DH rekey; reset after use.
  HOST_ATTRIBUTE(dhRekeyTrigger, bool);
  /// Makes every path count as active.
  HOST_ATTRIBUTE(forcePathActive, bool);
  HOST_COLLECTION(pathTestKnob, ConnectionKey, PathTestKnob);
};

/// Clear requests of one path: each increment asks to clear it.
class TESSEL_API ClearPathCounter final : public Entity {
 public:
  explicit ClearPathCounter(const ConnectionKey& key) : connectionKey_(key) {}
  const ConnectionKey& connectionKey() const { return connectionKey_; }

  HOST_COUNTER(clearCnt);

 private:
  const ConnectionKey connectionKey_;
};

/// A profile applied to connections.
class TESSEL_API IpsecProfileConnectionMap final : public Entity {
 public:
  explicit IpsecProfileConnectionMap(std::string name) : profileName_(std::move(name)) {}
  const std::string& profileName() const { return profileName_; }

  HOST_ATTRIBUTE(appliedToKeyController, bool);

 private:
  const std::string profileName_;
};

/// State of the connection that carries a path.
enum class ConnectionState : uint8_t { down = 0, established = 3, connected = 7 };
/// "established(3)"; numbers that the machine does not know are "unknown(5)".
TESSEL_API std::string stringValue(ConnectionState state);

/// The agent's connection status of one path.
class TESSEL_API IpsecConnectionStatusInfo final : public Entity {
 public:
  explicit IpsecConnectionStatusInfo(const ConnectionKey&) {}

  /// Absent until the agent knows it.
  HOST_ATTRIBUTE(connectionState, std::optional<uint8_t>);
  /// Established or connected.
  bool isUsable() const {
    return connectionState() == static_cast<uint8_t>(ConnectionState::established) ||
           connectionState() == static_cast<uint8_t>(ConnectionState::connected);
  }
};

/// The agent's IPsec status.
class TESSEL_API Status final : public Entity {
 public:
  explicit Status(Ptr<const Timing> timing) : timing_(std::move(timing)) {}
  const Ptr<const Timing>& timing() const { return timing_; }

  HOST_COLLECTION(ipsecPeerConnectionState, IpGenAddr, PeerConnectionState);
  HOST_COLLECTION(ipsecConnectionStatusInfo, ConnectionKey, IpsecConnectionStatusInfo);
  HOST_COLLECTION(appliedProfiles, std::string, IpsecProfileConnectionMap);
  HOST_COLLECTION(clearKey, ConnectionKey, ClearPathCounter);
  HOST_COLLECTION(vrfStatus, L3::VrfName, VrfStatus);
  HOST_CHILD(testKnob, TestKnob);
  HOST_ATTRIBUTE(localKeyState, LocalKeyState);

  /// Starts the delay before a DH rekey may start.
  void setDhRekeyDelayTime() {
    dhRekeyDelayTime_ = timing_->clock.monotonicTime() + timing_->dhRekeyDelay;
  }
  /// The monotonic time at which the delay ends; never while it has not been started.
  Duration getDhRekeyDelayTime() const { return dhRekeyDelayTime_; }
  /// Whether the delay has passed.
  bool isDhRekeyReady() const { return timing_->clock.monotonicTime() >= dhRekeyDelayTime_; }

 private:
  const Ptr<const Timing> timing_;
  Duration dhRekeyDelayTime_ = Duration::never();
};

}  // namespace tessel::Ike

namespace tessel {

// Compiled once, in Ike.cpp: most units of the engine use these.
extern template class KeyedCollection<ConnectionKey, Ptr<Ike::PathTestKnob>>;
extern template class KeyedCollection<IpGenAddr, Ptr<Ike::PeerConnectionState>>;
extern template class KeyedCollection<ConnectionKey, Ptr<Ike::IpsecConnectionStatusInfo>>;
extern template class KeyedCollection<std::string, Ptr<Ike::IpsecProfileConnectionMap>>;
extern template class KeyedCollection<ConnectionKey, Ptr<Ike::ClearPathCounter>>;
extern template class KeyedCollection<L3::VrfName, Ptr<Ike::VrfStatus>>;

}  // namespace tessel
