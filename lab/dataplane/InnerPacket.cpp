#include "lab/dataplane/InnerPacket.h"

#include <algorithm>
#include <array>

#include "host/model/ByteOrder.h"

namespace tessel::lab {
namespace {

constexpr std::array<uint8_t, 4> kMark = {'T', 'S', 'L', 'P'};

}  // namespace

Bytes innerPacketBytes(const InnerPacket& packet, size_t payloadSize) {
  const size_t headers = udpHeadersSize(packet.ends.src.family());
  Bytes bytes(headers + std::max(payloadSize, kInnerPayloadSize));
  uint8_t* const payload = bytes.data() + headers;
  std::copy(kMark.begin(), kMark.end(), payload);
  payload[4] = static_cast<uint8_t>(packet.kind);
  put32(payload + 8, packet.flow);
  put64(payload + 12, packet.sequence);
  writeUdpHeaders(bytes, packet.ends, UdpChecksum::computed);
  return bytes;
}

std::optional<InnerPacket> readInnerPacket(BytesView bytes) {
  const std::optional<UdpPacket> udp = readUdpPacket(bytes);
  if (!udp || udp->payloadSize < kInnerPayloadSize) {
    return std::nullopt;
  }
  const uint8_t* const payload = bytes.data() + udp->payloadOffset;
  const uint8_t kind = payload[4];
  if (!std::equal(kMark.begin(), kMark.end(), payload) ||
      (kind != static_cast<uint8_t>(InnerKind::data) &&
       kind != static_cast<uint8_t>(InnerKind::probe))) {
    return std::nullopt;
  }
  return InnerPacket{.ends = udp->ends,
                     .kind = static_cast<InnerKind>(kind),
                     .flow = get32(payload + 8),
                     .sequence = get64(payload + 12)};
}

}  // namespace tessel::lab
