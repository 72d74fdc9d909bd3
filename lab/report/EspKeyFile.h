// EspKeyFile: the keys that open the packets of a run.
#pragma once

#include <iosfwd>
#include <memory>
#include <set>
#include <utility>

#include "lab/run/DataPlaneWatch.h"

namespace tessel::lab {

/// Writes the keys of every out-SA that is installed, as lines of tshark's and Wireshark's table
/// `esp_sa`. For labs alone: whoever has the file reads the packets.
class EspKeyFile final : public PerAgentObserver {
 public:
  /// The stream outlives this.
  explicit EspKeyFile(std::ostream& out) : out_(out) {}

 private:
  class Watch;
  std::unique_ptr<DataPlaneWatch> watch(Router& router) override;
  /// Paths that share their addresses have the same SPIs and keys: one line serves them all.
  void write(const Ike::SecurityAssociation& sa);

  std::ostream& out_;
  std::set<std::pair<SecurityAssociationKey, IpGenAddr>> written_;
};

}  // namespace tessel::lab
