// Scenario: what a run of the lab is made of, as plain data: routers, paths, controllers, traffic,
// what happens when, and what must hold. docs/lab.md describes the same in the words of its file
// form, which LoadScenario.h reads. The names end in Plan where the lab has a thing of that name.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeStatus.h"
#include "host/model/IpGenAddr.h"
#include "host/model/Path.h"
#include "lab/dataplane/DropReason.h"
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
};

// Paths.

struct PathEndPlan {
  std::string router{};
  IpGenAddr address{};        ///< Underlay address, private when there is a public one.
  IpGenAddr publicAddress{};  ///< What the other end sees; unspecified = `address` itself.
  uint16_t port = 4500;       ///< Own outer UDP port.
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
};

/// The data path's probes of idle paths.
struct ProbePlan {
  bool on = true;
  Duration interval = seconds(10);
  friend bool operator==(const ProbePlan&, const ProbePlan&) = default;
};

// Actions. In each, an empty name of a router, path, controller or flow means all that there are.
// For an action on a path or a link, an empty router means both ends, and a router without a path
// means its end of every path that it has. Names are those of the scenario.

/// Test knob: rekeys the SAs of a path from the given side.
struct ForceSaRekey {
  std::string path{};
  std::string router{};
};
/// (Re)starts or stops a flow, in one or both directions.
struct StartTraffic {
  std::string flow{};
  std::string from{};
};
struct StopTraffic {
  std::string flow{};
  std::string from{};
};
/// Switches the data path's probes of a path, as sent by one side or both.
struct SetProbes {
  std::string path{};
  std::string router{};
  bool on = true;
};
/// Cuts what `from` sends over the path's link.
struct CutLink {
  std::string path{};
  std::string from{};
};
struct RestoreLink {
  std::string path{};
  std::string from{};
};
/// What a link does to packets. Absent: unchanged. Shares are 0 to 1.
struct ChangeLink {
  std::string path{};
  std::string from{};
  std::optional<Duration> latency{};
  std::optional<Duration> jitter{};
  std::optional<double> loss{};
  std::optional<double> duplication{};
  std::optional<double> reordering{};
  std::optional<double> corruption{};
  std::optional<double> replay{};
};
/// The settings of a link after the change.
LinkSettings changedLink(LinkSettings settings, const ChangeLink& change);
/// The operator's clear request.
struct ClearPath {
  std::string path{};
  std::string router{};
};
struct ChangeInstallDelay {
  std::string router{};
  Duration delay{};
};
/// What the path layer reports and configures. Absent: unchanged.
struct SetPath {
  std::string path{};
  std::string router{};
  std::optional<bool> up{};
  std::optional<bool> allowed{};
  std::optional<bool> enabled{};
};
/// A new version of the path's merged data.
struct ChangeMergeData {
  std::string path{};
  std::string router{};
};
/// The connection status of a path; absent: missing.
struct SetConnectionStatus {
  std::string path{};
  std::string router{};
  std::optional<Ike::ConnectionState> state{};
};
/// Connectivity between routers and controllers. A router reports itself disconnected when it has
/// lost its last controller.
struct LoseControllers {
  std::string router{};
  std::string controller{};
};
struct RestoreControllers {
  std::string router{};
  std::string controller{};
};
/// A new delay of a controller, or of what one router receives: exactly one of the names is set.
struct ChangeControllerDelay {
  std::string router{};
  std::string controller{};
  Duration delay{};
};
struct ForceDhRekey {
  std::string router{};
};
/// Test knob: another DH key lifetime; absent: taken back.
struct SetDhExpiry {
  std::string router{};
  std::optional<Duration> time{};
};
/// Key-controller settings. Absent: unchanged.
struct ChangeKeyController {
  std::string router{};
  std::optional<uint32_t> dhKeyLifetime{};  ///< Seconds.
  std::optional<uint32_t> holdTime{};       ///< Seconds.
  std::optional<IpsecDhGroup> group{};
};
/// A router goes down with all its state, and comes up again with its settings as they are now.
struct RestartRouter {
  std::string router{};
  Duration downFor{};
};
/// A router goes for good: its record is withdrawn everywhere and its paths vanish at both ends.
struct RemoveRouter {
  std::string router{};
};
struct AddRouter {
  std::string router{};
};
/// A router stalls: nothing of its agent runs while time goes on for the others.
struct PauseRouter {
  std::string router{};
};
struct ResumeRouter {
  std::string router{};
};
struct RemovePath {
  std::string path{};
  std::string router{};
};
struct AddPath {
  std::string path{};
  std::string router{};
};
struct ChangeRouterId {
  std::string router{};
  IpGenAddr routerId{};  ///< Unspecified or 0.0.0.0: none.
};
/// The key-controller settings name another profile; empty: none.
struct ChangeProfile {
  std::string router{};
  std::string profile{};
};
/// Takes a profile's configuration away, or gives back what was taken, and notifies. An empty
/// profile means the one that the router's settings list first.
struct RemoveProfile {
  std::string router{};
  std::string profile{};
};
struct RestoreProfile {
  std::string router{};
  std::string profile{};
};
/// Other settings of the SAs of a profile, with a notification. Absent: unchanged. An algorithm
/// replaces that of the preferred suite, or the profile's own when there is none.
struct ChangeSa {
  std::string router{};
  std::string profile{};  ///< Empty: as in `RemoveProfile`.
  std::optional<EncryptionAlgo> encryption{};
  std::optional<IntegrityAlgo> integrity{};
  std::optional<uint32_t> lifetime{};  ///< Seconds.
  std::optional<uint32_t> packetLimit{};
  std::optional<uint64_t> byteLimit{};
};

