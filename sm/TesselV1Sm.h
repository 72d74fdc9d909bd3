// TesselV1Sm: the key-management and SA engine of a router's IPsec agent.
//
// One event-driven machine on one cooperative scheduler: it is told of changes of the host's
// entities, it fires its own timers and tasks, and it writes what it decides back into entities.
// This file is the frame: inputs, construction and teardown, the routing of changes, the work
// queues and timers. What is done about a change stands in the subsystem that the routing names.
#pragma once

#include <cstdint>
#include <memory>

#include "host/agent/AgentEntities.h"
#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/AgentTables.h"
#include "host/model/Controller.h"
#include "host/model/Counters.h"
#include "host/model/Events.h"
#include "host/model/IkeConfig.h"
#include "host/model/IkeStatus.h"
#include "host/model/Path.h"
#include "host/model/Vrf.h"
#include "host/runtime/TaskScheduler.h"
#include "sm/NestedReactors.h"
#include "sm/WorkQueue.h"

namespace tessel::Ipsec {

class CryptoParams;
class DhRekey;
class EventRecorder;
class KeyDerivation;
class LocalKey;
class PathHealth;
class Paths;
class PeerKeys;
class PeerRecovery;
class PeriodicLog;
class SaRekey;
class SecurityAssociations;

/// The machine. Made by `tesselV1SmFactory`; the agent holds the only long-lived handle, and the
/// machine is gone when that is released, which must not happen inside one of its own handlers.
///
/// Everything runs on the scheduler's thread. An input that is absent (null) is not subscribed to;
/// `scheduler`, `ipsecConfig`, `ipsecStatus`, `ipsecDpsPathConfig`, `ipsecPathStatusDir`,
/// `ipsecLocalKeyDir`, `ipsecPeerKeyDir`, `recordEvents` and `tesselV1` must be present: the
/// factory throws NullArgument otherwise.
class TESSEL_API TesselV1Sm final : public RefCounted {
 public:
  /// Builds the machine and switches its notifications on; it is initialized on return.
  static Ptr<TesselV1Sm> TesselV1SmIs(
      Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig,
      Ptr<Ike::Status> ipsecStatus, Ptr<const Path::PathConnConfig> ipsecDpsPathConfig,
      Ptr<Path::PathStatusDir> ipsecPathStatusDir, Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
      Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
      Ptr<const Controller::Status> controllerStatus,
      Ptr<const ProfileNotificationList> profileNotificationList,
      Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable, Ptr<EncapIdHelper> encapIdHelper,
      Ptr<MergeData> mergeData, Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
      Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus, Ptr<RecordEvents> recordEvents,
      Ptr<IpsecCommon::TesselV1> tesselV1);

  /// The inputs.
  const Ptr<TaskScheduler>& scheduler() const { return scheduler_; }
  const Ptr<const Ike::Config>& ipsecConfig() const { return ipsecConfig_; }
  const Ptr<Ike::Status>& ipsecStatus() const { return ipsecStatus_; }
  const Ptr<const Path::PathConnConfig>& ipsecDpsPathConfig() const { return ipsecDpsPathConfig_; }
  const Ptr<Path::PathStatusDir>& ipsecPathStatusDir() const { return ipsecPathStatusDir_; }
  const Ptr<Controller::LocalKeyDir>& ipsecLocalKeyDir() const { return ipsecLocalKeyDir_; }
  const Ptr<const Controller::PeerKeyDir>& ipsecPeerKeyDir() const { return ipsecPeerKeyDir_; }
  const Ptr<const Controller::Status>& controllerStatus() const { return controllerStatus_; }
  const Ptr<const ProfileNotificationList>& profileNotificationList() const {
    return profileNotificationList_;
  }
  const Ptr<IpsecCounters::IpsecCounterTable>& ipsecCounterTable() const {
    return ipsecCounterTable_;
  }
  const Ptr<EncapIdHelper>& encapIdHelper() const { return encapIdHelper_; }
  const Ptr<MergeData>& mergeData() const { return mergeData_; }
  const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus() const { return vrfIdStatus_; }
  const Ptr<const Vrf::VrfIdMap::NameToIdMap>& vrfNameStatus() const { return vrfNameStatus_; }
  const Ptr<RecordEvents>& recordEvents() const { return recordEvents_; }
  const Ptr<IpsecCommon::TesselV1>& tesselV1() const { return tesselV1_; }

