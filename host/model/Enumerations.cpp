#include "host/model/Enumerations.h"

#include <span>
#include <stdexcept>

namespace tessel {

namespace {

std::string named(std::span<const char* const> names, uint32_t number) {
  const char* name = number < names.size() ? names[number] : "unknown";
  return std::string(name) + "(" + std::to_string(number) + ")";
}

}  // namespace

bool isInSa(SaType type) {
  return type == SaType::steadyIn || type == SaType::saRekeyIn || type == SaType::dhRekeyIn ||
         type == SaType::retiredIn;
}

bool isOutSa(SaType type) {
  return type == SaType::steadyOut || type == SaType::saRekeyOut || type == SaType::dhRekeyOut ||
         type == SaType::retiredOut;
}

std::string stringValue(SaType type) {
  static constexpr const char* names[] = {
      "none",         "steady-in",   "steady-out",   "steady-pair", "sa-rekey-in",
      "sa-rekey-out", "dh-rekey-in", "dh-rekey-out", "retired-in",  "retired-out"};
  return named(names, static_cast<uint32_t>(type));
}

std::string stringValue(SmState state) {
  static constexpr const char* names[] = {"idle",      "dh-rekeying",    "initiator",
                                          "responder", "both-initiated", "no-role"};
  return named(names, static_cast<uint32_t>(state));
}

std::string stringValue(DhRekeyState state) {
  static constexpr const char* names[] = {"not-rekeying", "initiated", "in-sa-installed",
                                          "in-progress", "out-sa-installing"};
  return named(names, static_cast<uint32_t>(state));
}

std::string stringValue(SaRekeyState state) {
  static constexpr const char* names[] = {"steady", "peer-nonce-received", "installed", "in-use",
                                          "nonce-failed"};
  return named(names, static_cast<uint32_t>(state));
}

std::string stringValue(DynamicPathState state) {
  static constexpr const char* names[kDynamicPathStates] = {"none",
                                                            "established",
                                                            "idle",
                                                            "active",
                                                            "dh-initiator-marked",
                                                            "dh-initiator-in-sa-installed",
                                                            "dh-initiator-out-sa-installing",
                                                            "dh-initiator-out-sa-installed",
                                                            "dh-initiator-complete",
                                                            "dh-responder-marked",
                                                            "dh-responder-in-sa-installed",
                                                            "dh-responder-out-sa-installed",
                                                            "dh-responder-complete",
                                                            "dh-responder-marked-again",
                                                            "dh-initiator-marked-again",
                                                            "dh-old-out-sa-installed",
                                                            "dh-latest-out-sa-installing",
                                                            "sa-initiator-nonce-sent",
                                                            "sa-initiator-tie-won",
                                                            "sa-initiator-answered",
                                                            "sa-initiator-in-sa-installed",
                                                            "sa-initiator-out-sa-installed",
                                                            "sa-initiator-complete",
                                                            "sa-responder-nonce-accepted",
                                                            "sa-responder-unused",
                                                            "sa-responder-in-sa-installed",
                                                            "sa-responder-out-sa-installing",
                                                            "sa-responder-out-sa-installed",
                                                            "sa-responder-complete",
                                                            "sa-both-initiated",
                                                            "unused",
                                                            "rebuild"};
  return named(names, static_cast<uint32_t>(state));
}

std::string stringValue(PeerConnStatus status) {
  static constexpr const char* names[] = {"ready", "down"};
  return named(names, static_cast<uint32_t>(status));
}

std::string stringValue(PeerDownReason reason) {
  static constexpr const char* names[] = {"none",
                                          "dh-group-mismatch",
                                          "dh-key-length-mismatch",
                                          "nonce-length-mismatch",
                                          "encryption-algorithm-mismatch",
                                          "integrity-algorithm-mismatch",
                                          "key-derivation-failed"};
  return named(names, static_cast<uint32_t>(reason));
}

std::string stringValue(IpsecEspAlgorithm algorithm) {
  static constexpr const char* names[] = {"none",           "aes-128-cbc",    "aes-128-gcm-8",
                                          "aes-128-gcm-16", "aes-256-gcm-16", "aes-256-cbc",
                                          "null",           "aes-192-cbc"};
  return named(names, static_cast<uint32_t>(algorithm));
}

std::string stringValue(IpsecHmacAlgorithm algorithm) {
  static constexpr const char* names[] = {"md5",    "sha1", "sha256", "sha384",
                                          "sha512", "none", "unused"};
  return named(names, static_cast<uint32_t>(algorithm));
}

std::string stringValue(NonceType type) {
  static constexpr const char* names[] = {"none", "initiator", "responder"};
  return named(names, static_cast<uint32_t>(type));
}

NonceType NonceTypeInstance(uint32_t number) {
  if (number > static_cast<uint32_t>(NonceType::responder)) {
    throw std::out_of_range("NonceType out of range");
  }
  return static_cast<NonceType>(number);
}

std::string stringValue(IpsecDhGroup group) {
  static constexpr const char* names[] = {
      "none",      "modp-768",  "modp-1024", "unknown",      "unknown", "modp-1536", "unknown",
      "unknown",   "unknown",   "unknown",   "unknown",      "unknown", "unknown",   "unknown",
      "modp-2048", "modp-3072", "modp-4096", "modp-6144",    "unknown", "ecp-256",   "ecp-384",
      "ecp-521",   "unknown",   "unknown",   "modp-2048-256"};
  return named(names, static_cast<uint32_t>(group));
}

DhGroupNum getDhGroupNum(IpsecDhGroup group) {
  static constexpr std::array<DhGroupNum, 25> numbers = {
      0, 1, 2, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 0, 14, 15, 16, 17, 0, 19, 20, 21, 0, 0, 24};
  const auto value = static_cast<size_t>(group);
  return value < numbers.size() ? numbers[value] : 0;
}

std::string stringValue(IpsecEncapProtocol protocol) {
  static constexpr const char* names[] = {"none", "udp"};
  return named(names, static_cast<uint32_t>(protocol));
}

}  // namespace tessel
