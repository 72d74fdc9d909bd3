// InnerPacket: the packets that travel inside the tunnels of the lab: UDP between two hosts behind
// the routers, with a payload that says which packet it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "host/model/Bytes.h"
#include "lab/net/UdpPacket.h"

namespace tessel::lab {

enum class InnerKind : uint8_t {
  data = 1,
  probe = 2,  ///< Sent by the data plane on an idle path.
};

/// One inner packet. Its UDP payload is, in network byte order: "TSLP", kind (1 byte), three zero
/// bytes, flow (4), sequence (8), then filler of zeros.
struct InnerPacket {
  UdpEnds ends{};
  InnerKind kind = InnerKind::data;
  uint32_t flow = 0;
  uint64_t sequence = 0;
  friend bool operator==(const InnerPacket&, const InnerPacket&) = default;
};

/// Length of the payload without filler.
inline constexpr size_t kInnerPayloadSize = 20;

/// The packet with `payloadSize` bytes of UDP payload, at least kInnerPayloadSize.
Bytes innerPacketBytes(const InnerPacket& packet, size_t payloadSize = kInnerPayloadSize);
/// Reads what `innerPacketBytes` made; nothing for any other packet.
std::optional<InnerPacket> readInnerPacket(BytesView bytes);

}  // namespace tessel::lab