  /// Times of the host's clock.
  Duration monotonicTime() const { return scheduler_->clock().monotonicTime(); }
  Duration utcTime() const { return scheduler_->clock().utcTime(); }

  bool initialized() const { return initialized_; }

  /// Periods and delays.
  Duration updateRekeyInterval() const { return updateRekeyInterval_; }
  Duration saRekeyInterval() const { return saRekeyInterval_; }
  Duration dhRekeyInterval() const { return dhRekeyInterval_; }
  Duration sanityInterval() const { return sanityInterval_; }
  Duration logInterval() const { return logInterval_; }

  /// Counters, only ever incremented.
  uint32_t peerKeyTaskNewKey() const { return peerKeyTaskNewKey_; }
  uint32_t peerKeyTaskDelKey() const { return peerKeyTaskDelKey_; }
  uint32_t peerKeyTaskRekey() const { return peerKeyTaskRekey_; }
  uint32_t peerKeyTaskNewKeyWithDel() const { return peerKeyTaskNewKeyWithDel_; }
  uint32_t peerKeyTaskNoOp() const { return peerKeyTaskNoOp_; }
  uint32_t pathAddCnt() const { return pathAddCnt_; }
  uint32_t pathDelCnt() const { return pathDelCnt_; }
  uint32_t connChangeCnt() const { return 0; }  // Nothing in this machine changes it.
  uint32_t lostConnectionToPfs() const { return lostConnectionToPfs_; }
  uint32_t restoredConnectionToPfs() const { return restoredConnectionToPfs_; }
  void peerKeyTaskNewKeyInc(uint32_t n) { peerKeyTaskNewKey_ += n; }
  void peerKeyTaskDelKeyInc(uint32_t n) { peerKeyTaskDelKey_ += n; }
  void peerKeyTaskRekeyInc(uint32_t n) { peerKeyTaskRekey_ += n; }
  void peerKeyTaskNewKeyWithDelInc(uint32_t n) { peerKeyTaskNewKeyWithDel_ += n; }
  void peerKeyTaskNoOpInc(uint32_t n) { peerKeyTaskNoOp_ += n; }
  void pathAddCntInc(uint32_t n) { pathAddCnt_ += n; }
  void pathDelCntInc(uint32_t n) { pathDelCnt_ += n; }
  void lostConnectionToPfsInc(uint32_t n) { lostConnectionToPfs_ += n; }
  void restoredConnectionToPfsInc(uint32_t n) { restoredConnectionToPfs_ += n; }

  /// Forced SPIs for tests: replace the derived ones when not 0.
  uint32_t testKnobForceSpiInitiatorValue() const { return testKnobForceSpiInitiatorValue_; }
  uint32_t testKnobForceSpiResponderValue() const { return testKnobForceSpiResponderValue_; }
  void testKnobForceSpiInitiatorValueIs(uint32_t spi) { testKnobForceSpiInitiatorValue_ = spi; }
  void testKnobForceSpiResponderValueIs(uint32_t spi) { testKnobForceSpiResponderValue_ = spi; }

  /// Keeps the configuration helper that was built from exactly these inputs, or builds one.
  const Ptr<ConfHelper>& confHelperIs(const Ptr<const Ike::Config>& config,
                                      const Ptr<Ike::Status>& status,
                                      const Ptr<const Capabilities::Status>& capabilitiesStatus,
                                      const Ptr<const Ike::ConnectionTable>& connectionTable,
                                      const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus,
                                      const Ptr<const MergeData>& mergeData,
                                      const Ptr<const PkiLocalStatus>& pkiLocalStatus,
                                      const Ptr<const EncapIdHelper>& encapIdHelper);
  void confHelperDel() { confHelper_ = nullptr; }
  const Ptr<ConfHelper>& confHelper() const { return confHelper_; }

  /// Switches all of the machine's subscriptions on or off together: inputs, timers, tasks, nested
  /// reactors and every RekeySm.
  void hasNotificationActiveIs(bool active);
  bool hasNotificationActive() const { return notificationActive_; }

  /// Applies the settings that stand in the inputs already, makes the local key if it may exist,
  /// and starts the timers. Called once, by the factory.
  void handleInitialized();
  /// The key-controller settings changed: a new local key, or none.
  void handleKeyController();

