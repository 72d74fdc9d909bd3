#include "lab/report/PacketCapture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <ostream>

#include <fmt/format.h>

#include "host/model/ByteOrder.h"

namespace tessel::lab {
namespace {

constexpr uint32_t kPcap = 0xA1B2C3D4;  // With microseconds.
constexpr uint32_t kLinkTypeRaw = 101;  // IPv4 or IPv6, as the first half byte says.
constexpr uint32_t kSnapLength = 0x40000;
constexpr int kMicroseconds = 1'000'000;  // In a second.

void writeWords(std::ostream& out, std::initializer_list<uint32_t> words) {
  for (const uint32_t word : words) {
    std::array<uint8_t, 4> bytes{};
    put32(bytes.data(), word);
    out.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
}

std::string hexText(const SecretBytes& key) {
  std::string text = key.empty() ? "" : "0x";
  for (const uint8_t byte : key.view()) {
    text += fmt::format("{:02x}", byte);
  }
  return text;
}

const char* familyText(const IpGenAddr& address) {
  return address.family() == AddressFamily::ipv6 ? "IPv6" : "IPv4";
}

/// The table's names of algorithms; empty for one that it does not have.
std::string encryptionText(const Ike::SecurityAssociation& sa) {
  if (sa.cryptoAlgo() == "rfc4106(gcm(aes))") {
    return fmt::format("AES-GCM with {} octet ICV [RFC4106]", sa.icvLen() / 8);
  }
  if (sa.cryptoAlgo() == "aes") {
    return "AES-CBC [RFC3602]";
  }
  return sa.cryptoAlgo() == "cipher_null" ? "NULL" : "";
}

std::string integrityText(const Ike::SecurityAssociation& sa) {
  struct Row {
    const char* name;
    uint16_t usualBits;
    const char* text;
  };
  static constexpr std::array<Row, 5> rows = {
      {{"md5", 96, "HMAC-MD5-96 [RFC2403]"},
       {"sha1", 96, "HMAC-SHA-1-96 [RFC2404]"},
       {"hmac(sha256)", 128, "HMAC-SHA-256-128 [RFC4868]"},
       {"hmac(sha384)", 192, "HMAC-SHA-384-192 [RFC4868]"},
       {"hmac(sha512)", 256, "HMAC-SHA-512-256 [RFC4868]"}}};
  const auto* const row =
      std::ranges::find_if(rows, [&](const Row& each) { return sa.authAlgo() == each.name; });
  if (sa.cryptoAlgo() == "rfc4106(gcm(aes))" || row == rows.end()) {
    return "NULL";
  }
  if (sa.authTruncLen() == 0 || sa.authTruncLen() == row->usualBits) {
    return row->text;
  }
  return fmt::format("ANY {} bit authentication [no checking]", sa.authTruncLen());
}

}  // namespace

class PacketCapture::Watch final : public DataPlaneObserver {
 public:
  Watch(PacketCapture& capture, Router& router)
      : capture_(capture), router_(router), clock_(router.running().dataScheduler->clock()) {
    router_.dataPlane().observerAdd(*this);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() override { router_.dataPlane().observerDel(*this); }

 private:
  bool wantsPackets() const override { return true; }
  void handlePacketSent(const PacketSent& packet) override {
    const auto start = static_cast<int64_t>(VirtualTime::defaultUtcStart().seconds());
    const int64_t time = start * kMicroseconds +
                         std::llround(clock_.monotonicTime().seconds() * double{kMicroseconds});
    const auto size = static_cast<uint32_t>(packet.outer.size());
    writeWords(capture_.out_, {static_cast<uint32_t>(time / kMicroseconds),
                               static_cast<uint32_t>(time % kMicroseconds), size, size});
    capture_.out_.write(reinterpret_cast<const char*>(packet.outer.data()), size);
  }

  PacketCapture& capture_;
  Router& router_;
  const Clock& clock_;
};

PacketCapture::PacketCapture(std::ostream& out) : out_(out) {
  writeWords(out_, {kPcap, 2U << 16U | 4U, 0, 0, kSnapLength, kLinkTypeRaw});
}

std::unique_ptr<DataPlaneObserver> PacketCapture::watch(Router& router) {
  return std::make_unique<Watch>(*this, router);
}

class EspKeyFile::Watch final : public DataPlaneObserver {
 public:
  Watch(EspKeyFile& file, Router& router) : file_(file), router_(router) {
    router_.dataPlane().observerAdd(*this);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() override { router_.dataPlane().observerDel(*this); }

 private:
  void handleSaInstalled(const SaReport& report) override {
    const Ptr<Ike::SecurityAssociation>* sa = router_.entities().tesselV1->sa().find(report.key);
    if (!report.inbound && sa != nullptr) {
      file_.write(**sa);
    }
  }

  EspKeyFile& file_;
  Router& router_;
};

std::unique_ptr<DataPlaneObserver> EspKeyFile::watch(Router& router) {
  return std::make_unique<Watch>(*this, router);
}

void EspKeyFile::write(const Ike::SecurityAssociation& sa) {
  SecurityAssociationKey key = sa.sakey();
  key.reqid = 0;
  if (!written_.emplace(key, sa.saddr()).second) {
    return;
  }
  const std::string encryption = encryptionText(sa);
  const std::string integrity = integrityText(sa);
  const std::string fields[] = {familyText(sa.saddr()),
                                sa.saddr().stringValue(),
                                key.daddr.stringValue(),
                                spiText(key.spi),
                                encryption,
                                hexText(sa.cryptoKey()),
                                integrity,
                                integrity == "NULL" ? "" : hexText(sa.authKey())};
  std::string line;
  for (const std::string& field : fields) {
    line += (line.empty() ? "\"" : ",\"") + field + "\"";
  }
  out_ << line << "\n";
}

}  // namespace tessel::lab
