#include "lab/run/Mutants.h"

#include "lab/run/Lab.h"
#include "sm/LocalKey.h"

namespace tessel::lab {
namespace {

constexpr uint32_t kAllLogs = 100'000;

void tamper(const Router& router, Mutant mutant) {
  RouterEntities& entities = router.entities();
  const Ptr<Ike::VrfStatus>& vrf = entities.ipsecStatus->vrfStatus(L3::kDefaultVrfName);
  switch (mutant) {
    case Mutant::keepsGeneration:
      router.machine().localKey().localKeyInfoIs(0);
      return;
    case Mutant::losesEvent:
      for (const auto& [path, log] : entities.recordEvents->pathEvents()) {
        log->eventCountInc(1);
        return;
      }
      return;
    case Mutant::losesLimits:
      for (const auto& [key, limits] : vrf->lifetimeCfg()) {
        vrf->lifetimeCfgDel(key);
        return;
      }
      return;
    case Mutant::keepsLogs:
      entities.recordEvents->maxGoneSaLogsIs(kAllLogs);
      return;
    case Mutant::putsOffExpiry:
      for (const auto& [peer, state] : entities.ipsecStatus->ipsecPeerConnectionState()) {
        for (const auto& [key, path] : state->pathConnState()) {
          path->sanityCheckIs()->resetExpiryTime();
        }
      }
      return;
    case Mutant::changesKey:
      for (const auto& [key, sa] : entities.tesselV1->sa()) {
        if (sa->saType() == SaType::steadyIn) {
          Bytes other(sa->cryptoKey().view().begin(), sa->cryptoKey().view().end());
          other[0] ^= 1U;
          sa->cryptoKeyIs(SecretBytes(other));
          return;
        }
      }
      return;
    default:
      return;
  }
}

}  // namespace

void startMutant(Lab& lab) {
  const Mutant mutant = lab.scenario().mutant;
  if (mutant < Mutant::keepsGeneration || mutant > Mutant::changesKey) {
    return;
  }
  lab.at(lab.now() + seconds(10), [&lab, mutant] {
    for (const std::unique_ptr<Router>& router : lab.routers()) {
      if (router->up()) {
        tamper(*router, mutant);
      }
    }
    startMutant(lab);
  });
}

}  // namespace tessel::lab