  /// Nested reactors. Each keeps the one that already holds the same member; a null member throws
  /// NullArgument.
  void clearCliPathIs(const Ptr<Ike::ClearPathCounter>& counter);
  void clearCliPathDel(const ConnectionKey& connectionKey);
  const KeyedCollection<ConnectionKey, Ptr<NestedSm_ClearCliPath>>& clearCliPath() const {
    return clearCliPath_;
  }
  const KeyedCollection<std::string, Ptr<NestedSm_ProfileNotification>>& profileNotification()
      const {
    return profileNotification_;
  }
  const KeyedCollection<MergeResolutionKey, Ptr<NestedSm_PathConnectionInfo>>& pathConnectionInfo()
      const {
    return pathConnectionInfo_;
  }
  void clearCliPathDelAll() { clearCliPath_.clear(); }
  void profileNotificationIs(const Ptr<ProfileNotification>& notification);
  void profileNotificationDel(const std::string& profileName);
  void profileNotificationDelAll() { profileNotification_.clear(); }
  void pathConnectionInfoIs(const Ptr<MergeConnectionInfo>& info);
  void pathConnectionInfoDel(const MergeResolutionKey& key);
  void pathConnectionInfoDelAll() { pathConnectionInfo_.clear(); }

  /// Work queues. Adding a key does not schedule the task; whoever adds does that.
  void peerKeyBacklogIs(const IpGenAddr& peer) { peerKeyBacklog_.add(peer); }
  void pathBacklogIs(const ConnectionKey& key) { pathBacklog_.add(key); }
  void saBacklogIs(const SecurityAssociationKey& key) { saBacklog_.add(key); }
  void dhRekeyBacklogIs(const IpGenAddr& peer) { dhRekeyBacklog_.add(peer); }
  void peerKeyBacklogDel(const IpGenAddr& peer) { peerKeyBacklog_.del(peer); }
  void pathBacklogDel(const ConnectionKey& key) { pathBacklog_.del(key); }
  void saBacklogDel(const SecurityAssociationKey& key) { saBacklog_.del(key); }
  void dhRekeyBacklogDel(const IpGenAddr& peer) { dhRekeyBacklog_.del(peer); }
  void peerKeyBacklogDelAll() { peerKeyBacklog_.delAll(); }
  void pathBacklogDelAll() { pathBacklog_.delAll(); }
  void saBacklogDelAll() { saBacklog_.delAll(); }
  void dhRekeyBacklogDelAll() { dhRekeyBacklog_.delAll(); }
  bool peerKeyBacklogHas(const IpGenAddr& peer) const { return peerKeyBacklog_.has(peer); }
  bool pathBacklogHas(const ConnectionKey& key) const { return pathBacklog_.has(key); }
  bool saBacklogHas(const SecurityAssociationKey& key) const { return saBacklog_.has(key); }
  bool dhRekeyBacklogHas(const IpGenAddr& peer) const { return dhRekeyBacklog_.has(peer); }
  const std::optional<IpGenAddr>& peerKeyBookmark() const { return peerKeyBacklog_.bookmark(); }
  const std::optional<ConnectionKey>& pathBookmark() const { return pathBacklog_.bookmark(); }
  const std::optional<SecurityAssociationKey>& saBookmark() const { return saBacklog_.bookmark(); }
  const std::optional<IpGenAddr>& dhRekeyBookmark() const { return dhRekeyBacklog_.bookmark(); }
  WorkQueue<IpGenAddr>& peerKeyBacklog() { return peerKeyBacklog_; }
  WorkQueue<ConnectionKey>& pathBacklog() { return pathBacklog_; }
  WorkQueue<SecurityAssociationKey>& saBacklog() { return saBacklog_; }
  WorkQueue<IpGenAddr>& dhRekeyBacklog() { return dhRekeyBacklog_; }

