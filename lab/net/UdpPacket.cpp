#include "lab/net/UdpPacket.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

#include "host/model/ByteOrder.h"

namespace tessel::lab {
namespace {

constexpr size_t kIpv4Header = 20;
constexpr size_t kIpv6Header = 40;
constexpr size_t kUdpHeader = 8;
constexpr uint8_t kUdpProtocol = 17;
constexpr uint8_t kHopLimit = 64;
constexpr uint16_t kDontFragment = 0x4000;

// Offsets of the addresses in their headers.
struct AddressPlace {
  size_t offset;
  size_t size;
};
constexpr AddressPlace kIpv4Source = {12, 4};
constexpr AddressPlace kIpv4Destination = {16, 4};
constexpr AddressPlace kIpv6Source = {8, 16};
constexpr AddressPlace kIpv6Destination = {24, 16};

/// The one's complement sum of the Internet checksum (RFC 1071), not folded yet.
uint64_t sumWords(BytesView bytes, uint64_t sum = 0) {
  size_t i = 0;
  for (; i + 4 <= bytes.size(); i += 4) {
    sum += get32(bytes.data() + i);
  }
  if (i + 2 <= bytes.size()) {
    sum += get16(bytes.data() + i);
    i += 2;
  }
  if (i < bytes.size()) {
    sum += static_cast<uint64_t>(bytes[i]) << 8U;
  }
  return sum;
}

uint16_t foldSum(uint64_t sum) {
  while (sum >> 16U != 0) {
    sum = (sum & 0xFFFFU) + (sum >> 16U);
  }
  return static_cast<uint16_t>(sum);
}

uint8_t ipVersion(BytesView packet) {
  return packet.empty() ? uint8_t{0} : static_cast<uint8_t>(packet[0] >> 4U);
}

/// Sum over the pseudo header and the UDP packet; folds to 0xFFFF when a checksum in it is right.
uint64_t udpSum(BytesView packet, size_t ipHeader) {
  const BytesView udp = packet.subspan(ipHeader);
  const BytesView addresses = ipVersion(packet) == 4
                                  ? packet.subspan(kIpv4Source.offset, 2 * kIpv4Source.size)
                                  : packet.subspan(kIpv6Source.offset, 2 * kIpv6Source.size);
  return sumWords(udp, sumWords(addresses, udp.size() + kUdpProtocol));
}

void writeIpv4Checksum(uint8_t* header, size_t size) {
  put16(header + 10, 0);
  put16(header + 10, static_cast<uint16_t>(~foldSum(sumWords({header, size}))));
}

void writeUdpChecksum(std::span<uint8_t> packet, size_t ipHeader) {
  uint8_t* const field = packet.data() + ipHeader + 6;
  put16(field, 0);
  const auto checksum = static_cast<uint16_t>(~foldSum(udpSum(packet, ipHeader)));
  put16(field, checksum == 0 ? uint16_t{0xFFFF} : checksum);  // 0 would mean that there is none.
}

void putAddress(std::span<uint8_t> packet, const AddressPlace& place, const IpGenAddr& address) {
  std::copy_n(address.v6Addr().data(), place.size, packet.data() + place.offset);
}

IpGenAddr ipv4Address(BytesView packet, const AddressPlace& place) {
  return IpGenAddr::fromV4(get32(packet.data() + place.offset));
}

IpGenAddr ipv6Address(BytesView packet, const AddressPlace& place) {
  std::array<uint8_t, 16> bytes{};
  std::copy_n(packet.data() + place.offset, place.size, bytes.data());
  return IpGenAddr::fromV6(bytes);
}

/// Reads the UDP header behind the IP header; `packet` ends where the IP packet ends.
std::optional<UdpPacket> readUdp(BytesView packet, size_t ipHeader, const IpGenAddr& src,
                                 const IpGenAddr& dst) {
  if (packet.size() < ipHeader + kUdpHeader) {
    return std::nullopt;
  }
  const uint8_t* const udp = packet.data() + ipHeader;
  if (get16(udp + 4) != packet.size() - ipHeader) {
    return std::nullopt;
  }
  const bool hasChecksum = get16(udp + 6) != 0;
  if (hasChecksum ? foldSum(udpSum(packet, ipHeader)) != 0xFFFF : ipVersion(packet) == 6) {
    return std::nullopt;
  }
  return UdpPacket{
      .ends = {.src = src, .dst = dst, .srcPort = get16(udp), .dstPort = get16(udp + 2)},
      .payloadOffset = ipHeader + kUdpHeader,
      .payloadSize = packet.size() - ipHeader - kUdpHeader};
}

bool rewriteAddress(std::span<uint8_t> packet, const AddressPlace& ipv4, const AddressPlace& ipv6,
                    const IpGenAddr& from, const IpGenAddr& to) {
  const uint8_t version = ipVersion(packet);
  const bool isIpv4 = version == 4 && packet.size() >= kIpv4Header + kUdpHeader;
  const bool isIpv6 = version == 6 && packet.size() >= kIpv6Header + kUdpHeader;
  if ((!isIpv4 && !isIpv6) || from.family() != to.family() ||
      (isIpv4 ? ipv4Address(packet, ipv4) : ipv6Address(packet, ipv6)) != from) {
    return false;
  }
  const size_t header = isIpv4 ? static_cast<size_t>(packet[0] & 0x0FU) * 4 : kIpv6Header;
  if (packet.size() < header + kUdpHeader || header < kIpv4Header) {
    return false;
  }
  putAddress(packet, isIpv4 ? ipv4 : ipv6, to);
  // Checksums are changed by the difference, so that one that was wrong stays wrong.
  const auto adjust = [&](uint8_t* field) {
    const uint64_t sum =
        static_cast<uint16_t>(~get16(field)) +
        static_cast<uint64_t>(static_cast<uint16_t>(~foldSum(sumWords(from.v6Addr())))) +
        foldSum(sumWords(to.v6Addr()));
    put16(field, static_cast<uint16_t>(~foldSum(sum)));
  };
  if (isIpv4) {
    adjust(packet.data() + 10);
  }
  uint8_t* const udpChecksum = packet.data() + header + 6;
  if (get16(udpChecksum) != 0) {
    adjust(udpChecksum);
    if (get16(udpChecksum) == 0) {
      put16(udpChecksum, 0xFFFF);
    }
  }
  return true;
}

}  // namespace

size_t udpHeadersSize(AddressFamily family) {
  switch (family) {
    case AddressFamily::ipv4:
      return kIpv4Header + kUdpHeader;
    case AddressFamily::ipv6:
      return kIpv6Header + kUdpHeader;
    case AddressFamily::none:
      break;
  }
  return 0;
}

void writeUdpHeaders(std::span<uint8_t> packet, const UdpEnds& ends, UdpChecksum checksum) {
  const AddressFamily family = ends.src.family();
  const size_t headers = udpHeadersSize(family);
  if (headers == 0 || ends.dst.family() != family) {
    throw std::invalid_argument("UDP packet: addresses " + ends.src.stringValue() + " and " +
                                ends.dst.stringValue() + " are not of one family");
  }
  if (packet.size() < headers || packet.size() > 0xFFFF) {
    throw std::invalid_argument("UDP packet: size " + std::to_string(packet.size()) +
                                " bytes does not fit an IP packet");
  }
  uint8_t* const ip = packet.data();
  const size_t ipHeader = headers - kUdpHeader;
  std::fill_n(ip, headers, uint8_t{0});
  uint8_t* const udp = ip + ipHeader;
  put16(udp, ends.srcPort);
  put16(udp + 2, ends.dstPort);
  put16(udp + 4, static_cast<uint16_t>(packet.size() - ipHeader));
  if (family == AddressFamily::ipv4) {
    ip[0] = 0x45;
    put16(ip + 2, static_cast<uint16_t>(packet.size()));
    put16(ip + 6, kDontFragment);  // So the identification may stay 0 (RFC 6864).
    ip[8] = kHopLimit;
    ip[9] = kUdpProtocol;
    putAddress(packet, kIpv4Source, ends.src);
    putAddress(packet, kIpv4Destination, ends.dst);
    writeIpv4Checksum(ip, ipHeader);
  } else {
    ip[0] = 0x60;
    put16(ip + 4, static_cast<uint16_t>(packet.size() - ipHeader));
    ip[6] = kUdpProtocol;
    ip[7] = kHopLimit;
    putAddress(packet, kIpv6Source, ends.src);
    putAddress(packet, kIpv6Destination, ends.dst);
  }
  if (checksum == UdpChecksum::computed || family == AddressFamily::ipv6) {
    writeUdpChecksum(packet, ipHeader);
  }
}

std::optional<size_t> ipPacketSize(BytesView bytes) {
  size_t size = 0;
  if (ipVersion(bytes) == 4 && bytes.size() >= kIpv4Header) {
    size = get16(bytes.data() + 2);
    if (size < kIpv4Header) {
      return std::nullopt;
    }
  } else if (ipVersion(bytes) == 6 && bytes.size() >= kIpv6Header) {
    size = kIpv6Header + get16(bytes.data() + 4);
  } else {
    return std::nullopt;
  }
  return size <= bytes.size() ? std::optional(size) : std::nullopt;
}

std::optional<UdpPacket> readUdpPacket(BytesView packet) {
  if (ipPacketSize(packet) != packet.size()) {
    return std::nullopt;
  }
  const uint8_t* const ip = packet.data();
  if (ipVersion(packet) == 4) {
    const size_t header = static_cast<size_t>(ip[0] & 0x0FU) * 4;
    const bool fragment = (get16(ip + 6) & 0x3FFFU) != 0;
    if (header < kIpv4Header || header > packet.size() || fragment || ip[9] != kUdpProtocol ||
        foldSum(sumWords(packet.first(header))) != 0xFFFF) {
      return std::nullopt;
    }
    return readUdp(packet, header, ipv4Address(packet, kIpv4Source),
                   ipv4Address(packet, kIpv4Destination));
  }
  if (ip[6] != kUdpProtocol) {
    return std::nullopt;
  }
  return readUdp(packet, kIpv6Header, ipv6Address(packet, kIpv6Source),
                 ipv6Address(packet, kIpv6Destination));
}

bool rewriteSource(std::span<uint8_t> packet, const IpGenAddr& from, const IpGenAddr& to) {
  return rewriteAddress(packet, kIpv4Source, kIpv6Source, from, to);
}

bool rewriteDestination(std::span<uint8_t> packet, const IpGenAddr& from, const IpGenAddr& to) {
  return rewriteAddress(packet, kIpv4Destination, kIpv6Destination, from, to);
}

}  // namespace tessel::lab
