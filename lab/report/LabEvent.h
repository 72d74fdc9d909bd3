// LabEvent: one thing that happened in a lab, as plain data without key material. EventStream makes
// them; the narrator, the event file and the report are made from them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IpGenAddr.h"
#include "host/model/Keys.h"
#include "lab/dataplane/DataPlaneEvents.h"
#include "lab/run/Verdict.h"

namespace tessel::lab {

/// A published key, without the key.
struct KeyFacts {
  uint64_t generation = 0;
  IpsecDhGroup group = IpsecDhGroup::none;
  IpsecEspAlgorithm encryption = IpsecEspAlgorithm::none;
  IpsecHmacAlgorithm integrity = IpsecHmacAlgorithm::none;
};

/// An SA at the moment of the event.
struct SaFacts {
  uint32_t spi = 0;
  bool inbound = false;
  SaType type = SaType::none;
  DhKeyPair generations{};
  uint64_t handOver = 0;  ///< Its number since the router's start.
  SaInstallState state = SaInstallState::pending;
  uint64_t packets = 0;
  uint64_t bytes = 0;
  uint64_t keyTag = 0;  ///< Tells equal keys from others; is not to be written out.
};

namespace event {

struct RouterUp {
  IpGenAddr routerId{};
  std::string profile{};  ///< Empty: none.
  IpsecDhGroup group = IpsecDhGroup::none;
};
struct RouterDown {};

/// The router's own key reached the controllers; no key: it was withdrawn.
struct Published {
  std::optional<KeyFacts> key{};
};
/// The controllers told the router of the peer's key; no key: that it is withdrawn.
struct Received {
  std::optional<KeyFacts> key{};
};
struct Connection {
  bool connected = false;  ///< To the controllers.
};

struct PeerStatus {
  PeerConnStatus status = PeerConnStatus::ready;
  PeerDownReason reason = PeerDownReason::none;
};
struct PeerGone {};
struct PathState {
  DynamicPathState from = DynamicPathState::none;
  DynamicPathState to = DynamicPathState::none;
};
struct PathGone {
  DynamicPathState from = DynamicPathState::none;
};
/// The first packet of the path since the router's start was decrypted.
struct FirstPacket {};

/// A step in the life of an SA.
struct SaStep {
  enum class Step : uint8_t { handedOver, installed, notInstalled, retyped, removed };
  Step step = Step::handedOver;
  SaFacts sa{};
  SaType before = SaType::none;  ///< Retyped: what it was.
  std::string why{};             ///< Not installed: the reason.
};
/// The first packet with a new nonce was sent or received.
struct Nonce {
  SaFacts sa{};
  bool sent = false;
  std::string kind{};  ///< "initiator", "responder", "unknown kind 7".
};
struct HardLimit {
  uint32_t spi = 0;
  HardLimitFinding::Limit limit = HardLimitFinding::Limit::time;
  uint64_t allowed = 0;
};
/// A packet was dropped. A received one that matches no SA has a path where its addresses and ports
/// name one.
struct Drop {
  DropReason reason = DropReason::noSa;
  bool sending = false;
  uint32_t spi = 0;
  uint32_t sequence = 0;
};

/// The machine recorded an event.
struct Machine {
  enum class Log : uint8_t { local, peer, path, sa };
  Log log = Log::local;
  std::string name{};
  std::optional<uint64_t> number{};
  std::optional<DhKeyPair> generations{};
  std::optional<DynamicPathState> pathState{};
  std::optional<uint32_t> spi{};
};
/// The agent logged a line.
struct LogLine {
  std::string identifier{};
  int severity = 0;
  std::string text{};
};
struct TraceText {
  std::string text{};
};

/// An entry of the timeline is about to happen.
struct TimelineAction {
  std::string text{};
  int line = 0;
};
struct Checked {
  Verdict verdict{};
};

}  // namespace event

struct LabEvent {
  using What = std::variant<event::RouterUp, event::RouterDown, event::Published, event::Received,
                            event::Connection, event::PeerStatus, event::PeerGone, event::PathState,
                            event::PathGone, event::FirstPacket, event::SaStep, event::Nonce,
                            event::HardLimit, event::Drop, event::Machine, event::LogLine,
                            event::TraceText, event::TimelineAction, event::Checked>;

  Duration at{};         ///< Virtual.
  std::string router{};  ///< Empty for what the lab itself does.
  std::string path{};    ///< Name; empty when it is about no path.
  std::string peer{};    ///< Name of the other router; empty when it is about none.
  What what{};
};

/// Is told of every event, in the order in which they happen.
class LabEventSink {
 public:
  virtual ~LabEventSink() = default;
  virtual void handle(const LabEvent& event) = 0;
  /// False: it does without the machine's events that have no words, and without SAs that change
  /// their type. They are the most, and are not even made when no sink wants them.
  virtual bool wantsEverything() const { return true; }
};

/// What an event is called in files: "sa-installed".
std::string nameOf(const LabEvent& event);

/// "SA 0x0badcafe in".
std::string textOf(const SaFacts& sa);
/// "key 0: ecp-256, aes-256-gcm-16 and sha256".
std::string textOf(const KeyFacts& key);
/// The event in words, for a reader who sees its time and router elsewhere; empty when the words
/// would say nothing to one who does not know the code.
std::string textOf(const LabEvent& event);

/// Whether `textOf` has words for an event of the machine.
bool hasWords(event::Machine::Log log, std::string_view name);

/// For `std::visit`: one function per alternative.
template <class... Functions>
struct Overloaded : Functions... {
  using Functions::operator()...;
};
template <class... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

}  // namespace tessel::lab
