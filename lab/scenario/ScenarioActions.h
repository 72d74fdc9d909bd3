// ScenarioActions: what can happen to a scenario in the course of a run.
//
// In each action, an empty name of a router, path, controller or flow means all that there are. For
// an action on a path or a link, an empty router means both ends, and a router without a path means
// its end of every path that it has. Names are those of the scenario.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/IkeStatus.h"
#include "host/model/IpGenAddr.h"
#include "lab/net/Link.h"

namespace tessel::lab {

/// Test knob: rekeys the SAs of a path from the given side.
struct ForceSaRekey {
  std::string path{};
  std::string router{};
  friend bool operator==(const ForceSaRekey&, const ForceSaRekey&) = default;
};
/// (Re)starts or stops a flow, in one or both directions.
struct StartTraffic {
  std::string flow{};
  std::string from{};
  friend bool operator==(const StartTraffic&, const StartTraffic&) = default;
};
struct StopTraffic {
  std::string flow{};
  std::string from{};
  friend bool operator==(const StopTraffic&, const StopTraffic&) = default;
};
/// Switches the data path's probes of a path, as sent by one side or both.
struct SetProbes {
  std::string path{};
  std::string router{};
  bool on = true;
  friend bool operator==(const SetProbes&, const SetProbes&) = default;
};
/// Cuts what `from` sends over the path's link.
struct CutLink {
  std::string path{};
  std::string from{};
  friend bool operator==(const CutLink&, const CutLink&) = default;
};
struct RestoreLink {
  std::string path{};
  std::string from{};
  friend bool operator==(const RestoreLink&, const RestoreLink&) = default;
};
/// What a link does to packets. Absent: unchanged. Shares are 0 to 1.
struct ChangeLink {
  std::string path{};
  std::string from{};
  std::optional<Duration> latency{};
  std::optional<Duration> jitter{};
  std::optional<double> loss{};
  std::optional<double> burstStart{};
  std::optional<double> burstEnd{};
  std::optional<double> duplication{};
  std::optional<Duration> duplicateDelay{};
  std::optional<double> reordering{};
  std::optional<Duration> reorderDelay{};
  std::optional<double> corruption{};
  std::optional<double> replay{};
  std::optional<uint32_t> replayDepth{};
  friend bool operator==(const ChangeLink&, const ChangeLink&) = default;
};
/// The settings of a link after the change.
LinkSettings changedLink(LinkSettings settings, const ChangeLink& change);
/// What has to change on the way from one to the other; no names.
ChangeLink linkChange(const LinkSettings& from, const LinkSettings& to);
/// The operator's clear request.
struct ClearPath {
  std::string path{};
  std::string router{};
  friend bool operator==(const ClearPath&, const ClearPath&) = default;
};
struct ChangeInstallDelay {
  std::string router{};
  Duration delay{};
  friend bool operator==(const ChangeInstallDelay&, const ChangeInstallDelay&) = default;
};
/// What the path layer reports and configures. Absent: unchanged.
struct SetPath {
  std::string path{};
  std::string router{};
  std::optional<bool> up{};
  std::optional<bool> allowed{};
  std::optional<bool> enabled{};
  friend bool operator==(const SetPath&, const SetPath&) = default;
};
/// A new version of the path's merged data.
struct ChangeMergeData {
  std::string path{};
  std::string router{};
  friend bool operator==(const ChangeMergeData&, const ChangeMergeData&) = default;
};
/// The connection status of a path; absent: missing.
struct SetConnectionStatus {
  std::string path{};
  std::string router{};
  std::optional<Ike::ConnectionState> state{};
  friend bool operator==(const SetConnectionStatus&, const SetConnectionStatus&) = default;
};
/// Connectivity between routers and controllers. A router reports itself disconnected when it has
/// lost its last controller.
struct LoseControllers {
  std::string router{};
  std::string controller{};
  friend bool operator==(const LoseControllers&, const LoseControllers&) = default;
};
struct RestoreControllers {
  std::string router{};
  std::string controller{};
  friend bool operator==(const RestoreControllers&, const RestoreControllers&) = default;
};
/// A new delay of a controller, or of what one router receives: exactly one of the names is set.
struct ChangeControllerDelay {
  std::string router{};
  std::string controller{};
  Duration delay{};
  friend bool operator==(const ChangeControllerDelay&, const ChangeControllerDelay&) = default;
};
struct ForceDhRekey {
  std::string router{};
  friend bool operator==(const ForceDhRekey&, const ForceDhRekey&) = default;
};
/// Test knob: another DH key lifetime; absent: taken back.
struct SetDhExpiry {
  std::string router{};
  std::optional<Duration> time{};
  friend bool operator==(const SetDhExpiry&, const SetDhExpiry&) = default;
};
/// Key-controller settings. Absent: unchanged.
struct ChangeKeyController {
  std::string router{};
  std::optional<uint32_t> dhKeyLifetime{};  ///< Seconds.
  std::optional<uint32_t> holdTime{};       ///< Seconds.
  std::optional<IpsecDhGroup> group{};
  friend bool operator==(const ChangeKeyController&, const ChangeKeyController&) = default;
};
/// A router goes down with all its state, and comes up again with its settings as they are now.
struct RestartRouter {
  std::string router{};
  Duration downFor{};
  friend bool operator==(const RestartRouter&, const RestartRouter&) = default;
};
/// A router goes for good: its record is withdrawn everywhere and its paths vanish at both ends.
struct RemoveRouter {
  std::string router{};
  friend bool operator==(const RemoveRouter&, const RemoveRouter&) = default;
};
struct AddRouter {
  std::string router{};
  friend bool operator==(const AddRouter&, const AddRouter&) = default;
};
/// A router stalls: nothing of its agent runs while time goes on for the others.
struct PauseRouter {
  std::string router{};
  friend bool operator==(const PauseRouter&, const PauseRouter&) = default;
};
struct ResumeRouter {
  std::string router{};
  friend bool operator==(const ResumeRouter&, const ResumeRouter&) = default;
};
struct RemovePath {
  std::string path{};
  std::string router{};
  friend bool operator==(const RemovePath&, const RemovePath&) = default;
};
struct AddPath {
  std::string path{};
  std::string router{};
  friend bool operator==(const AddPath&, const AddPath&) = default;
};
struct ChangeRouterId {
  std::string router{};
  IpGenAddr routerId{};  ///< Unspecified or 0.0.0.0: none.
  friend bool operator==(const ChangeRouterId&, const ChangeRouterId&) = default;
};
/// The key-controller settings name another profile; empty: none.
struct ChangeProfile {
  std::string router{};
  std::string profile{};
  friend bool operator==(const ChangeProfile&, const ChangeProfile&) = default;
};
/// Takes a profile's configuration away, or gives back what was taken, and notifies. An empty
/// profile means the one that the router's settings list first.
struct RemoveProfile {
  std::string router{};
  std::string profile{};
  friend bool operator==(const RemoveProfile&, const RemoveProfile&) = default;
};
struct RestoreProfile {
  std::string router{};
  std::string profile{};
  friend bool operator==(const RestoreProfile&, const RestoreProfile&) = default;
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
  friend bool operator==(const ChangeSa&, const ChangeSa&) = default;
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
  friend bool operator==(const CorruptRecord&, const CorruptRecord&) = default;
};
/// Takes a router's record out of the directory of `at`, or of everyone.
struct WithdrawRecord {
  std::string router{};
  std::string at{};
  friend bool operator==(const WithdrawRecord&, const WithdrawRecord&) = default;
};
/// Delivers the record as the router last published it; ends a corruption.
struct RestoreRecord {
  std::string router{};
  std::string at{};
  friend bool operator==(const RestoreRecord&, const RestoreRecord&) = default;
};
/// Disturbs the way of the records from the controllers to a router, until `SettleDelivery`. Shares
/// are of the deliveries, 0 to 1; absent: none. The directory keeps the newest record whatever
/// comes.
struct DisturbDelivery {
  std::string router{};             ///< Which receives.
  std::optional<double> repeat{};   ///< Come a second time.
  std::optional<double> reorder{};  ///< Are held up while others overtake them.
  std::optional<double> stale{};    ///< Are followed by the record that stood before.
  /// Each delivery waits for so long, and what is newer meanwhile goes in its place.
  std::optional<Duration> coalesce{};
  /// What is repeated, held up or stale comes up to so much later.
  Duration late = seconds(10);
  friend bool operator==(const DisturbDelivery&, const DisturbDelivery&) = default;
};
/// Ends it: the router gets the last record of every other.
struct SettleDelivery {
  std::string router{};
  friend bool operator==(const SettleDelivery&, const SettleDelivery&) = default;
};
/// The next `times` generations of a nonce or a DH key at a router fail.
struct FailGeneration {
  enum class What { nonce, dhKey };
  std::string router{};
  What what = What::nonce;
  uint32_t times = 1;
  friend bool operator==(const FailGeneration&, const FailGeneration&) = default;
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
  friend bool operator==(const FailInstallation&, const FailInstallation&) = default;
};
/// What was withheld stays so; later SAs are installed as usual.
struct RestoreInstallation {
  std::string path{};
  std::string router{};
  friend bool operator==(const RestoreInstallation&, const RestoreInstallation&) = default;
};
/// SAs that are handed over at a router from now on are installed at random times, and in another
/// order, or not at all. `FailInstallation` applies besides.
struct DisturbInstallation {
  std::string router{};
  std::optional<Duration> delay{};  ///< From 0 up to this, instead of the install delay.
  std::optional<double> fail{};     ///< Share that is refused, 0 to 1.
  friend bool operator==(const DisturbInstallation&, const DisturbInstallation&) = default;
};
/// Later SAs are installed as usual.
struct SettleInstallation {
  std::string router{};
  friend bool operator==(const SettleInstallation&, const SettleInstallation&) = default;
};
/// The counters of a path and of its installed SAs start at 0 again in the counter table.
struct RestartCounters {
  std::string path{};
  std::string router{};
  friend bool operator==(const RestartCounters&, const RestartCounters&) = default;
};
/// Test knob: every path of the router counts as active.
struct ForcePathActive {
  std::string router{};
  bool on = true;
  friend bool operator==(const ForcePathActive&, const ForcePathActive&) = default;
};

using Action =
    std::variant<ForceSaRekey, StartTraffic, StopTraffic, SetProbes, CutLink, RestoreLink,
                 ChangeLink, ClearPath, ChangeInstallDelay, SetPath, ChangeMergeData,
                 SetConnectionStatus, LoseControllers, RestoreControllers, ChangeControllerDelay,
                 ForceDhRekey, SetDhExpiry, ChangeKeyController, RestartRouter, RemoveRouter,
                 AddRouter, PauseRouter, ResumeRouter, RemovePath, AddPath, ChangeRouterId,
                 ChangeProfile, RemoveProfile, RestoreProfile, ChangeSa, CorruptRecord,
                 WithdrawRecord, RestoreRecord, FailGeneration, FailInstallation,
                 RestoreInstallation, ForcePathActive, DisturbDelivery, SettleDelivery,
                 DisturbInstallation, SettleInstallation, RestartCounters>;

}  // namespace tessel::lab
