// PacketCapture: the packets of a run as a capture file, and the keys that open them.
#pragma once

#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "lab/run/LabObserver.h"

namespace tessel::lab {

/// Runs one watch per agent, from its start to its stop.
class PerAgentObserver : public LabObserver {
 public:
  void handleRouterUp(Router& router) override { watches_[router.name()] = watch(router); }
  void handleRouterDown(Router& router) override { watches_.erase(router.name()); }
  void handleEnd() override { watches_.clear(); }

 protected:
  /// Ends the observation of the router's data plane when it dies.
  virtual std::unique_ptr<DataPlaneObserver> watch(Router& router) = 0;

 private:
  std::map<std::string, std::unique_ptr<DataPlaneObserver>> watches_;
};

/// Writes every packet when its sender gives it to the network: whole IP packets as they leave the
/// router, before any address translator, whether the network delivers them or not. Format: pcap,
/// link type raw IP, time stamps of the virtual UTC clock.
class PacketCapture final : public PerAgentObserver {
 public:
  /// Writes the file header. The stream outlives this.
  explicit PacketCapture(std::ostream& out);

 private:
  class Watch;
  std::unique_ptr<DataPlaneObserver> watch(Router& router) override;

  std::ostream& out_;
};

/// Writes the keys of every out-SA that is installed, as lines of tshark's and Wireshark's table
/// `esp_sa`. For labs alone: whoever has the file reads the packets.
class EspKeyFile final : public PerAgentObserver {
 public:
  /// The stream outlives this.
  explicit EspKeyFile(std::ostream& out) : out_(out) {}

 private:
  class Watch;
  std::unique_ptr<DataPlaneObserver> watch(Router& router) override;
  /// Paths that share their addresses have the same SPIs and keys: one line serves them all.
  void write(const Ike::SecurityAssociation& sa);

  std::ostream& out_;
  std::set<std::pair<SecurityAssociationKey, IpGenAddr>> written_;
};

}  // namespace tessel::lab
