#include "lab/check/AtRest.h"

#include <fmt/format.h>

#include "lab/run/Lab.h"
#include "sm/DhRekey.h"
#include "sm/LocalKey.h"
#include "sm/PeerKeys.h"

namespace tessel::lab {
namespace {

/// The generations that a path of `router` to `peer` should use: the published ones.
DhKeyPair publishedPair(const Router& router, const Router& peer) {
  return {.localRekeyCount = router.entities().ipsecLocalKeyDir->rekeyCounter(),
          .peerRekeyCount = peer.entities().ipsecLocalKeyDir->rekeyCounter()};
}

std::string whyNotAtRest(const Router& router, const RouterPath& path, const Router& peer) {
  const PathView here = router.pathView(path.end.name);
  if (!path.wanted()) {
    return here.exists() ? "is still there" : "";
  }
  if (here.state() != DynamicPathState::active) {
    return "is " + stringValue(here.state());
  }
  if (here.saSmState() != SmState::idle) {
    return "is in an SA rekey, " + stringValue(here.saSmState());
  }
  const auto in = here.sas(SaType::steadyIn);
  const auto out = peer.pathView(path.end.name).sas(SaType::steadyOut);
  if (here.sas().size() != 2 || in.size() != 1 || out.size() != 1) {
    return fmt::format("has {} SAs", here.sas().size());
  }
  if (in[0]->sakey().spi != out[0]->sakey().spi || in[0]->cryptoKey() != out[0]->cryptoKey() ||
      in[0]->authKey() != out[0]->authKey()) {
    return "receives with another SA than its peer sends with";
  }
  const DhKeyPair pair = here.dhKeyPair();
  const DhKeyPair newest = publishedPair(router, peer);
  if (pair != newest) {
    return fmt::format("is on generations {}/{} instead of {}/{}", pair.localRekeyCount,
                       pair.peerRekeyCount, newest.localRekeyCount, newest.peerRekeyCount);
  }
  return {};
}

}  // namespace

std::string whyNotAtRest(const Lab& lab, const PathPlan& path) {
  for (const int end : {0, 1}) {
    const Router& router = lab.router(path.ends[end].router);
    const Router& peer = lab.router(path.ends[1 - end].router);
    if (!router.up() || !peer.up()) {
      return (router.up() ? peer : router).name() + " is down";
    }
    const std::string why = whyNotAtRest(router, *router.path(path.name), peer);
    if (!why.empty()) {
      return fmt::format("path {} at {} {}", path.name, router.name(), why);
    }
  }
  return {};
}

std::string whyNotAtRest(const Router& router) {
  if (!router.up()) {
    return router.name() + " is down";
  }
  const DhRekeyState state = router.machine().dhRekey().dhRekeyState();
  if (state != DhRekeyState::notRekeying) {
    return fmt::format("{} is in a DH rekey, {}", router.name(), stringValue(state));
  }
  const size_t generations = router.machine().localKey().localKeyInfo().size();
  if (generations != 1) {
    return fmt::format("{} holds {} generations of its key", router.name(), generations);
  }
  for (const auto& [peer, connection] : router.entities().ipsecStatus->ipsecPeerConnectionState()) {
    // The generation before is kept as well.
    const Ptr<TesselPeerKeyInfoList> list = router.machine().peerKeys().localPeerKeyInfoList(peer);
    const size_t theirs = list ? list->peerKeyInfo().size() : 0;
    if (theirs > 2 || connection->dhCryptoInfo().size() > 4) {
      return fmt::format("{} holds {} generations of {} and {} crypto records", router.name(),
                         theirs, peer.stringValue(), connection->dhCryptoInfo().size());
    }
  }
  return {};
}

bool rolesAreSplit(const Lab& lab, const PathPlan& path) {
  const Router& first = lab.router(path.ends[0].router);
  const Router& second = lab.router(path.ends[1].router);
  if (!first.up() || !second.up()) {
    return false;
  }
  const auto here = first.peer(second);
  const auto there = second.peer(first);
  return here && there && here->initiator() == there->initiator();
}

}  // namespace tessel::lab
