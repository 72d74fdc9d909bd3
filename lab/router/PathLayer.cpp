#include "lab/router/PathLayer.h"

namespace tessel::lab {
namespace {

MergeResolutionKey mergeKey(const ConnectionKey& key) {
  return {.vrfId = key.vrfId, .srcAddr = key.srcAddr, .dstAddr = key.dstAddr};
}

ConnectionKeySource encapSource(const ConnectionKey& key) {
  return {.connectionKey = key, .connectionType = kDynamicPathConnection};
}

}  // namespace

void PathLayer::add(const PathEnd& end) {
  write(end);
  // The entry exists before its member is written: the machine watches entries for their members.
  entities_.mergeData->connectionInfoIs(mergeKey(end.key))
      ->connectionIs(end.key, {.version = ++lastVersion_});
}

void PathLayer::remove(const ConnectionKey& key) {
  if (!has(key)) {
    return;
  }
  entities_.ipsecDpsPathConfig->ipsecPathConfigDel(key);
  announce(key);
  if (mutant_ == Mutant::takesNeighbour && !entities_.tesselV1->sa().keys().empty()) {
    entities_.tesselV1->saDel(entities_.tesselV1->sa().keys().front());
  }
  const Ptr<MergeConnectionInfo> merged = entities_.mergeData->connectionInfo(mergeKey(key));
  if (merged->connection().size() == 1) {
    entities_.mergeData->connectionInfoDel(mergeKey(key));
  } else {
    merged->connectionDel(key);
  }
  entities_.ipsecPathStatusDir->ipsecPathStatusDel(key);
  entities_.ipsecStatus->ipsecConnectionStatusInfoDel(key);
  entities_.encapIdHelper->encapIdDel(encapSource(key));
}

void PathLayer::update(const PathEnd& end) {
  if (has(end.key)) {
    write(end);
  }
}

void PathLayer::announce(const ConnectionKey& key) {
  if (has(key)) {
    entities_.mergeData->connectionInfo(mergeKey(key))
        ->connectionIs(key, {.version = ++lastVersion_});
  }
}

bool PathLayer::has(const ConnectionKey& key) const {
  const Ptr<MergeConnectionInfo>& merged = entities_.mergeData->connectionInfo(mergeKey(key));
  return merged && merged->connectionHas(key);
}

void PathLayer::write(const PathEnd& end) {
  const PathCondition& condition = end.condition;
  entities_.ipsecDpsPathConfig->ipsecPathConfigIs(end.key, {.ipsecEnabled = condition.enabled});

  const Ptr<Path::PathStatus> status = entities_.ipsecPathStatusDir->ipsecPathStatusIs(end.key);
  status->remoteIpIs(end.peerAddr);
  status->establishAllowedIs(condition.allowed);
  status->stateIs(condition.up ? Path::UnderlayState::established : Path::UnderlayState::down);
  status->encapSrcPortIs(end.localPort);
  status->encapDstPortIs(end.remotePort);
  status->pathIndexIs(end.index);
  status->publicIpIs(end.publicAddr);
  status->pathNameIs(end.name);

  if (condition.connection) {
    entities_.ipsecStatus->ipsecConnectionStatusInfoIs(end.key)->connectionStateIs(
        static_cast<uint8_t>(*condition.connection));
  } else {
    entities_.ipsecStatus->ipsecConnectionStatusInfoDel(end.key);
  }
  entities_.encapIdHelper->encapIdIs(encapSource(end.key), {.reqid = end.reqid});
}

}  // namespace tessel::lab
