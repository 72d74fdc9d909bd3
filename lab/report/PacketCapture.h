// PacketCapture: the packets of a run as a capture file.
#pragma once

#include <iosfwd>
#include <memory>

#include "lab/run/DataPlaneWatch.h"

namespace tessel::lab {

/// Writes every packet when its sender gives it to the network: whole IP packets as they leave the
/// router, before any address translator, whether the network delivers them or not. Format: pcap,
/// link type raw IP, time stamps of the virtual UTC clock.
class PacketCapture final : public PerAgentObserver {
 public:
  /// Writes the file header. The stream outlives this.
  explicit PacketCapture(std::ostream& out);

 private:
  class Watch;
  std::unique_ptr<DataPlaneWatch> watch(Router& router) override;

  std::ostream& out_;
};

}  // namespace tessel::lab
