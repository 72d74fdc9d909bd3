// TestSas: SAs as the machine would hand them over, and a data plane with the entities around it.
#pragma once

#include "host/model/AgentTables.h"
#include "host/model/Counters.h"
#include "host/model/IkeStatus.h"
#include "host/runtime/VirtualTime.h"
#include "lab/dataplane/DataPlane.h"
#include "lab/dataplane/InnerPacket.h"
#include "tests/agent/TestSuite.h"

namespace tessel::lab {

inline IpGenAddr address(const std::string& text) {
  return IpGenAddr::parse(text).value();
}

/// A path as one of its ends sees it.
struct TestPath {
  IpGenAddr local;   ///< As packets that come in have it as their destination.
  IpGenAddr remote;  ///< As packets that go out have it as their destination.
  uint16_t localPort = 4501;
  uint16_t remotePort = 4601;
  uint32_t reqid = 1;
  ConnectionId connId = 1;

  ConnectionKey key() const { return {0, local, remote, connId}; }
};

/// A router's entities and its data plane. What it sends and what it delivers is kept.
class TestRouter {
 public:
  TestRouter(const Ptr<VirtualTime>& time, const std::string& name)
      : scheduler(makePtr<VirtualTimeScheduler>(time, name)) {
    start();
  }

  /// Makes the data plane anew over the same entities. It does not probe.
  void start() {
    plane.reset();
    plane = std::make_unique<DataPlane>(
        DataPlane::Host{scheduler, table, status, counters, address("192.168.0.1")},
        [this](const ConnectionKey&, Bytes outer) { sent = std::move(outer); },
        [this](const ConnectionKey& path, BytesView inner) {
          delivered.emplace_back(path, readInnerPacket(inner));
        });
    plane->probeIntervalIs(Duration::never());
  }

  /// The key of an SA of `path`: its direction follows from the type.
  static SecurityAssociationKey saKey(const TestPath& path, SaType type, uint32_t spi) {
    return {spi, isOutSa(type) ? path.remote : path.local, 50, path.reqid,
            static_cast<uint16_t>(path.local.family())};
  }
  Ptr<Ike::SecurityAssociation> makeSa(const TestPath& path, SaType type, uint32_t spi,
                                       const TestSuite& suite = {}, uint8_t keyVariant = 1) const {
    const auto sa = makePtr<Ike::SecurityAssociation>(saKey(path, type, spi));
    sa->saddrIs(isOutSa(type) ? path.local : path.remote);
    sa->modeIs(1);
    sa->reqidIs(path.reqid);
    sa->saTypeIs(type);
    sa->connIdIs(path.connId);
    sa->encapTypeIs(IpsecEncapProtocol::udp);
    sa->encapSrcPortIs(path.localPort);
    sa->encapDstPortIs(path.remotePort);
    suiteIs(*sa, suite, keyVariant);
    return sa;
  }
  void handOver(const TestPath& path, const Ptr<Ike::SecurityAssociation>& sa) const {
    table->cpSaIs(sa->sakey(), path.key());
    table->saIs(sa);
  }
  Ptr<Ike::SecurityAssociation> handOver(const TestPath& path, SaType type, uint32_t spi,
                                         const TestSuite& suite = {},
                                         uint8_t keyVariant = 1) const {
    const Ptr<Ike::SecurityAssociation> sa = makeSa(path, type, spi, suite, keyVariant);
    handOver(path, sa);
    return sa;
  }

  /// Sends an inner data packet; returns the drop reason's name, or "" when it was sent.
  std::string send(const TestPath& path, uint64_t sequence = 1) {
    const UdpEnds ends = {address("10.1.0.1"), address("10.2.0.1"), 1000, 2000};
    const Bytes inner = innerPacketBytes({.ends = ends, .sequence = sequence}, 100);
    const std::optional<DropReason> drop = plane->sendPacket(path.key(), inner);
    return drop ? dropReasonName(*drop) : "";
  }
  /// Receives a packet; returns the drop reason's name, or "" when it was delivered.
  std::string receive(Bytes outer) {
    const DataPlane::Received received = plane->receivePacket(std::move(outer));
    return received.drop ? dropReasonName(*received.drop) : "";
  }
  /// Sends one packet and returns it as the network gets it.
  Bytes seal(const TestPath& path, uint64_t sequence = 1) {
    EXPECT_EQ(send(path, sequence), "");
    return std::exchange(sent, {});
  }

  const Ptr<VirtualTimeScheduler> scheduler;
  const Ptr<IpsecCommon::TesselV1> table = makePtr<IpsecCommon::TesselV1>();
  const Ptr<Ike::Status> status = makePtr<Ike::Status>(nullptr);
  const Ptr<Ike::VrfStatus> vrf = status->vrfStatusIs("default");
  const Ptr<IpsecCounters::IpsecCounterTable> counters =
      makePtr<IpsecCounters::IpsecCounterTable>();
  Bytes sent;  ///< The last packet.
  std::vector<std::pair<ConnectionKey, std::optional<InnerPacket>>> delivered;
  std::unique_ptr<DataPlane> plane;
};

}  // namespace tessel::lab
