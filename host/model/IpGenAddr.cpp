#include "host/model/IpGenAddr.h"

#include <arpa/inet.h>

namespace tessel {

std::string stringValue(AddressFamily family) {
  const char* name = "unknown";
  switch (family) {
    case AddressFamily::none:
      name = "none";
      break;
    case AddressFamily::ipv4:
      name = "ipv4";
      break;
    case AddressFamily::ipv6:
      name = "ipv6";
      break;
  }
  return std::string(name) + "(" + std::to_string(static_cast<uint32_t>(family)) + ")";
}

IpGenAddr IpGenAddr::fromV4(uint32_t address) {
  IpGenAddr result(AddressFamily::ipv4);
  for (size_t i = 0; i < 4; ++i) {
    result.bytes_[i] = static_cast<uint8_t>(address >> (24 - 8 * i));
  }
  return result;
}

IpGenAddr IpGenAddr::fromV6(const std::array<uint8_t, 16>& bytes) {
  IpGenAddr result(AddressFamily::ipv6);
  result.bytes_ = bytes;
  return result;
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
  if (text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  const std::string terminated(text);
  std::array<uint8_t, 16> bytes{};
  if (inet_pton(AF_INET, terminated.c_str(), bytes.data()) == 1) {
    IpGenAddr result(AddressFamily::ipv4);
    result.bytes_ = bytes;
    return result;
  }
  if (inet_pton(AF_INET6, terminated.c_str(), bytes.data()) == 1) {
    return fromV6(bytes);
  }
  return std::nullopt;
}

bool IpGenAddr::isUnspecified() const {
  return bytes_ == std::array<uint8_t, 16>{};
}

uint32_t IpGenAddr::v4Addr() const {
  if (family() != AddressFamily::ipv4) {
    return 0;
  }
  return static_cast<uint32_t>(bytes_[0]) << 24U | static_cast<uint32_t>(bytes_[1]) << 16U |
         static_cast<uint32_t>(bytes_[2]) << 8U | static_cast<uint32_t>(bytes_[3]);
}

std::string IpGenAddr::stringValue() const {
  if (family() == AddressFamily::none) {
    return "unspecified";
  }
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(family() == AddressFamily::ipv4 ? AF_INET : AF_INET6, bytes_.data(), text, sizeof text);
  return text;
}

}  // namespace tessel
