// DataPlane: the data path of one router. It takes the SAs that the machine hands over, installs
// them some time later, and moves ESP packets with them.
//
// What holds:
//   - An SA is taken from the agent's table when it is added there (handed over), on the path that
//     the table gives it and in the direction that its type has then. It is installed after the
//     install delay unless it was deleted meanwhile, and only then gets its counter entry.
//   - A path sends on its installed out-SA that was handed over last, whatever its type. An in-SA
//     receives until it is deleted.
//   - A known SA that is handed over once more is updated and keeps its place, its sequence
//     numbers, its window, its counters and its add time. Changes of its attributes count from the
//     next packet on.
//   - The nonce word of an out-SA is taken when its `rekey` flag goes true (or is true when the SA
//     is handed over) and rides in every packet until the flag goes false or the SA is deleted. A
//     nonce that is written while the flag stays true is not seen.
//   - An in-SA is found by SPI, destination address and UDP ports: several paths between the same
//     two addresses have the same SPIs and keys, and only their ports tell them apart. The source
//     port is not looked at where the SA's flows are spread over ports. Of several, that of the
//     packet's source address is taken: IPv6 paths between the same two routers have the same SPIs
//     whatever their addresses. Without one it is the first: translators change sources.
//   - The integrity check comes before the anti-replay window: a packet counted as replayed or too
//     old is an authentic one, and no other packet moves the window.
//   - Sequence numbers and windows outlive their SA: an SA that is made again with the SPI and keys
//     of an earlier one of its path continues both. The sender's numbers never go back under one
//     key, so the receiver's window drops nothing that is good and takes nothing twice, whichever
//     side made its SA again. Kept are the last 16 SAs of a path and direction that came from a key
//     exchange, which every rebuild of the path makes again, and of those from rekeys with fresh
//     nonces. A new data plane (a restarted router) knows none, and its keys are new ones.
//   - Sequence numbers do not wrap: an SA that has used them up does not send any more.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/entity/Entity.h"
#include "host/entity/KeyedCollection.h"
#include "host/entity/Ptr.h"
#include "host/model/AgentTables.h"
#include "host/model/Bytes.h"
#include "host/model/Counters.h"
#include "host/model/Duration.h"
#include "host/model/IkeStatus.h"
#include "host/model/Keys.h"
#include "host/runtime/TaskScheduler.h"
#include "lab/dataplane/DataPlaneEvents.h"
#include "lab/net/UdpPacket.h"
#include "lab/scenario/Mutant.h"

namespace tessel {
struct EspHeader;
}  // namespace tessel

namespace tessel::lab {

/// How the installation of one SA goes.
struct InstallPlan {
  Duration delay{};    ///< From the hand-over; never() leaves the SA pending for ever.
  bool fails = false;  ///< After the delay the SA is marked as failed instead of installed.
  /// False: it is installed and carries packets, but never gets a counter entry.
  bool reported = true;
};

class DataPlane {
 public:
  /// What the data plane works on.
  struct Host {
    Ptr<TaskScheduler> scheduler;
    Ptr<const IpsecCommon::TesselV1> table;              ///< The agent's SAs.
    Ptr<const Ike::Status> ipsecStatus;                  ///< For the hard limits.
    Ptr<IpsecCounters::IpsecCounterTable> counterTable;  ///< Written here alone.
    IpGenAddr localAddress;                              ///< VTEP address: the source of probes.
  };
  /// Takes a sealed packet (outer IP, UDP, ESP) of a path to the network.
  using Transmit = std::function<void(const ConnectionKey& path, Bytes outer)>;
  /// Takes an inner packet that has come in; the bytes are valid during the call.
  using Deliver = std::function<void(const ConnectionKey& path, BytesView inner)>;

  /// Takes over the SAs that the table holds already.
  DataPlane(Host host, Transmit transmit, Deliver deliver);
  DataPlane(const DataPlane&) = delete;
  DataPlane& operator=(const DataPlane&) = delete;
  /// Takes its counter entries away and tells nobody.
  ~DataPlane();

  /// Seals an inner IP packet and transmits it. Returns why it was dropped, or nothing.
  std::optional<DropReason> sendPacket(const ConnectionKey& path, BytesView inner);

  struct Received {
    std::optional<DropReason> drop;     ///< Nothing when the packet was delivered.
    std::optional<ConnectionKey> path;  ///< Absent when the packet matches no SA.
  };
  /// Opens a packet from the network (outer IP, UDP, ESP), in place, and delivers what is in it.
  Received receivePacket(Bytes outer);

  /// Sends a probe from the own to the peer's VTEP address.
  std::optional<DropReason> sendProbe(const ConnectionKey& path);
  /// Every interval, each path with an installed out-SA that sent nothing since the last time gets
  /// a probe. 10 s by default; never() stops the probes. The interval starts anew.
  void probeIntervalIs(Duration interval);
  /// Whether a path is probed at all; every path is at first.
  void probesIs(const ConnectionKey& path, bool on);

