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
  const bool had = has(key);
  paths_.remove(key);
  if (had && mutant_ == Mutant::takesNeighbour && !entities_.tesselV1->sa().keys().empty()) {
    entities_.tesselV1->saDel(entities_.tesselV1->sa().keys().front());
  }
}

void PathLayer::update(const PathEnd& end) {
  paths_.update(describe(end));
}

}  // namespace tessel::lab
