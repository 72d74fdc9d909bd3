// AgentWatch: what the event stream watches of one agent from its start to its stop. For the stream
// alone.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "lab/report/EventStream.h"

namespace tessel::lab {

class EventStream::AgentWatch final : public DataPlaneObserver {
 public:
  AgentWatch(EventStream& stream, Router& router);
  AgentWatch(const AgentWatch&) = delete;
  AgentWatch& operator=(const AgentWatch&) = delete;
  ~AgentWatch() override;

  void handleInnerPacket(const ConnectionKey& key);

 private:
  class PathWatch;
  class PeerWatch;
  class SaWatch;

  void handleStatus(const Change& change);
  void handleSaHandedOver(const SaReport& sa) override;
  void handleSaInstalled(const SaReport& sa) override;
  void handleSaNotInstalled(const SaReport& sa) override;
  void handleSaRemoved(const SaReport& sa) override;
  void handleNonceSent(const SaReport& sa, uint32_t nonceWord) override;
  void handleNonceReceived(const SaReport& sa, uint32_t nonceWord) override;
  void handleHardLimit(const HardLimitFinding& finding) override;
  void handleDrop(const PacketDrop& drop) override;

  SaFacts facts(const SaReport& report) const;
  void tellSa(const SaReport& sa, event::SaStep::Step step);
  void tellNonce(const SaReport& sa, uint32_t nonceWord, bool sent);
  void tellOfPath(const ConnectionKey& key, LabEvent::What what);
  void tellOfPeer(const IpGenAddr& peer, LabEvent::What what);
  /// The path that a received packet's outer ends name; null when they name none.
  const RouterPath* pathOf(const UdpEnds& ends) const;

  EventStream& stream_;
  Router& router_;
  std::map<IpGenAddr, std::unique_ptr<PeerWatch>> peers_;
  std::map<SecurityAssociationKey, std::unique_ptr<SaWatch>> sas_;
  std::set<ConnectionKey> pathsWithPackets_;
  Subscription status_;
};

}  // namespace tessel::lab
