#include "host/model/Keys.h"

#include <cstdio>

namespace tessel {

std::string stringValue(const ConnectionKey& key) {
  return "vrf " + std::to_string(key.vrfId) + " " + key.srcAddr.stringValue() + " -> " +
         key.dstAddr.stringValue();
}

std::string stringValue(const MergeResolutionKey& key) {
  return "vrf " + std::to_string(key.vrfId) + " " + key.srcAddr.stringValue() + " -> " +
         key.dstAddr.stringValue();
}

std::string spiText(uint32_t spi) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", spi);
  return text;
}

std::string stringValue(const SecurityAssociationKey& key) {
  return "spi " + spiText(key.spi) + " daddr " + key.daddr.stringValue() + " proto " +
         std::to_string(key.proto) + " reqid " + std::to_string(key.reqid);
}

std::string stringValue(const DhKeyPair& pair) {
  return "( " + std::to_string(pair.localRekeyCount) + " , " + std::to_string(pair.peerRekeyCount) +
         " )";
}

}  // namespace tessel
