#include "sm/TesselV1Sm.h"

#include "host/facility/Trace.h"
#include "sm/CryptoParams.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/PathHealth.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/PeerRecovery.h"
#include "sm/PeriodicLog.h"
#include "sm/SaRekey.h"
#include "sm/SecurityAssociations.h"

namespace tessel::Ipsec {

namespace {

template <class T>
void requirePresent(const Ptr<T>& input, const char* what) {
  if (!input) {
    throw NullArgument(what);
  }
}

}  // namespace

Ptr<TesselV1Sm> tesselV1SmFactory(
    Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig, Ptr<Ike::Status> ipsecStatus,
    Ptr<const Path::PathConnConfig> ipsecDpsPathConfig, Ptr<Path::PathStatusDir> ipsecPathStatusDir,
    Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
    Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
    Ptr<const Controller::Status> controllerStatus,
    Ptr<const ProfileNotificationList> profileNotificationList,
    Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable, Ptr<EncapIdHelper> encapIdHelper,
    Ptr<MergeData> mergeData, Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus, Ptr<RecordEvents> recordEvents,
    Ptr<IpsecCommon::TesselV1> tesselV1) {
  return TesselV1Sm::TesselV1SmIs(
      std::move(scheduler), std::move(ipsecConfig), std::move(ipsecStatus),
      std::move(ipsecDpsPathConfig), std::move(ipsecPathStatusDir), std::move(ipsecLocalKeyDir),
      std::move(ipsecPeerKeyDir), std::move(controllerStatus), std::move(profileNotificationList),
      std::move(ipsecCounterTable), std::move(encapIdHelper), std::move(mergeData),
      std::move(vrfIdStatus), std::move(vrfNameStatus), std::move(recordEvents),
      std::move(tesselV1));
}

Ptr<TesselV1Sm> tesselV1SmFactory(Ptr<TaskScheduler> scheduler, const AgentEntities& entities) {
  return tesselV1SmFactory(
      std::move(scheduler), entities.ipsecConfig, entities.ipsecStatus, entities.ipsecDpsPathConfig,
      entities.ipsecPathStatusDir, entities.ipsecLocalKeyDir, entities.ipsecPeerKeyDir,
      entities.controllerStatus, entities.profileNotificationList, entities.ipsecCounterTable,
      entities.encapIdHelper, entities.mergeData, entities.vrfIdStatus, entities.vrfNameStatus,
      entities.recordEvents, entities.tesselV1);
}

Ptr<TesselV1Sm> TesselV1Sm::TesselV1SmIs(
    Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig, Ptr<Ike::Status> ipsecStatus,
    Ptr<const Path::PathConnConfig> ipsecDpsPathConfig, Ptr<Path::PathStatusDir> ipsecPathStatusDir,
    Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
    Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
    Ptr<const Controller::Status> controllerStatus,
    Ptr<const ProfileNotificationList> profileNotificationList,
    Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable, Ptr<EncapIdHelper> encapIdHelper,
    Ptr<MergeData> mergeData, Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
    Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus, Ptr<RecordEvents> recordEvents,
    Ptr<IpsecCommon::TesselV1> tesselV1) {
  requirePresent(scheduler, "scheduler is null");
  requirePresent(ipsecConfig, "ipsecConfig is null");
  requirePresent(ipsecStatus, "ipsecStatus is null");
  requirePresent(ipsecDpsPathConfig, "ipsecDpsPathConfig is null");
  requirePresent(ipsecPathStatusDir, "ipsecPathStatusDir is null");
  requirePresent(ipsecLocalKeyDir, "ipsecLocalKeyDir is null");
  requirePresent(ipsecPeerKeyDir, "ipsecPeerKeyDir is null");
  requirePresent(recordEvents, "recordEvents is null");
  requirePresent(tesselV1, "tesselV1 is null");
  Ptr<TesselV1Sm> sm(new TesselV1Sm(
      std::move(scheduler), std::move(ipsecConfig), std::move(ipsecStatus),
      std::move(ipsecDpsPathConfig), std::move(ipsecPathStatusDir), std::move(ipsecLocalKeyDir),
      std::move(ipsecPeerKeyDir), std::move(controllerStatus), std::move(profileNotificationList),
      std::move(ipsecCounterTable), std::move(encapIdHelper), std::move(mergeData),
      std::move(vrfIdStatus), std::move(vrfNameStatus), std::move(recordEvents),
      std::move(tesselV1)));
  sm->hasNotificationActiveIs(true);
  return sm;
}

TesselV1Sm::TesselV1Sm(Ptr<TaskScheduler> scheduler, Ptr<const Ike::Config> ipsecConfig,
                       Ptr<Ike::Status> ipsecStatus,
                       Ptr<const Path::PathConnConfig> ipsecDpsPathConfig,
                       Ptr<Path::PathStatusDir> ipsecPathStatusDir,
                       Ptr<Controller::LocalKeyDir> ipsecLocalKeyDir,
                       Ptr<const Controller::PeerKeyDir> ipsecPeerKeyDir,
                       Ptr<const Controller::Status> controllerStatus,
                       Ptr<const ProfileNotificationList> profileNotificationList,
                       Ptr<IpsecCounters::IpsecCounterTable> ipsecCounterTable,
                       Ptr<EncapIdHelper> encapIdHelper, Ptr<MergeData> mergeData,
                       Ptr<const Vrf::VrfIdMap::Status> vrfIdStatus,
                       Ptr<const Vrf::VrfIdMap::NameToIdMap> vrfNameStatus,
                       Ptr<RecordEvents> recordEvents, Ptr<IpsecCommon::TesselV1> tesselV1)
    : scheduler_(std::move(scheduler)),
      ipsecConfig_(std::move(ipsecConfig)),
      ipsecStatus_(std::move(ipsecStatus)),
      ipsecDpsPathConfig_(std::move(ipsecDpsPathConfig)),
      ipsecPathStatusDir_(std::move(ipsecPathStatusDir)),
      ipsecLocalKeyDir_(std::move(ipsecLocalKeyDir)),
      ipsecPeerKeyDir_(std::move(ipsecPeerKeyDir)),
      controllerStatus_(std::move(controllerStatus)),
      profileNotificationList_(std::move(profileNotificationList)),
      ipsecCounterTable_(std::move(ipsecCounterTable)),
      encapIdHelper_(std::move(encapIdHelper)),
      mergeData_(std::move(mergeData)),
      vrfIdStatus_(std::move(vrfIdStatus)),
      vrfNameStatus_(std::move(vrfNameStatus)),
      recordEvents_(std::move(recordEvents)),
      tesselV1_(std::move(tesselV1)),
      eventRecorder_(std::make_unique<EventRecorder>(*this)),
      localKey_(std::make_unique<LocalKey>(*this)),
      peerKeys_(std::make_unique<PeerKeys>(*this)),
      peerRecovery_(std::make_unique<PeerRecovery>(*this)),
      cryptoParams_(std::make_unique<CryptoParams>(*this)),
      keyDerivation_(std::make_unique<KeyDerivation>(*this)),
      paths_(std::make_unique<Paths>(*this)),
      pathHealth_(std::make_unique<PathHealth>(*this)),
      securityAssociations_(std::make_unique<SecurityAssociations>(*this)),
      dhRekey_(std::make_unique<DhRekey>(*this)),
      saRekey_(std::make_unique<SaRekey>(*this)),
      periodicLog_(std::make_unique<PeriodicLog>(*this)) {
  subscribe();
  for (const auto& [key, counter] : ipsecStatus_->clearKey()) {
    clearCliPathIs(counter);
  }
  if (profileNotificationList_) {
    for (const auto& [name, notification] : profileNotificationList_->notification()) {
      profileNotificationIs(notification);
    }
  }
  if (mergeData_) {
    for (const auto& [key, info] : mergeData_->connectionInfo()) {
      pathConnectionInfoIs(info);
    }
  }
  peerKeyTaskIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::peerKeyTask");
  pathTaskIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::pathTask");
  saTaskIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::saTask");
  dhRekeyTaskIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::dhRekeyTask");
  handleInitialized();
}

TesselV1Sm::~TesselV1Sm() {
  hasNotificationActiveIs(false);

  ipsecConfigSubscription_.end();
  ipsecStatusSubscription_.end();
  ipsecDpsPathConfigSubscription_.end();
  ipsecPeerKeyDirSubscription_.end();
  controllerStatusSubscription_.end();
  profileNotificationListSubscription_.end();
  mergeDataSubscription_.end();

  clearCliPathDelAll();
  profileNotificationDelAll();
  pathConnectionInfoDelAll();

  updateRekeyTimerDel();
  saRekeyTimerDel();
  dhRekeyTimerDel();
  sanityTimerDel();
  logTimerDel();
  holdTimerDel();

  peerKeyTaskDel();
  pathTaskDel();
  saTaskDel();
  dhRekeyTaskDel();
  // The collections and the inputs go with the members; nothing is written to the host's entities.
}

void TesselV1Sm::subscribe() {
  ipsecConfigSubscription_.attach<&TesselV1Sm::ipsecConfigDispatch>(*ipsecConfig_, *this);
  ipsecStatusSubscription_.attach<&TesselV1Sm::ipsecStatusDispatch>(*ipsecStatus_, *this);
  ipsecDpsPathConfigSubscription_.attach<&TesselV1Sm::ipsecDpsPathConfigDispatch>(
      *ipsecDpsPathConfig_, *this);
  ipsecPeerKeyDirSubscription_.attach<&TesselV1Sm::ipsecPeerKeyDirDispatch>(*ipsecPeerKeyDir_,
                                                                            *this);
  if (controllerStatus_) {
    controllerStatusSubscription_.attach<&TesselV1Sm::controllerStatusDispatch>(*controllerStatus_,
                                                                                *this);
  }
  if (profileNotificationList_) {
    profileNotificationListSubscription_.attach<&TesselV1Sm::profileNotificationListDispatch>(
        *profileNotificationList_, *this);
  }
  if (mergeData_) {
    mergeDataSubscription_.attach<&TesselV1Sm::pathMergeDataDispatch>(*mergeData_, *this);
  }
}

void TesselV1Sm::hasNotificationActiveIs(bool active) {
  notificationActive_ = active;
  paths_->rekeySmNotificationActiveIs(active);
}

void TesselV1Sm::handleInitialized() {
  TRACE("handleInitialized");
  ipsecStatus_->testKnobIs();
  confHelperIs(ipsecConfig_, ipsecStatus_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  localKey_->updateAppliedProfile();
  localKey_->updateRouterId();
  localKey_->generateOrDestroyDhKey();
  initialized_ = true;
  sanityTimerIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::sanityTimer")
      ->scheduleTaskDelay(sanityInterval_);
  logTimerIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::logTimer")
      ->scheduleTaskDelay(logInterval_);
  holdTimerIs(scheduler_, kTaskPriority, "Ipsec::TesselV1Sm::holdTimer")
      ->scheduleTaskDelay(Duration::never());
}

void TesselV1Sm::handleKeyController() {
  TRACE("handleKeyController");
  localKey_->updateAppliedProfile();
  localKey_->generateOrDestroyDhKey();
  dhRekey_->startOrStopHoldTimer();
  eventRecorder_->recordLocalEvent("handleKeyController", ipsecLocalKeyDir_->rekeyCounter());
}

const Ptr<ConfHelper>& TesselV1Sm::confHelperIs(
    const Ptr<const Ike::Config>& config, const Ptr<Ike::Status>& status,
    const Ptr<const Capabilities::Status>& capabilitiesStatus,
    const Ptr<const Ike::ConnectionTable>& connectionTable,
    const Ptr<const Vrf::VrfIdMap::Status>& vrfIdStatus, const Ptr<const MergeData>& mergeData,
    const Ptr<const PkiLocalStatus>& pkiLocalStatus,
    const Ptr<const EncapIdHelper>& encapIdHelper) {
  if (!confHelper_ ||
      !confHelper_->isBuiltFrom(config, status, capabilitiesStatus, connectionTable, vrfIdStatus,
                                mergeData, pkiLocalStatus, encapIdHelper)) {
    confHelper_ = makePtr<ConfHelper>(config, status, capabilitiesStatus, connectionTable,
                                      vrfIdStatus, mergeData, pkiLocalStatus, encapIdHelper);
  }
  return confHelper_;
}

// Routing of input changes. A member is followed if it is there when its change is heard of,
// whatever the change was: an earlier observer may have taken it away again, or put another in its
// place.

void TesselV1Sm::ipsecConfigDispatch(const Change& change) {
  if (notificationActive_ && change.is(Ike::Config::keyControllerName)) {
    handleKeyController();
  }
}

void TesselV1Sm::ipsecStatusDispatch(const Change& change) {
  if (!notificationActive_) {
    return;
  }
  if (const ConnectionKey* key = change.memberOf(Ike::Status::clearKeyName)) {
    if (const Ptr<Ike::ClearPathCounter> counter = ipsecStatus_->clearKey(*key)) {
      clearCliPathIs(counter);
    } else {
      clearCliPathDel(*key);
    }
  }
}

void TesselV1Sm::ipsecDpsPathConfigDispatch(const Change& change) {
  if (notificationActive_ && change.is(Path::PathConnConfig::routerIdName)) {
    localKey_->handleRouterId();
  }
}

void TesselV1Sm::ipsecPeerKeyDirDispatch(const Change& change) {
  if (!notificationActive_) {
    return;
  }
  if (const IpGenAddr* peer = change.memberOf(Controller::PeerKeyDir::ipsecPeerKeyInfoName)) {
    peerKeys_->handleIpsecPeerKeyInfo(*peer, true);
  }
}

void TesselV1Sm::controllerStatusDispatch(const Change& change) {
  if (notificationActive_ && change.is(Controller::Status::connectedName)) {
    dhRekey_->handleConnectionStatus();
  }
}

void TesselV1Sm::profileNotificationListDispatch(const Change& change) {
  if (!notificationActive_) {
    return;
  }
  if (const std::string* name = change.memberOf(ProfileNotificationList::notificationName)) {
    if (const Ptr<ProfileNotification> notification =
            profileNotificationList_->notification(*name)) {
      profileNotificationIs(notification);
    } else {
      profileNotificationDel(*name);
    }
  }
}

void TesselV1Sm::pathMergeDataDispatch(const Change& change) {
  if (!notificationActive_) {
    return;
  }
  if (const MergeResolutionKey* key = change.memberOf(MergeData::connectionInfoName)) {
    if (const Ptr<MergeConnectionInfo> info = mergeData_->connectionInfo(*key)) {
      pathConnectionInfoIs(info);
    } else {
      pathConnectionInfoDel(*key);
    }
  }
}

// Nested reactors.

namespace {

/// Puts a reactor for `member` under `key` unless the one there holds the same member. Returns the
/// new reactor, or null when the old one stays.
template <class Reactor, class Key, class Member>
Ptr<Reactor> reactorIs(TesselV1Sm& sm, KeyedCollection<Key, Ptr<Reactor>>& reactors, const Key& key,
                       const Ptr<Member>& member) {
  if (const Ptr<Reactor>* old = reactors.find(key); old != nullptr) {
    if ((*old)->notifier() == member) {
      return nullptr;
    }
    reactors.take(key);
  }
  Ptr<Reactor> made = makePtr<Reactor>(sm, member);
  reactors.emplace(key, made);
  return made;
}

}  // namespace

void TesselV1Sm::clearCliPathIs(const Ptr<Ike::ClearPathCounter>& counter) {
  if (!counter) {
    throw NullArgument("clear-path counter is null");
  }
  if (const auto made = reactorIs(*this, clearCliPath_, counter->connectionKey(), counter)) {
    made->handleAttached();
  }
}

void TesselV1Sm::clearCliPathDel(const ConnectionKey& connectionKey) {
  clearCliPath_.take(connectionKey);
}

void TesselV1Sm::profileNotificationIs(const Ptr<ProfileNotification>& notification) {
  if (!notification) {
    throw NullArgument("profile notification is null");
  }
  if (const auto made =
          reactorIs(*this, profileNotification_, notification->profileName(), notification)) {
    made->handleAttached();
  }
}

void TesselV1Sm::profileNotificationDel(const std::string& profileName) {
  profileNotification_.take(profileName);
}

void TesselV1Sm::pathConnectionInfoIs(const Ptr<MergeConnectionInfo>& info) {
  if (!info) {
    throw NullArgument("merged connection information is null");
  }
  reactorIs(*this, pathConnectionInfo_, info->key(), info);
}

void TesselV1Sm::pathConnectionInfoDel(const MergeResolutionKey& key) {
  pathConnectionInfo_.take(key);
}

// Tasks and timers.

void TesselV1Sm::doPeerKeyTask() {
  peerKeyBacklog_.drain(
      *peerKeyTask_, [this](const IpGenAddr& peer) { peerKeys_->peerKeyBacklogProcessElem(peer); });
}

void TesselV1Sm::doPathTask() {
  pathBacklog_.drain(*pathTask_,
                     [this](const ConnectionKey& key) { paths_->pathBacklogProcessElem(key); });
}

void TesselV1Sm::doSaTask() {
  saBacklog_.drain(
      *saTask_, [this](const SecurityAssociationKey& key) { saRekey_->saBacklogProcessElem(key); });
}

void TesselV1Sm::doDhRekeyTask() {
  dhRekeyBacklog_.drain(
      *dhRekeyTask_, [this](const IpGenAddr& peer) { dhRekey_->dhRekeyBacklogProcessElem(peer); });
}

void TesselV1Sm::handleSanityTimer() {
  TRACE("handleSanityTimer");
  if (!initialized_) {
    return;
  }
  pathHealth_->sanitizeAllPaths();
  peerRecovery_->recoverPeers();
  securityAssociations_->deleteOldCryptoInfos();
  sanityTimer_->scheduleTaskDelay(sanityInterval_);
}

template <class JobType>
const Ptr<JobType>& TesselV1Sm::jobIs(Ptr<JobType>& job, const Ptr<TaskScheduler>& scheduler,
                                      int priority, const char* name,
                                      void (*handler)(TesselV1Sm&)) {
  if (job && job->scheduler() == scheduler && job->name() == name) {
    job->priorityIs(priority);
    return job;
  }
  jobDel(job);
  job = makePtr<JobType>(scheduler, priority, name);
  job->handlerIs([this, handler] {
    if (notificationActive_) {
      handler(*this);
    }
  });
  return job;
}

template <class JobType>
void TesselV1Sm::jobDel(Ptr<JobType>& job) {
  if (job) {
    job->handlerDel();
    job = nullptr;
  }
}

const Ptr<Task>& TesselV1Sm::peerKeyTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                           const char* name) {
  return jobIs(peerKeyTask_, scheduler, priority, name, [](TesselV1Sm& sm) { sm.doPeerKeyTask(); });
}

const Ptr<Task>& TesselV1Sm::pathTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                        const char* name) {
  return jobIs(pathTask_, scheduler, priority, name, [](TesselV1Sm& sm) { sm.doPathTask(); });
}

