// PathView: one end of a path as its router's agent shows it.
#pragma once

#include <cstdint>
#include <vector>

#include "host/model/IkePath.h"
#include "host/model/IkeStatus.h"
#include "lab/dataplane/DataPlane.h"

namespace tessel::lab {

/// Looks at the agent's entities whenever it is asked, so it can be kept while time runs; it must
/// not outlive the agent. A path that the agent does not list shows no state, no SAs and zeros.
class PathView {
 public:
  PathView(const ConnectionKey& key, Ptr<const Ike::Status> status, const DataPlane& dataPlane)
      : key_(key), status_(std::move(status)), dataPlane_(dataPlane) {}

  const ConnectionKey& key() const { return key_; }
  /// The path's entity, at whichever peer it is listed; null when it is not.
  Ptr<Ike::PathConnState> entity() const;
  bool exists() const { return entity() != nullptr; }

  DynamicPathState state() const;
  SmState saSmState() const;
  /// Of the out-SA in use.
  DhKeyPair dhKeyPair() const;

  /// The path's SAs in the order in which they were made; those of one type.
  std::vector<Ptr<Ike::SecurityAssociation>> sas() const;
  std::vector<Ptr<Ike::SecurityAssociation>> sas(SaType type) const;
  /// SPI of the one steady in-SA (out-SA); 0 unless there is exactly one.
  uint32_t inSpi() const { return onlySpi(SaType::steadyIn); }
  uint32_t outSpi() const { return onlySpi(SaType::steadyOut); }

  /// What the data path has counted since the router's start.
  PathStatistics statistics() const { return dataPlane_.statistics(key_); }

 private:
  uint32_t onlySpi(SaType type) const;

  ConnectionKey key_;
  Ptr<const Ike::Status> status_;
  const DataPlane& dataPlane_;
};

}  // namespace tessel::lab
