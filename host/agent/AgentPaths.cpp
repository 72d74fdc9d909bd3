#include "host/agent/AgentPaths.h"

namespace tessel {
namespace {

MergeResolutionKey mergeKey(const ConnectionKey& key) {
  return {.vrfId = key.vrfId, .srcAddr = key.srcAddr, .dstAddr = key.dstAddr};
}

ConnectionKeySource encapSource(const ConnectionKey& key) {
  return {.connectionKey = key, .connectionType = kDynamicPathConnection};
}

}  // namespace

void AgentPaths::add(const PathDescription& path) {
  write(path);
  // The entry exists before its member is written: the machine watches entries for their members.
  entities_.mergeData->connectionInfoIs(mergeKey(path.key))
      ->connectionIs(path.key, {.version = ++lastVersion_});
}

void AgentPaths::remove(const ConnectionKey& key) {
  if (!has(key)) {
    return;
  }
  const ConnectionKey removed = key;  // The caller's key may live in what goes.
  entities_.ipsecDpsPathConfig->ipsecPathConfigDel(removed);
  announce(removed);
  const Ptr<MergeConnectionInfo> merged = entities_.mergeData->connectionInfo(mergeKey(removed));
  if (merged->connection().size() == 1) {
    entities_.mergeData->connectionInfoDel(mergeKey(removed));
  } else {
    merged->connectionDel(removed);
  }
  entities_.ipsecPathStatusDir->ipsecPathStatusDel(removed);
  entities_.ipsecStatus->ipsecConnectionStatusInfoDel(removed);
  entities_.encapIdHelper->encapIdDel(encapSource(removed));
}

void AgentPaths::update(const PathDescription& path) {
  if (has(path.key)) {
    write(path);
  }
}

void AgentPaths::announce(const ConnectionKey& key) {
  if (has(key)) {
    entities_.mergeData->connectionInfo(mergeKey(key))
        ->connectionIs(key, {.version = ++lastVersion_});
  }
}

bool AgentPaths::has(const ConnectionKey& key) const {
  const Ptr<MergeConnectionInfo>& merged = entities_.mergeData->connectionInfo(mergeKey(key));
  return merged && merged->connectionHas(key);
}

void AgentPaths::write(const PathDescription& path) {
  entities_.ipsecDpsPathConfig->ipsecPathConfigIs(path.key, {.ipsecEnabled = path.enabled});

  const Ptr<Path::PathStatus> status = entities_.ipsecPathStatusDir->ipsecPathStatusIs(path.key);
  status->remoteIpIs(path.peer);
  status->establishAllowedIs(path.allowed);
  status->stateIs(path.underlay);
  status->encapSrcPortIs(path.localPort);
  status->encapDstPortIs(path.remotePort);
  status->pathIndexIs(path.index);
  status->publicIpIs(path.publicAddr);
  status->pathNameIs(path.name);

  if (path.connection) {
    entities_.ipsecStatus->ipsecConnectionStatusInfoIs(path.key)->connectionStateIs(
        static_cast<uint8_t>(*path.connection));
  } else {
    entities_.ipsecStatus->ipsecConnectionStatusInfoDel(path.key);
  }
  entities_.encapIdHelper->encapIdIs(encapSource(path.key), {.reqid = path.reqid});
}

}  // namespace tessel
