// FabricatedAgent: a router whose peers, paths and data path are made up, around a real machine.
//
// The peers' records hold real DH keys. The data path moves no packets: it installs what it is
// handed, counts packets that nobody sent, and answers nonces as the peers would.
#pragma once

#include <cstdint>
#include <vector>

#include "bench/agent/BenchScheduler.h"
#include "host/model/Events.h"
#include "lab/router/RouterEntities.h"
#include "sm/TesselV1Sm.h"

namespace tessel::bench {

struct AgentSettings {
  uint32_t peers = 100;
  uint32_t pathsPerPeer = 10;
  IpsecDhGroup group = IpsecDhGroup::ecp256;
  uint32_t saLifetime = 86400;  ///< Seconds.
  uint32_t maxEventRecord = 16;
};

class FabricatedAgent final : private EventObserver {
 public:
  /// A configured router with its machine and its own key, without peers and paths.
  explicit FabricatedAgent(const AgentSettings& settings);
  ~FabricatedAgent() override;

  const AgentSettings& settings() const { return settings_; }
  uint32_t paths() const { return settings_.peers * settings_.pathsPerPeer; }
  BenchScheduler& scheduler() { return *scheduler_; }
  const lab::RouterEntities& host() const { return host_; }
  Ipsec::TesselV1Sm& machine() const { return *machine_; }

  ConnectionKey pathKey(uint32_t peer, uint32_t path) const;
  IpGenAddr peerAddress(uint32_t peer) const;

  // What the agent writes. Merged data, records and settings reach the machine at once, which then
  // does its work inside of the call or queues it.

  /// Everything of every path but its merged data; of one path.
  void describePaths();
  void describePath(uint32_t peer, uint32_t path);
  /// A new version of the merged data of every path; of one path.
  void touchPaths();
  void touchPath(const ConnectionKey& key);
  /// Takes every path away in the order that the machine expects.
  void removePaths();
  void publishPeers();
  void publishPeer(uint32_t peer);
  void withdrawPeers();
  /// Fresh keys of all peers, one generation further; to be published.
  void rekeyPeers();
  /// Writes the key-controller settings with a change, upon which the machine makes a new key.
  void changeSettings();
  void forceDhRekey() { host_.ipsecStatus->testKnobIs()->dhRekeyTriggerIs(true); }

  // The data path.

  /// Reports what was handed over as installed, drops what was taken away, and answers nonces.
  void serveDataPath();
  /// `packets` more on every SA that somebody sends on.
  void carryTraffic(uint64_t packets);
  /// Virtual time passes: the data path is served every second, and traffic goes on every ten.
  /// Returns the thread time that the data path took, which is none of the machine's.
  double live(Duration span);

 private:
  void handleTable(const Change& change);
  void handleEvent(const LocalEvent&) override {}
  void handleEvent(const PeerEvent&) override {}
  void handleEvent(const PathEvent&) override {}
  void handleEvent(const SecurityAssociationKey& key, const ConnectionKey& path,
                   const SaEvent& event) override;

  const AgentSettings settings_;
  const Ptr<BenchScheduler> scheduler_ = makePtr<BenchScheduler>();
  lab::RouterEntities host_;
  std::vector<Controller::PeerKeyInfo> records_;
  std::vector<SecurityAssociationKey> handedOver_;
  std::vector<SecurityAssociationKey> takenAway_;
  std::vector<SecurityAssociationKey> asked_;
  Subscription table_;
  uint64_t seconds_ = 0;
  Ptr<Ipsec::TesselV1Sm> machine_;
};

}  // namespace tessel::bench
