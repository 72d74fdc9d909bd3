#include "lab/router/RouterEntities.h"

namespace tessel::lab {
namespace {

constexpr VrfId kDefaultVrf = 0;

Ptr<Ike::Timing> makeTiming(const Clock& clock, const RouterSettings& settings) {
  const Ptr<Ike::Timing> timing = makePtr<Ike::Timing>(clock);
  timing->sanityExpiry = settings.sanityExpiry;
  timing->dhRekeyDelay = settings.dhRekeyDelay;
  return timing;
}

}  // namespace

RouterEntities::RouterEntities(const Clock& clock, const RouterSettings& settings)
    : timing(makeTiming(clock, settings)),
      ipsecConfig(makePtr<Ike::Config>()),
      ipsecStatus(makePtr<Ike::Status>(timing)),
      ipsecDpsPathConfig(makePtr<Path::PathConnConfig>()),
      ipsecPathStatusDir(makePtr<Path::PathStatusDir>()),
      ipsecLocalKeyDir(makePtr<Controller::LocalKeyDir>()),
      ipsecPeerKeyDir(makePtr<Controller::PeerKeyDir>()),
      controllerStatus(makePtr<Controller::Status>()),
      profileNotificationList(makePtr<ProfileNotificationList>()),
      ipsecCounterTable(makePtr<IpsecCounters::IpsecCounterTable>()),
      encapIdHelper(makePtr<EncapIdHelper>()),
      mergeData(makePtr<MergeData>()),
      vrfIdStatus(makePtr<Vrf::VrfIdMap::Status>()),
      vrfNameStatus(makePtr<Vrf::VrfIdMap::NameToIdMap>()),
      recordEvents(makePtr<RecordEvents>()),
      tesselV1(makePtr<IpsecCommon::TesselV1>()) {
  vrfIdStatus->idToNameIs(kDefaultVrf, L3::kDefaultVrfName);
  vrfNameStatus->nameToIdIs(L3::kDefaultVrfName, kDefaultVrf);
  ipsecStatus->vrfStatusIs("default");
  recordEvents->maxEventRecordIs(settings.maxEventRecord);
  recordEvents->maxGoneSaLogsIs(settings.maxGoneSaLogs);
  recordEvents->follow(tesselV1);
}

void writeProfile(Ike::Config& config, const ProfileSettings& profile) {
  const SaSettings& sa = profile.sa;
  const Ptr<Ike::SecurityAssociationConfig> saConfig = config.securityAssocIs(profile.name);
  saConfig->encryptAlgoIs(sa.encryption);
  saConfig->integrityAlgoIs(sa.integrity);
  saConfig->lifetimeIs(sa.lifetime);
  saConfig->packetLimitIs(sa.packetLimit);
  saConfig->byteLimitIs(sa.byteLimit);
  for (const CryptoSuitePlan& suite : sa.suites) {
    // Suites are named in one space; those of two profiles must not meet there.
    const std::string name = profile.name + "/" + suite.name;
    const Ptr<Ike::SaCryptoSuiteConfig> suiteConfig = config.saCryptoSuiteConfigIs(name);
    suiteConfig->encryptAlgoIs(suite.encryption);
    suiteConfig->integrityAlgoIs(suite.integrity);
    saConfig->cryptoSuiteIs(suite.preference, name);
  }

  const Ptr<Ike::IpsecProfileConfig> profileConfig = config.ipsecProfileIs(profile.name);
  profileConfig->modeIs(profile.mode);
  profileConfig->securityAssocNameIs(profile.name);
  profileConfig->flowEncapIs(profile.flowEncap);
  profileConfig->encapSrcPortRangeIs(profile.sourcePorts);
}

void notifyProfile(RouterEntities& entities, const std::string& profile) {
  entities.profileNotificationList->notificationIs(profile)->changeCntInc(1);
}

}  // namespace tessel::lab
