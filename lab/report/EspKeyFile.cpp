#include "lab/report/EspKeyFile.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string>

#include <fmt/format.h>

namespace tessel::lab {
namespace {

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

class EspKeyFile::Watch final : public DataPlaneWatch {
 public:
  Watch(EspKeyFile& file, Router& router) : DataPlaneWatch(router), file_(file) {}

 private:
  void handleSaInstalled(const SaReport& report) override {
    const Ptr<Ike::SecurityAssociation>* sa = router().entities().tesselV1->sa().find(report.key);
    if (!report.inbound && sa != nullptr) {
      file_.write(**sa);
    }
  }

  EspKeyFile& file_;
};

std::unique_ptr<DataPlaneWatch> EspKeyFile::watch(Router& router) {
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
