// CryptoParams: whether a peer's published parameters fit the local ones, and what its algorithms
// mean for the data path.
#pragma once

#include "host/model/IpGenAddr.h"

namespace tessel::Ipsec {

class TesselV1Sm;

class CryptoParams {
 public:
  explicit CryptoParams(TesselV1Sm& sm) : sm_(sm) {}

  /// Copies the peer's published parameters into its state, then compares them with the local
  /// key's. The first difference sets `peerDownReason` and yields false.
  bool doValidateCryptoParams(const IpGenAddr& peer);

  /// Fills the data-path description of the peer: algorithm names, lengths in bits.
  void doGetCryptoKeyLen(const IpGenAddr& peer);

 private:
  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
