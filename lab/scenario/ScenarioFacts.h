// ScenarioFacts: what a scenario can expect to hold.
//
// Names left empty mean all, as in actions: every one must hold. In those that count, an empty name
// means the sum over all.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/model/Enumerations.h"
#include "lab/net/DropReason.h"

namespace tessel::lab {

struct Bounds {
  uint64_t atLeast = 0;
  std::optional<uint64_t> atMost{};
  static Bounds exactly(uint64_t n) { return {.atLeast = n, .atMost = n}; }
  bool contains(uint64_t n) const { return n >= atLeast && (!atMost || n <= *atMost); }
  friend bool operator==(const Bounds&, const Bounds&) = default;
};

/// The state of a path at one end or both is one of these; none listed: the path is not there.
struct ExpectPathState {
  std::string path{};
  std::string router{};
  std::vector<DynamicPathState> states{};
  friend bool operator==(const ExpectPathState&, const ExpectPathState&) = default;
};
/// The role of a path in an SA rekey.
struct ExpectSaRekeyRole {
  std::string path{};
  std::string router{};
  SmState role = SmState::idle;
  friend bool operator==(const ExpectSaRekeyRole&, const ExpectSaRekeyRole&) = default;
};
/// What a router says of its peer; empty `peer`: of every peer that it lists.
struct ExpectPeer {
  std::string router{};
  std::string peer{};
  /// Absent: the router does not list the peer.
  std::optional<PeerConnStatus> status = PeerConnStatus::ready;
  std::optional<PeerDownReason> reason{};  ///< Absent: any.
  friend bool operator==(const ExpectPeer&, const ExpectPeer&) = default;
};
/// Members of the tables of a router, or of all routers together.
struct ExpectCount {
  enum class What {
    peers,
    readyPeers,
    paths,
    sas,               ///< Of `saType`, on `path`, where given.
    lifetimes,         ///< SA lifetime records.
    saCounters,        ///< Counter entries: installed SAs.
    localGenerations,  ///< Local DH key generations held.
    peerGenerations,   ///< Stored generations of `peer`, or of all peers.
    cryptoInfos,       ///< Crypto records of `peer`, or of all peers.
  };
  What what = What::peers;
  std::string router{};
  std::string path{};
  std::string peer{};
  std::optional<SaType> saType{};
  Bounds bounds{};
  friend bool operator==(const ExpectCount&, const ExpectCount&) = default;
};
/// Packets that were sent and neither received nor are still on their way.
struct ExpectLost {
  std::string flow{};
  std::string path{};
  std::string from{};  ///< The sending router.
  Bounds bounds{};
  friend bool operator==(const ExpectLost&, const ExpectLost&) = default;
};
/// Packets of flows that arrived and were accepted.
struct ExpectReceived {
  std::string flow{};
  std::string path{};
  std::string from{};  ///< The sending router.
  Bounds bounds{};
  friend bool operator==(const ExpectReceived&, const ExpectReceived&) = default;
};
/// Packets that the data path of a router dropped.
struct ExpectDrops {
  std::string router{};
  std::optional<DropReason> reason{};  ///< Absent: any.
  Bounds bounds{};
  friend bool operator==(const ExpectDrops&, const ExpectDrops&) = default;
};
/// Occurrences of an agent log message.
struct ExpectLog {
  std::string router{};
  std::string message{};  ///< Identifier.
  Bounds bounds{};
  friend bool operator==(const ExpectLog&, const ExpectLog&) = default;
};
/// A counter of the machine, one of `machineCounters()`.
struct ExpectCounter {
  std::string router{};
  std::string counter{};
  Bounds bounds{};
  friend bool operator==(const ExpectCounter&, const ExpectCounter&) = default;
};
/// Events of one name in a router's logs since its start, also those that were overwritten.
struct ExpectEvents {
  std::string router{};
  std::string path{};  ///< Only those of the path and of its SAs; empty: all.
  std::string event{};
  Bounds bounds{};
  friend bool operator==(const ExpectEvents&, const ExpectEvents&) = default;
};
/// SAs that passed a hard limit.
struct ExpectHardLimits {
  std::string router{};
  Bounds bounds = Bounds::exactly(0);
  friend bool operator==(const ExpectHardLimits&, const ExpectHardLimits&) = default;
};
/// The counter of the generation that a router publishes, or the one of `peer` that its directory
/// has.
struct ExpectGeneration {
  std::string router{};
  std::string peer{};
  Bounds bounds{};
  friend bool operator==(const ExpectGeneration&, const ExpectGeneration&) = default;
};
/// Completed rekeys: of SAs, counted per path and end; of DH keys, per router.
struct ExpectRekeys {
  enum class Kind { sa, dh };
  Kind kind = Kind::sa;
  std::string router{};
  std::string path{};  ///< SA rekeys only.
  Bounds bounds{};
  friend bool operator==(const ExpectRekeys&, const ExpectRekeys&) = default;
};
/// The state of a router's own DH rekey.
struct ExpectDhState {
  std::string router{};
  DhRekeyState state = DhRekeyState::notRekeying;
  friend bool operator==(const ExpectDhState&, const ExpectDhState&) = default;
};
struct ExpectHoldTimer {
  std::string router{};
  bool running = false;
  friend bool operator==(const ExpectHoldTimer&, const ExpectHoldTimer&) = default;
};

using ExpectedFact =
    std::variant<ExpectPathState, ExpectSaRekeyRole, ExpectPeer, ExpectCount, ExpectLost,
                 ExpectReceived, ExpectDrops, ExpectLog, ExpectCounter, ExpectEvents,
                 ExpectHardLimits, ExpectGeneration, ExpectRekeys, ExpectDhState, ExpectHoldTimer>;

/// Identifiers of the messages that the agent can log.
const std::vector<std::string>& logMessages();
/// The machine's counters, by the names of its attributes.
const std::vector<std::string>& machineCounters();

}  // namespace tessel::lab