const Ptr<Task>& TesselV1Sm::saTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                      const char* name) {
  return jobIs(saTask_, scheduler, priority, name, [](TesselV1Sm& sm) { sm.doSaTask(); });
}

const Ptr<Task>& TesselV1Sm::dhRekeyTaskIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                           const char* name) {
  return jobIs(dhRekeyTask_, scheduler, priority, name, [](TesselV1Sm& sm) { sm.doDhRekeyTask(); });
}

const Ptr<TimerTask>& TesselV1Sm::sanityTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                                const char* name) {
  return jobIs(sanityTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.handleSanityTimer(); });
}

const Ptr<TimerTask>& TesselV1Sm::logTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                             const char* name) {
  return jobIs(logTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.periodicLog_->handleLogTimer(); });
}

const Ptr<TimerTask>& TesselV1Sm::holdTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                              const char* name) {
  return jobIs(holdTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.dhRekey_->handleHoldTimer(); });
}

const Ptr<TimerTask>& TesselV1Sm::dhRekeyTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                                 const char* name) {
  return jobIs(dhRekeyTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.dhRekey_->handleDhRekeyTimer(); });
}

const Ptr<TimerTask>& TesselV1Sm::saRekeyTimerIs(const Ptr<TaskScheduler>& scheduler, int priority,
                                                 const char* name) {
  return jobIs(saRekeyTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.saRekey_->handleSaRekeyTimer(); });
}

const Ptr<TimerTask>& TesselV1Sm::updateRekeyTimerIs(const Ptr<TaskScheduler>& scheduler,
                                                     int priority, const char* name) {
  return jobIs(updateRekeyTimer_, scheduler, priority, name,
               [](TesselV1Sm& sm) { sm.saRekey_->handleUpdateRekeyTimer(); });
}

}  // namespace tessel::Ipsec
