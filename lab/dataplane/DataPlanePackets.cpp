// The data plane's packets: sealing, opening, counting, probes.
#include <algorithm>

#include "lab/dataplane/DataPlaneSa.h"
#include "lab/dataplane/InnerPacket.h"

namespace tessel::lab {
namespace {

constexpr uint16_t kProbePort = 7;  // Echo.
constexpr uint8_t kIpv4InIp = 4;
constexpr uint8_t kIpv6InIp = 41;

constexpr uint16_t kDefaultPort = 4500;

uint16_t portOr(uint16_t port) {
  return port != 0 ? port : kDefaultPort;
}

/// The protocol number of an inner packet; nothing when it is no whole IP packet.
std::optional<uint8_t> innerProtocol(BytesView inner) {
  if (ipPacketSize(inner) != inner.size()) {
    return std::nullopt;
  }
  return inner[0] >> 4U == 4 ? kIpv4InIp : kIpv6InIp;
}

}  // namespace

// --- Packets

std::optional<DropReason> DataPlane::sendPacket(const ConnectionKey& path, BytesView inner) {
  PathRecord& record = pathRecord(path);
  ++record.statistics.offered;
  const Ptr<Sa> sa(record.sendingSa());  // Held: whoever gets the packet may delete it.
  if (!sa) {
    const bool refused = std::ranges::any_of(
        record.outSas, [](const Sa* each) { return each->state == SaInstallState::refused; });
    return dropSending(record, refused ? DropReason::badSa : DropReason::noOutbound, nullptr);
  }
  if (sa->cipherChanged && !refreshTransform(*sa)) {
    return dropSending(record, DropReason::badSa, sa.get());
  }
  if (sa->sequence == UINT32_MAX) {
    return dropSending(record, DropReason::noOutbound, sa.get());
  }
  const std::optional<uint8_t> protocol = innerProtocol(inner);
  const uint32_t word =
      mutant_ == Mutant::swapsNonce ? __builtin_bswap32(sa->nonceWord) : sa->nonceWord;
  const std::array<uint8_t, kEspNonceSize> nonce = espNonceBytes(word);
  const BytesView tfc = sa->nonceWord != 0 ? BytesView(nonce) : BytesView();
  const size_t headers = udpHeadersSize(sa->entity->saddr().family());
  Bytes outer(headers + sa->transform->sealedSize(inner.size() + tfc.size()));
  if (!protocol || outer.size() > 0xFFFF) {
    return dropSending(record, DropReason::malformed, sa.get());
  }
  const std::span<uint8_t> esp = std::span(outer).subspan(headers);
  sa->transform->seal(sa->key.spi, ++sa->sequence, inner, tfc, *protocol, esp);
  writeUdpHeaders(outer,
                  {.src = sa->entity->saddr(),
                   .dst = sa->key.daddr,
                   .srcPort = portOr(sa->entity->encapSrcPort()),
                   .dstPort = portOr(sa->entity->encapDstPort())},
                  UdpChecksum::none);
  ++record.statistics.sent;
  record.statistics.sentBytes += inner.size();
  ++host_.counterTable->sessionCounterEntryIs(sa->key.reqid).pktsOut;
  count(*sa, inner.size());
  if (sa->nonceWord != 0 && !sa->nonceTold) {
    sa->nonceTold = true;
    tell([&](DataPlaneObserver& observer) { observer.handleNonceSent(sa->report(), word); });
  }
  tell([&](DataPlaneObserver& observer) {
    if (observer.wantsPackets()) {
      const SaReport report = sa->report();
      observer.handlePacketSent(
          {.sa = &report,
           .sequence = sa->sequence,
           .iv = BytesView(esp).subspan(kEspHeaderSize, sa->transform->ivSize()),
           .outer = outer});
    }
  });
  if (mutant_ == Mutant::losesPacket && record.statistics.sent % 100 == 0) {
    return std::nullopt;
  }
  transmit_(path, std::move(outer));
  return std::nullopt;
}

DataPlane::Received DataPlane::receivePacket(Bytes outer) {
  const std::optional<UdpPacket> udp = readUdpPacket(outer);
  if (!udp) {
    return dropReceived(nullptr, DropReason::malformed, {}, {});
  }
  const std::span<uint8_t> esp = std::span(outer).subspan(udp->payloadOffset, udp->payloadSize);
  const std::optional<EspHeader> header = readEspHeader(esp);
  if (!header) {
    return dropReceived(nullptr, DropReason::malformed, {}, udp->ends);
  }
  const Ptr<Sa> sa(findInSa(header->spi, udp->ends));
  if (!sa || sa->state == SaInstallState::pending || sa->state == SaInstallState::failed) {
    return dropReceived(sa.get(), DropReason::noSa, *header, udp->ends);
  }
  if (!sa->installed() || (sa->cipherChanged && !refreshTransform(*sa))) {
    return dropReceived(sa.get(), DropReason::badSa, *header, udp->ends);
  }
  const EspTransform::Opened opened = sa->transform->open(esp);
  if (opened.failure != EspTransform::Failure::none) {
    const DropReason reason = opened.failure == EspTransform::Failure::badIcv
                                  ? DropReason::badIcv
                                  : DropReason::malformed;
    return dropReceived(sa.get(), reason, *header, udp->ends);
  }
  const ReplayWindow::Verdict verdict = sa->window.check(header->sequence);
  if (verdict != ReplayWindow::Verdict::fresh) {
    const DropReason reason =
        verdict == ReplayWindow::Verdict::replayed ? DropReason::replayed : DropReason::tooOld;
    return dropReceived(sa.get(), reason, *header, udp->ends);
  }
  sa->window.accept(header->sequence);
  const size_t innerSize = ipPacketSize(opened.payload).value_or(0);
  const BytesView inner = opened.payload.first(innerSize);
  if (innerSize == 0 || innerProtocol(inner) != opened.nextHeader) {
    return dropReceived(sa.get(), DropReason::malformed, *header, udp->ends);
  }
  return acceptReceived(*sa, inner, opened.payload.subspan(innerSize));
}

DataPlane::Received DataPlane::acceptReceived(Sa& sa, BytesView inner, BytesView tfc) {
  ++sa.path->statistics.received;
  sa.path->statistics.receivedBytes += inner.size();
  ++host_.counterTable->sessionCounterEntryIs(sa.key.reqid).pktsIn;
  count(sa, inner.size());
  if (const std::optional<uint32_t> word = readEspNonce(tfc); word && *word != sa.nonceWord) {
    sa.nonceWord = *word;
    if (sa.reported) {
      host_.counterTable->saCounterEntryIs(sa.key).nonceWord = *word;
    }
    tell([&](DataPlaneObserver& observer) { observer.handleNonceReceived(sa.report(), *word); });
  }
  deliver_(sa.path->key, inner);
  return {.drop = std::nullopt, .path = sa.path->key};
}

/// The in-SA, installed or not, of a packet with this SPI and these outer ends; null when there is
/// none.
DataPlane::Sa* DataPlane::findInSa(uint32_t spi, const UdpEnds& ends) const {
  const std::vector<Sa*>* const sameSpi = inSasBySpi_.find(spi);
  if (sameSpi == nullptr) {
    return nullptr;
  }
  Sa* fromElsewhere = nullptr;
  for (Sa* const sa : *sameSpi) {
    const Ike::SecurityAssociation& entity = *sa->entity;
    // The ports of an SA are the path's, seen from here.
    if (sa->key.daddr == ends.dst && portOr(entity.encapSrcPort()) == ends.dstPort &&
        (entity.flowEncap() || portOr(entity.encapDstPort()) == ends.srcPort)) {
      if (entity.saddr() == ends.src) {
        return sa;
      }
      fromElsewhere = fromElsewhere != nullptr ? fromElsewhere : sa;
    }
  }
  return fromElsewhere;
}

void DataPlane::count(Sa& sa, size_t innerSize) {
  ++sa.pkts;
  sa.bytes += innerSize;
  if (sa.reported) {
    IpsecCounters::IpsecSACounterEntry& entry = host_.counterTable->saCounterEntryIs(sa.key);
    ++entry.pkts;
    entry.bytes += innerSize;
  }
  checkPacketLimits(sa);
}

void DataPlane::checkPacketLimits(Sa& sa) {
  if (!sa.lifetime) {
    return;
  }
  using enum HardLimitFinding::Limit;
  if (const uint64_t allowed = sa.lifetime->hardPacketLimit(); allowed != 0 && sa.pkts > allowed) {
    addFinding(sa, packets, allowed);
  }
  if (const uint64_t allowed = sa.lifetime->hardByteLimit(); allowed != 0 && sa.bytes > allowed) {
    addFinding(sa, bytes, allowed);
  }
}

void DataPlane::addFinding(Sa& sa, HardLimitFinding::Limit limit, uint64_t allowed) {
  const auto bit = static_cast<uint8_t>(1U << static_cast<unsigned>(limit));
  if ((sa.limitsFound & bit) != 0) {
    return;
  }
  sa.limitsFound = static_cast<uint8_t>(sa.limitsFound | bit);
  const HardLimitFinding finding = {
      .key = sa.key, .path = sa.path->key, .limit = limit, .allowed = allowed, .at = now()};
  findings_.push_back(finding);
  tell([&](DataPlaneObserver& observer) { observer.handleHardLimit(finding); });
}

DropReason DataPlane::dropSending(PathRecord& path, DropReason reason, const Sa* sa) {
  ++path.statistics.sendDrops[reason];
  tell([&](DataPlaneObserver& observer) {
    observer.handleDrop({.reason = reason,
                         .sending = true,
                         .path = path.key,
                         .spi = sa != nullptr ? sa->key.spi : 0});
  });
  return reason;
}

DataPlane::Received DataPlane::dropReceived(const Sa* sa, DropReason reason,
                                            const EspHeader& header, const UdpEnds& ends) {
  PathRecord* const path = sa != nullptr ? sa->path : nullptr;
  ++(path != nullptr ? path->statistics.receiveDrops : unmatchedDrops_)[reason];
  const Received received = {.drop = reason,
                             .path = path != nullptr ? std::optional(path->key) : std::nullopt};
  tell([&](DataPlaneObserver& observer) {
    observer.handleDrop({.reason = reason,
                         .sending = false,
                         .path = received.path,
                         .spi = header.spi,
                         .sequence = header.sequence,
                         .ends = ends});
  });
  return received;
}

// --- Probes

std::optional<DropReason> DataPlane::sendProbe(const ConnectionKey& path) {
  PathRecord& record = pathRecord(path);
  const Sa* const sa = record.sendingSa();
  if (sa == nullptr) {
    return sendPacket(path, {});  // Counted as any packet that cannot be sent.
  }
  const IpGenAddr peer = sa->entity->remoteIp();
  if (peer.family() == AddressFamily::none || peer.family() != host_.localAddress.family()) {
    ++record.statistics.offered;
    return dropSending(record, DropReason::malformed, sa);
  }
  const Bytes probe = innerPacketBytes({.ends = {.src = host_.localAddress,
                                                 .dst = peer,
                                                 .srcPort = kProbePort,
                                                 .dstPort = kProbePort},
                                        .kind = InnerKind::probe,
                                        .sequence = ++record.probes});
  const std::optional<DropReason> drop = sendPacket(path, probe);
  record.statistics.probesSent += drop ? 0 : 1;
  return drop;
}

void DataPlane::probeIntervalIs(Duration interval) {
  probeInterval_ = interval;
  probeTimer_->scheduleTaskDelay(interval);
}

void DataPlane::probesIs(const ConnectionKey& path, bool on) {
  pathRecord(path).probed = on;
}

void DataPlane::handleProbeTimer() {
  probeTimer_->scheduleTaskDelay(probeInterval_);
  for (const auto& [key, record] : paths_) {
    const bool idle = record->statistics.sent == record->sentBeforeProbe;
    if (idle && record->probed && record->sendingSa() != nullptr) {
      sendProbe(key);
    }
    record->sentBeforeProbe = record->statistics.sent;
  }
}

}  // namespace tessel::lab
