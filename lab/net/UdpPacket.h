// UdpPacket: IPv4 and IPv6 packets that carry UDP, as bytes: written, read, and rewritten by
// address translators. RFC 791, RFC 768, RFC 8200.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "host/model/Bytes.h"
#include "host/model/IpGenAddr.h"

namespace tessel::lab {

/// Addresses and ports of a UDP packet; ports in host byte order, both addresses of one family.
struct UdpEnds {
  IpGenAddr src{};
  IpGenAddr dst{};
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
  friend bool operator==(const UdpEnds&, const UdpEnds&) = default;
};

/// Length of the IP header (without options) and the UDP header: 28 or 48 bytes; 0 for an address
/// without family.
size_t udpHeadersSize(AddressFamily family);

/// Whether the UDP checksum of an IPv4 packet is computed or left at 0, which means none. IPv6
/// packets always have one.
enum class UdpChecksum : uint8_t { none, computed };

/// Writes the headers in front of a payload that stands in its place: `packet` is the whole packet,
/// `udpHeadersSize` bytes of headers first. IPv4 packets are not fragmented and have no options.
/// Throws std::invalid_argument when the families differ or the packet is longer than IP can say.
void writeUdpHeaders(std::span<uint8_t> packet, const UdpEnds& ends, UdpChecksum checksum);

/// What the headers of a packet say. The payload stands at `payloadOffset`.
struct UdpPacket {
  UdpEnds ends{};
  size_t payloadOffset = 0;
  size_t payloadSize = 0;
};

/// Reads a whole packet. Nothing when it is no well-formed, unfragmented UDP packet: wrong lengths
/// (bytes too few or too many), a wrong header checksum, or a wrong UDP checksum where it has one.
std::optional<UdpPacket> readUdpPacket(BytesView packet);

/// The length that the header at the beginning of `bytes` gives its IP packet; nothing when there
/// is no IP header or fewer bytes than that.
std::optional<size_t> ipPacketSize(BytesView bytes);

/// Rewrites the source (destination) address if it equals `from`; checksums stay right. False, and
/// nothing is changed, when it is another address or this is no IP packet.
bool rewriteSource(std::span<uint8_t> packet, const IpGenAddr& from, const IpGenAddr& to);
bool rewriteDestination(std::span<uint8_t> packet, const IpGenAddr& from, const IpGenAddr& to);

}  // namespace tessel::lab