  /// All of the machine's tasks and timers have the same priority.
  static constexpr int kTaskPriority = 3;
  /// Tasks and timers: made, or kept when the scheduler and the name are the same.
  const Ptr<Task>& peerKeyTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                 const char* name);
  const Ptr<Task>& pathTaskIs(const Ptr<TaskScheduler>& scheduler, int priority, const char* name);
  const Ptr<Task>& saTaskIs(const Ptr<TaskScheduler>& scheduler, int priority, const char* name);
  const Ptr<Task>& dhRekeyTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                 const char* name);
  const Ptr<TimerTask>& sanityTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                      const char* name);
  const Ptr<TimerTask>& logTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                   const char* name);
  const Ptr<TimerTask>& holdTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                    const char* name);
  const Ptr<TimerTask>& dhRekeyTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                       const char* name);
  const Ptr<TimerTask>& saRekeyTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                       const char* name);
  const Ptr<TimerTask>& updateRekeyTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                           const char* name);
  void peerKeyTaskDel() { jobDel(peerKeyTask_); }
  void pathTaskDel() { jobDel(pathTask_); }
  void saTaskDel() { jobDel(saTask_); }
  void dhRekeyTaskDel() { jobDel(dhRekeyTask_); }
  void sanityTimerDel() { jobDel(sanityTimer_); }
  void logTimerDel() { jobDel(logTimer_); }
  void holdTimerDel() { jobDel(holdTimer_); }
  void dhRekeyTimerDel() { jobDel(dhRekeyTimer_); }
  void saRekeyTimerDel() { jobDel(saRekeyTimer_); }
  void updateRekeyTimerDel() { jobDel(updateRekeyTimer_); }
  const Ptr<Task>& peerKeyTask() const { return peerKeyTask_; }
  const Ptr<Task>& pathTask() const { return pathTask_; }
  const Ptr<Task>& saTask() const { return saTask_; }
  const Ptr<Task>& dhRekeyTask() const { return dhRekeyTask_; }
  const Ptr<TimerTask>& sanityTimer() const { return sanityTimer_; }
  const Ptr<TimerTask>& logTimer() const { return logTimer_; }
  const Ptr<TimerTask>& holdTimer() const { return holdTimer_; }
  const Ptr<TimerTask>& dhRekeyTimer() const { return dhRekeyTimer_; }
  const Ptr<TimerTask>& saRekeyTimer() const { return saRekeyTimer_; }
  const Ptr<TimerTask>& updateRekeyTimer() const { return updateRekeyTimer_; }

  /// The subsystems.
  LocalKey& localKey() const { return *localKey_; }
  PeerKeys& peerKeys() const { return *peerKeys_; }
  PeerRecovery& peerRecovery() const { return *peerRecovery_; }
  CryptoParams& cryptoParams() const { return *cryptoParams_; }
  KeyDerivation& keyDerivation() const { return *keyDerivation_; }
  Paths& paths() const { return *paths_; }
  PathHealth& pathHealth() const { return *pathHealth_; }
  SecurityAssociations& securityAssociations() const { return *securityAssociations_; }
  DhRekey& dhRekey() const { return *dhRekey_; }
  SaRekey& saRekey() const { return *saRekey_; }
  PeriodicLog& periodicLog() const { return *periodicLog_; }
  EventRecorder& events() const { return *eventRecorder_; }

 private:
  TesselV1Sm(Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig,
             Ptr<Ike::Status> ipsecStatus, Ptr<const Path::PathConnConfig> ipsecDpsPathConfig,
             Ptr<Path::PathStatusDir> ipsecPathStatusDir,
             Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
             Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
             Ptr<const Controller::Status> controllerStatus,
             Ptr<const ProfileNotificationList> profileNotificationList,
             Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable,
             Ptr<EncapIdHelper> encapIdHelper, Ptr<MergeData> mergeData,
             Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
             Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus, Ptr<RecordEvents> recordEvents,
             Ptr<IpsecCommon::TesselV1> tesselV1);
  ~TesselV1Sm() override;

  void subscribe();
  void ipsecConfigDispatch(const Change& change);
  void ipsecStatusDispatch(const Change& change);
  void ipsecDpsPathConfigDispatch(const Change& change);
  void ipsecPeerKeyDirDispatch(const Change& change);
  void controllerStatusDispatch(const Change& change);
  void profileNotificationListDispatch(const Change& change);
  void pathMergeDataDispatch(const Change& change);

  void doPeerKeyTask();
  void doPathTask();
  void doSaTask();
  void doDhRekeyTask();
  void handleSanityTimer();

  template <class JobType>
  const Ptr<JobType>& jobIs(Ptr<JobType>& job, const Ptr<TaskScheduler>& scheduler, int priority,
                            const char* name, void (*handler)(TesselV1Sm&));
  template <class JobType>
  static void jobDel(Ptr<JobType>& job);

  Ptr<TaskScheduler> scheduler_;
  Ptr<const Ike::Config> ipsecConfig_;
  Ptr<Ike::Status> ipsecStatus_;
  Ptr<const Path::PathConnConfig> ipsecDpsPathConfig_;
  Ptr<Path::PathStatusDir> ipsecPathStatusDir_;
  Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir_;
  Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir_;
  Ptr<const Controller::Status> controllerStatus_;
  Ptr<const ProfileNotificationList> profileNotificationList_;
  Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable_;
  Ptr<EncapIdHelper> encapIdHelper_;
  Ptr<MergeData> mergeData_;
  Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus_;
  Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus_;
  Ptr<RecordEvents> recordEvents_;
  Ptr<IpsecCommon::TesselV1> tesselV1_;

  Ptr<ConfHelper> confHelper_;
  bool initialized_ = false;
  bool notificationActive_ = false;
  Duration updateRekeyInterval_ = seconds(1);
  Duration saRekeyInterval_ = seconds(5);
  Duration dhRekeyInterval_ = seconds(60);
  Duration sanityInterval_ = seconds(60);
  Duration logInterval_ = seconds(60);

  uint32_t peerKeyTaskNewKey_ = 0;
  uint32_t peerKeyTaskDelKey_ = 0;
  uint32_t peerKeyTaskRekey_ = 0;
  uint32_t peerKeyTaskNewKeyWithDel_ = 0;
  uint32_t peerKeyTaskNoOp_ = 0;
  uint32_t pathAddCnt_ = 0;
  uint32_t pathDelCnt_ = 0;
  uint32_t lostConnectionToPfs_ = 0;
  uint32_t restoredConnectionToPfs_ = 0;
  uint32_t testKnobForceSpiInitiatorValue_ = 0;
  uint32_t testKnobForceSpiResponderValue_ = 0;

  std::unique_ptr<EventRecorder> eventRecorder_;
  std::unique_ptr<LocalKey> localKey_;
  std::unique_ptr<PeerKeys> peerKeys_;
  std::unique_ptr<PeerRecovery> peerRecovery_;
  std::unique_ptr<CryptoParams> cryptoParams_;
  std::unique_ptr<KeyDerivation> keyDerivation_;
  std::unique_ptr<Paths> paths_;
  std::unique_ptr<PathHealth> pathHealth_;
  std::unique_ptr<SecurityAssociations> securityAssociations_;
  std::unique_ptr<DhRekey> dhRekey_;
  std::unique_ptr<SaRekey> saRekey_;
  std::unique_ptr<PeriodicLog> periodicLog_;

  WorkQueue<IpGenAddr> peerKeyBacklog_;
  WorkQueue<ConnectionKey> pathBacklog_;
  WorkQueue<SecurityAssociationKey> saBacklog_;
  WorkQueue<IpGenAddr> dhRekeyBacklog_;

  Ptr<Task> peerKeyTask_;
  Ptr<Task> pathTask_;
  Ptr<Task> saTask_;
  Ptr<Task> dhRekeyTask_;
  Ptr<TimerTask> updateRekeyTimer_;
  Ptr<TimerTask> saRekeyTimer_;
  Ptr<TimerTask> dhRekeyTimer_;
  Ptr<TimerTask> sanityTimer_;
  Ptr<TimerTask> logTimer_;
  Ptr<TimerTask> holdTimer_;

  KeyedCollection<ConnectionKey, Ptr<NestedSm_ClearCliPath>> clearCliPath_;
  KeyedCollection<std::string, Ptr<NestedSm_ProfileNotification>> profileNotification_;
  KeyedCollection<MergeResolutionKey, Ptr<NestedSm_PathConnectionInfo>> pathConnectionInfo_;

  Subscription ipsecConfigSubscription_;
  Subscription ipsecStatusSubscription_;
  Subscription ipsecDpsPathConfigSubscription_;
  Subscription ipsecPeerKeyDirSubscription_;
  Subscription controllerStatusSubscription_;
  Subscription profileNotificationListSubscription_;
  Subscription mergeDataSubscription_;
};

/// How an agent creates the machine.
TESSEL_API Ptr<TesselV1Sm> tesselV1SmFactory(
    Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig, Ptr<Ike::Status> ipsecStatus,
    Ptr<const Path::PathConnConfig> ipsecDpsPathConfig, Ptr<Path::PathStatusDir> ipsecPathStatusDir,
    Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
    Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
    Ptr<const Controller::Status> controllerStatus,
    Ptr<const ProfileNotificationList> profileNotificationList,
    Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable, Ptr<EncapIdHelper> encapIdHelper,
    Ptr<MergeData> mergeData, Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus, Ptr<RecordEvents> recordEvents,
    Ptr<IpsecCommon::TesselV1> tesselV1);

/// The same from a whole set of inputs.
TESSEL_API Ptr<TesselV1Sm> tesselV1SmFactory(Ptr<TaskScheduler> scheduler,
                                             const AgentEntities& entities);

}  // namespace tessel::Ipsec
