// SecurityAssociations: SAs made from crypto material, and taken out of every table again.
#pragma once

#include <cstdint>
#include <string>

#include "host/model/Counters.h"
#include "host/model/IkePath.h"
#include "host/model/IkeSa.h"
#include "host/model/Keys.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// The key of the path that an SA belongs to: local end first, whatever the SA's direction.
ConnectionKey getConnectionKeyFromSa(const Ike::SecurityAssociation& sa);

class SecurityAssociations {
 public:
  explicit SecurityAssociations(TesselV1Sm& sm) : sm_(sm) {}

  // Creation.

  /// Creates the SAs that `saType` asks for on one path. `reqid` 0 takes it from the encapsulation
  /// id. What is missing stops it with a trace.
  void doCreateIpsecControllerSAs(const ConnectionKey& connKey, const DhKeyPair& dhKeyPair,
                                  const std::string& profileName, uint32_t reqid, SaType saType);
  /// Creates one SA.
  void doCreateIpsecControllerSA(const IpGenAddr& remoteIp, const ConnectionKey& connKey,
                                 const DhKeyPair& dhKeyPair, const std::string& profileName,
                                 const IpGenAddr& publicIp, uint32_t reqid, SaType saType);

  /// The SPI on the wire for a derived SPI: the addresses of both ends are added (modulo 2^32), the
  /// public address in place of the local one. `firstSpi` says which of the two addresses is local:
  /// the first for the first SPI, the second for the second.
  uint32_t getSpiForConnection(uint32_t spi, const IpGenAddr& localAddr,
                               const IpGenAddr& remoteAddr, const IpGenAddr& publicIp,
                               bool isInitiator, bool firstSpi) const;
  /// Both SPIs of a path for one crypto record.
  struct SpiPair {
    uint32_t out = 0;
    uint32_t in = 0;
  };
  SpiPair wireSpis(const Ike::CryptoInfo& info, const ConnectionKey& connKey,
                   const IpGenAddr& publicIp, bool isInitiator) const;

  /// Links a new SA into its path's state.
  void fillPathConnSaInfo(const Ptr<Ike::SecurityAssociation>& sa);
  /// Copies the data path's counters of one SA into its record on the path.
  void setSaInfoEntry(const SecurityAssociationKey& key);
  /// The same for an SA that a path's rekey machine watches.
  void setSaInfoEntry(Ike::PathConnSaInfo& watched);
  /// The data path's counters of one SA; the empty entry when there is none or when it is corrupt,
  /// which is reported to the counter table.
  IpsecCounters::IpsecSACounterEntry saCounters(const SecurityAssociationKey& key) const;

  // Deletion and retirement.

  /// Takes one SA out of every table.
  void doDeleteSA(const Ptr<Ike::SecurityAssociation>& sa, const Ptr<Ike::PathConnState>& path);
  /// Deletes every SA of a path.
  void doDeleteIpsecControllerSAs(const Ptr<Ike::PathConnState>& path);
  /// Destroys every path of a peer.
  void doDeletePeerSAs(const IpGenAddr& peer);
  /// Deletes every peer, with its paths and SAs.
  void doDeleteAllPeerSAs();
  /// Retires crypto and stored peer generations that are more than one generation behind and that
  /// no SA belongs to.
  void deleteOldCryptoInfos();
  /// The same, unless nothing was derived or published since the last time.
  void deleteOldCryptoInfosIfChanged();
  void generationsChangedIs() { generationsChanged_ = true; }

 private:
  void fillLifetimes(const Ike::SecurityAssociationConfig& config, Ike::LifetimeCfg& limits) const;

  bool deleteOldCryptoInfosOf(const IpGenAddr& peer, Ike::PeerConnectionState& state,
                              uint64_t local);

  TesselV1Sm& sm_;
  bool generationsChanged_ = false;
};

}  // namespace tessel::Ipsec
