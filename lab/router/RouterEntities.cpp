#include "lab/router/RouterEntities.h"

namespace tessel::lab {

RouterEntities::RouterEntities(const Clock& clock, const RouterSettings& settings)
    : AgentEntities(clock) {
  timing->sanityExpiry = settings.sanityExpiry;
  timing->dhRekeyDelay = settings.dhRekeyDelay;
  recordEvents->maxEventRecordIs(settings.maxEventRecord);
  recordEvents->maxGoneSaLogsIs(settings.maxGoneSaLogs);
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
