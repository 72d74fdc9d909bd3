#include "lab/router/PathLayer.h"

namespace tessel::lab {
namespace {

PathDescription describe(const PathEnd& end) {
  const PathCondition& condition = end.condition;
  return {.key = end.key,
          .peer = end.peerAddr,
          .name = end.name,
          .reqid = end.reqid,
          .index = end.index,
          .localPort = end.localPort,
          .remotePort = end.remotePort,
          .publicAddr = end.publicAddr,
          .enabled = condition.enabled,
          .allowed = condition.allowed,
          .underlay = condition.up ? Path::UnderlayState::established : Path::UnderlayState::down,
          .connection = condition.connection};
}

}  // namespace

void PathLayer::add(const PathEnd& end) {
  paths_.add(describe(end));
}

void PathLayer::remove(const ConnectionKey& key) {
  if (mutant_ == Mutant::takesNeighbour && has(key)) {
    // In the middle of a removal: the machine has dropped the path, whose status is still there.
    entities_.ipsecDpsPathConfig->ipsecPathConfigDel(key);
    paths_.announce(key);
    if (!entities_.tesselV1->sa().keys().empty()) {
      entities_.tesselV1->saDel(entities_.tesselV1->sa().keys().front());
    }
  }
  paths_.remove(key);
}

void PathLayer::update(const PathEnd& end) {
  paths_.update(describe(end));
}

}  // namespace tessel::lab