  /// Time from hand-over to installation, for SAs handed over from now on; 20 ms by default.
  void installDelayIs(Duration delay) { installDelay_ = delay; }
  Duration installDelay() const { return installDelay_; }
  /// Asks `plan` about every SA that is handed over, in place of the install delay (slow, failing
  /// and reordered installations); null goes back to the delay.
  using PlanInstall = std::function<InstallPlan(const SaReport&)>;
  void installPlanIs(PlanInstall plan) { plan_ = std::move(plan); }

  /// Whether SAs are handed over that are not installed yet.
  bool installationsWait() const;
  /// Installs now, in a job, what waits since the earliest hand-over, however long it would have
  /// had to: all SAs that were handed over at that time.
  void installNext();

  /// Misbehaves.
  void mutantIs(Mutant mutant) { mutant_ = mutant; }

  /// The counters of a path's installed SAs and of their request id start at 0 again in the counter
  /// table; entries, add times and nonce words stay. The packets and bytes of a hard limit are
  /// counted on.
  void restartCounters(const ConnectionKey& path);

  void observerAdd(DataPlaneObserver& observer);
  void observerDel(DataPlaneObserver& observer);

  /// Statistics of one path since the data plane was made; zeros for an unknown path.
  PathStatistics statistics(const ConnectionKey& path) const;
  /// Of all paths, and of packets that matched none.
  PathStatistics statistics() const;
  std::vector<ConnectionKey> paths() const { return paths_.keys(); }

  /// All SAs that are handed over, in the order of hand-over.
  std::vector<SaReport> sas() const;
  std::vector<SaReport> sas(const ConnectionKey& path) const;
  std::optional<SaReport> sa(const SecurityAssociationKey& key) const;
  /// The out-SA that the path's next packet is sent on.
  std::optional<SaReport> sendingSa(const ConnectionKey& path) const;
  /// Whether a packet with this SPI and these outer ends would find an in-SA here.
  bool holdsInSa(uint32_t spi, const UdpEnds& ends) const;
  /// SAs refused since the data plane was made.
  uint64_t refusedSas() const { return refusedSas_; }

  /// Hard limits passed so far, in the order in which that was seen: time limits when they passed,
  /// the others with the packet that passed them. One finding per SA and limit.
  const std::vector<HardLimitFinding>& hardLimitFindings() const { return findings_; }

 private:
  class Sa;
  struct PathRecord;

  void handleTable(const Change& change);
  void handOver(const SecurityAssociationKey& key);
  void remove(const SecurityAssociationKey& key);
  void handleTimer(const SecurityAssociationKey& key);
  PathRecord& pathRecord(const ConnectionKey& path);
  void planInstallation(Sa& sa);
  void install(Sa& sa);
  void uninstall(Sa& sa);
  void misinstall(Sa& sa);
  void handleNotInstalled(Sa& sa, SaInstallState state, std::string why);
  bool refreshTransform(Sa& sa);
  void checkPacketLimits(Sa& sa);
  void addFinding(Sa& sa, HardLimitFinding::Limit limit, uint64_t allowed);
  Sa* findInSa(uint32_t spi, const UdpEnds& ends) const;
  void count(Sa& sa, size_t innerSize);
  DropReason dropSending(PathRecord& path, DropReason reason, const Sa* sa);
  Received dropReceived(const Sa* sa, DropReason reason, const EspHeader& header,
                        const UdpEnds& ends);
  Received acceptReceived(Sa& sa, BytesView inner, BytesView tfc);
  void handleProbeTimer();
  Duration now() const { return host_.scheduler->clock().monotonicTime(); }
  template <class Call>
  void tell(Call call);

  const Host host_;
  const Transmit transmit_;
  const Deliver deliver_;
  Duration installDelay_ = Duration(0.02);
  Duration probeInterval_ = Duration(10);
  PlanInstall plan_;
  Mutant mutant_ = Mutant::none;
  Ptr<TimerTask> probeTimer_;
  std::vector<DataPlaneObserver*> observers_;
  uint64_t handOvers_ = 0;
  uint64_t refusedSas_ = 0;
  KeyedCollection<SecurityAssociationKey, Ptr<Sa>> sas_;
  KeyedCollection<ConnectionKey, Ptr<PathRecord>> paths_;
  KeyedCollection<uint32_t, std::vector<Sa*>> inSasBySpi_;
  KeyedCollection<uint32_t, uint32_t> sasByReqid_;  // How many SAs keep a session entry.
  DropCounts unmatchedDrops_;
  std::vector<HardLimitFinding> findings_;
  Subscription tableSubscription_;
};

}  // namespace tessel::lab