enum class RecordFault {
  badPublicKey,    ///< Right length, not a valid public key of the group.
  badKeyLength,    ///< A public key one byte short, with its length saying so.
  badNonceLength,  ///< A nonce one byte short, with its length saying so.
  otherEncryption,
  otherIntegrity,
  otherGroup,
};
/// Replaces a router's record, as the controllers hold it, by a corrupt one. `at` receives it,
/// empty: everyone; the others keep what they have.
struct CorruptRecord {
  std::string router{};
  std::string at{};
  RecordFault fault = RecordFault::badPublicKey;
  /// False: at once, with the current counter. True: the next record that the router publishes.
  bool nextPublication = false;
};
/// Takes a router's record out of the directory of `at`, or of everyone.
struct WithdrawRecord {
  std::string router{};
  std::string at{};
};
/// Delivers the record as the router last published it; ends a corruption.
struct RestoreRecord {
  std::string router{};
  std::string at{};
};
/// The next `times` generations of a nonce or a DH key at a router fail.
struct FailGeneration {
  enum class What { nonce, dhKey };
  std::string router{};
  What what = What::nonce;
  uint32_t times = 1;
};
/// SAs that are handed over for a path from now on do not come into use.
struct FailInstallation {
  enum class How {
    refused,     ///< Not installed.
    unreported,  ///< Installed and used, but never reported in the counter table.
  };
  enum class Which { both, in, out };
  std::string path{};
  std::string router{};
  How how = How::refused;
  Which which = Which::both;
  std::optional<uint32_t> times{};  ///< Absent: until `RestoreInstallation`.
};
/// What was withheld stays so; later SAs are installed as usual.
struct RestoreInstallation {
  std::string path{};
  std::string router{};
};
/// Test knob: every path of the router counts as active.
struct ForcePathActive {
  std::string router{};
  bool on = true;
};

using Action =
    std::variant<ForceSaRekey, StartTraffic, StopTraffic, SetProbes, CutLink, RestoreLink,
                 ChangeLink, ClearPath, ChangeInstallDelay, SetPath, ChangeMergeData,
                 SetConnectionStatus, LoseControllers, RestoreControllers, ChangeControllerDelay,
                 ForceDhRekey, SetDhExpiry, ChangeKeyController, RestartRouter, RemoveRouter,
                 AddRouter, PauseRouter, ResumeRouter, RemovePath, AddPath, ChangeRouterId,
                 ChangeProfile, RemoveProfile, RestoreProfile, ChangeSa, CorruptRecord,
                 WithdrawRecord, RestoreRecord, FailGeneration, FailInstallation,
                 RestoreInstallation, ForcePathActive>;

struct TimelineEntry {
  Duration at{};
  Action action{};
  std::string text{};  ///< As the file has it, on one line; empty when not from a file.
  int line = 0;        ///< In the file; 0 when not from a file.
};

// Expectations. Names left empty mean all, as in actions: every one must hold. In those that
// count, an empty name means the sum over all.

struct Bounds {
  uint64_t atLeast = 0;
  std::optional<uint64_t> atMost{};
  static Bounds exactly(uint64_t n) { return {.atLeast = n, .atMost = n}; }
  bool contains(uint64_t n) const { return n >= atLeast && (!atMost || n <= *atMost); }
};

