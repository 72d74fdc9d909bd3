// Summary: how a lab stands, as plain data, from which both the tables and the JSON report are
// made. It holds no key material.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lab/run/Lab.h"

namespace tessel::lab {

struct SaSummary {
  std::string path{};
  bool inbound = false;
  SaType type = SaType::none;
  uint32_t spi = 0;
  DhKeyPair generations{};
  std::string encryption{};  ///< Kernel names of the algorithms.
  std::string integrity{};
  SaInstallState state = SaInstallState::pending;
  std::optional<Duration> age{};  ///< Since it was installed.
  uint64_t packets = 0;
  uint64_t bytes = 0;  ///< Of inner packets.
};

struct PathSummary {
  std::string name{};
  std::string peer{};  ///< Name of the other router.
  IpGenAddr localAddr{};
  IpGenAddr remoteAddr{};
  uint16_t localPort = 0;
  uint16_t remotePort = 0;
  bool wanted = true;                       ///< Configured and part of the mesh.
  std::optional<DynamicPathState> state{};  ///< Absent: the agent has no such path.
  SmState saRekeyRole = SmState::idle;
  DhKeyPair generations{};  ///< Of the out-SA in use.
  PathStatistics packets{};
  LinkCounts link{};  ///< Of the direction that starts here, since the beginning of the run.
};

struct PeerSummary {
  std::string name{};  ///< Of the router with that address; the address when there is none.
  IpGenAddr address{};
  PeerConnStatus status = PeerConnStatus::ready;
  PeerDownReason reason = PeerDownReason::none;
  uint64_t generation = 0;
  bool initiator = false;
};

/// An entry of a router's event logs.
struct EventSummary {
  enum class Log : uint8_t { local, peer, path, sa };
  Log log = Log::local;
  Duration time{};  ///< Virtual.
  std::string name{};
  std::string subject{};  ///< Peer or path; empty for local events.
  std::optional<uint32_t> spi{};
  std::optional<DynamicPathState> pathState{};
  std::optional<DhKeyPair> generations{};
  std::optional<uint64_t> number{};
};

struct RouterSummary {
  std::string name{};
  IpGenAddr routerId{};
  bool up = false;
  bool connected = false;                ///< To the controllers.
  std::optional<uint64_t> generation{};  ///< Of the published key.
  DhRekeyState dhRekeyState = DhRekeyState::notRekeying;
  bool holdTimerRunning = false;
  std::vector<std::pair<std::string, uint64_t>> counters{};  ///< Of the machine.
  std::vector<PeerSummary> peers{};                          ///< By address.
  std::vector<PathSummary> paths{};                          ///< By name.
  std::vector<SaSummary> sas{};                              ///< By path, direction, SPI.
  std::vector<EventSummary> events{};                        ///< By time; those of one time by log.
  DropCounts drops{};                                        ///< Since the beginning of the run.
  uint64_t sasPastHardLimit = 0;
};

RouterSummary summaryOf(const Lab& lab, const Router& router);

/// A name of the state model without its number: "active" for "active(3)".
template <class Enum>
std::string plainName(Enum value) {
  const std::string text = stringValue(value);
  return text.substr(0, text.find('('));
}

/// "local/peer" generation counters.
std::string pairText(const DhKeyPair& pair);

const char* eventLogName(EventSummary::Log log);

/// The name of the router with that address, or the address.
std::string routerNameOf(const Lab& lab, const IpGenAddr& address);

}  // namespace tessel::lab