/// The state of a path at one end or both is one of these; none listed: the path is not there.
struct ExpectPathState {
  std::string path{};
  std::string router{};
  std::vector<DynamicPathState> states{};
};
/// The role of a path in an SA rekey.
struct ExpectSaRekeyRole {
  std::string path{};
  std::string router{};
  SmState role = SmState::idle;
};
/// What a router says of its peer; empty `peer`: of every peer that it lists.
struct ExpectPeer {
  std::string router{};
  std::string peer{};
  /// Absent: the router does not list the peer.
  std::optional<PeerConnStatus> status = PeerConnStatus::ready;
  std::optional<PeerDownReason> reason{};  ///< Absent: any.
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
};
/// Packets that were sent and neither received nor are still on their way.
struct ExpectLost {
  std::string flow{};
  std::string path{};
  std::string from{};  ///< The sending router.
  Bounds bounds{};
};
/// Packets of flows that arrived and were accepted.
struct ExpectReceived {
  std::string flow{};
  std::string path{};
  std::string from{};  ///< The sending router.
  Bounds bounds{};
};
/// Packets that the data path of a router dropped.
struct ExpectDrops {
  std::string router{};
  std::optional<DropReason> reason{};  ///< Absent: any.
  Bounds bounds{};
};
/// Occurrences of an agent log message.
struct ExpectLog {
  std::string router{};
  std::string message{};  ///< Identifier.
  Bounds bounds{};
};
/// A counter of the machine, one of `machineCounters()`.
struct ExpectCounter {
  std::string router{};
  std::string counter{};
  Bounds bounds{};
};
/// Events of one name in a router's logs since its start, also those that were overwritten.
struct ExpectEvents {
  std::string router{};
  std::string path{};  ///< Only those of the path and of its SAs; empty: all.
  std::string event{};
  Bounds bounds{};
};
/// SAs that passed a hard limit.
struct ExpectHardLimits {
  std::string router{};
  Bounds bounds = Bounds::exactly(0);
};
/// The counter of the generation that a router publishes, or the one of `peer` that its directory
/// has.
struct ExpectGeneration {
  std::string router{};
  std::string peer{};
  Bounds bounds{};
};
/// Completed rekeys: of SAs, counted per path and end; of DH keys, per router.
struct ExpectRekeys {
  enum class Kind { sa, dh };
  Kind kind = Kind::sa;
  std::string router{};
  std::string path{};  ///< SA rekeys only.
  Bounds bounds{};
};
/// The state of a router's own DH rekey.
struct ExpectDhState {
  std::string router{};
  DhRekeyState state = DhRekeyState::notRekeying;
};
struct ExpectHoldTimer {
  std::string router{};
  bool running = false;
};

using ExpectedFact =
    std::variant<ExpectPathState, ExpectSaRekeyRole, ExpectPeer, ExpectCount, ExpectLost,
                 ExpectReceived, ExpectDrops, ExpectLog, ExpectCounter, ExpectEvents,
                 ExpectHardLimits, ExpectGeneration, ExpectRekeys, ExpectDhState, ExpectHoldTimer>;

struct Expectation {
  /// Checked after everything that happens at that time; never(): at the end of the run.
  Duration at = Duration::never();
  ExpectedFact fact{};
  std::string text{};  ///< As in `TimelineEntry`.
  int line = 0;
};

/// Identifiers of the messages that the agent can log.
const std::vector<std::string>& logMessages();
/// The machine's counters, by the names of its attributes.
const std::vector<std::string>& machineCounters();

struct Scenario {
  std::string name{};
  std::string description{};
  uint64_t seed = 1;
  Duration duration = seconds(180);

  std::vector<RouterPlan> routers{};
  std::vector<PathPlan> paths{};
  std::vector<ControllerPlan> controllers{ControllerPlan{}};
  Distribution distribution = Distribution::everyone;
  std::vector<FlowPlan> traffic{};
  ProbePlan probes{};
  std::vector<TimelineEntry> timeline{};  ///< By time; those of one time in the file's order.
  std::vector<Expectation> expectations{};
  /// Toggles by name, over what the toggle file says.
  std::map<std::string, bool> toggles{};

  /// Null when there is none of that name.
  const RouterPlan* router(const std::string& routerName) const;
  const PathPlan* path(const std::string& pathName) const;
  const FlowPlan* flow(const std::string& flowName) const;
};

}  // namespace tessel::lab
