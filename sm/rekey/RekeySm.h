// RekeySm: the rekey machine of one path.
//
// It watches the path's state and, through one reactor per SA, each of its SAs. SA rekey, with A
// the initiator:
//
//   A  17  nonce sent on the steady out-SA   ----------------->
//                                                               B  23  in-SA created
//                                                               B  25  in-SA installed
//      19  in-SA created                     <-----------------       nonce sent
//      20  in-SA installed, out-SA created
//      21  out-SA installed: complete, sends ----------------->
//                                                               B  26  traffic: out-SA created
//                                                               B  27  out-SA installed: complete
//
// DH rekey, per path, once the in-SAs of the new generation exist on both sides:
//
//   initiator   5  in-SA installed
//                                                      responder  10  in-SA installed, out-SA made
//                                                                 11  out-SA installed: complete
//               6  traffic: out-SA made      <-----------------
//               7  out-SA installed: complete
#pragma once

#include <optional>

#include "host/entity/Entity.h"
#include "host/model/Events.h"
#include "host/model/IkePath.h"
#include "host/model/IkeStatus.h"
#include "host/model/Keys.h"
#include "host/model/Path.h"
#include "sm/KeptMember.h"

namespace tessel::Ipsec {

class TesselV1Sm;

class RekeySm final : public RefCounted {
 public:
  /// Constructs a machine without path state; it is initialized on return.
  static Ptr<RekeySm> RekeySmIs(TesselV1Sm* sm, const ConnectionKey& key,
                                const Ptr<RecordEvents>& recordEvents);

  const ConnectionKey& connectionKey() const { return connectionKey_; }
  const Ptr<RecordEvents>& recordEvents() const { return recordEvents_; }
  bool initialized() const { return initialized_; }

  /// The watched path state: null clears it and removes every reactor.
  void pathConnStateIs(const Ptr<Ike::PathConnState>& path);
  const Ptr<Ike::PathConnState>& pathConnState() const { return pathConnState_; }
  void hasNotificationActiveIs(bool active);

  /// Watches one SA of the path.
  class SaInfo final : public RefCounted {
   public:
    SaInfo(RekeySm& rekeySm, Ptr<Ike::PathConnSaInfo> notifier);
    const Ptr<Ike::PathConnSaInfo>& notifier() const { return notifier_; }
    /// Runs the three handlers once, so that nothing is missed that came before the reactor.
    void handleAttached();
    void end() { subscription_.end(); }

   private:
    void dispatch(const Change& change);

    RekeySm& rekeySm_;
    const Ptr<Ike::PathConnSaInfo> notifier_;
    Subscription subscription_;
  };
  const KeyedCollection<SecurityAssociationKey, Ptr<SaInfo>>& pathConnSaInfo() const {
    return pathConnSaInfo_;
  }

  // What the agent says of the path, and its test knob; null where there is none. Kept, since the
  // sweeps ask for it.

  const Path::PathStatus* pathStatus() const;
  Ike::PathTestKnob* testKnob() const;

  // Lookups: the first match in the order of the path's SAs, or null.

  Ptr<Ike::PathConnSaInfo> getSaInfoFromType(SaType type) const;
  Ptr<Ike::SecurityAssociation> getSaFromType(SaType type) const;
  Ptr<Ike::SecurityAssociation> getSaFromDhKeyPairAndType(const DhKeyPair& pair, SaType type) const;
  /// The key of the SA of the other direction. The SA must be one of the path's.
  SecurityAssociationKey getPairSakey(const SecurityAssociationKey& key) const;

  // Setters, each of which traces the old and the new value.

  void setSaType(const Ptr<Ike::SecurityAssociation>& sa, SaType type);
  void setSaRekeyState(const SecurityAssociationKey& key, SaRekeyState state);
  void setDhRekeyState(const DhKeyPair& pair, DhRekeyState state);
  void setSaSmState(SmState state);
  void setPathState(const Ptr<Ike::PathConnState>& path, DynamicPathState state);

  // Nonce exchange.

  /// Generates a new local nonce for the path; on failure the SA is marked and the old one stays.
  void setSaRekeyNonce(const SecurityAssociationKey& saKey);
  void handlePeerNonce(const SecurityAssociationKey& saKey);
  /// Decides the path's role from the received nonce; true means go on and use the nonce.
  bool handlePeerNonceType(const SecurityAssociationKey& saKey);
  /// The responder's answer, on the steady out-SA.
  void doUpdateNonceForPeer();

  // Installation and completion.

  /// The data path installed an SA. Always false.
  bool handleSaInstalled(const SecurityAssociationKey& key);
  /// Traffic was seen on an SA. Always false.
  bool handlePktsPresent(const SecurityAssociationKey& key);
  /// Creates the SA of `type` beside `sa`: same path, same generations, same request id.
  void doInstallRekeySa(const Ptr<Ike::SecurityAssociation>& sa, SaType type);
  /// Installs the out-SA that belongs to a DH-rekey in-SA, or to the latest generation's.
  void installDhRekeyOutSa(const SecurityAssociationKey& inSaKey);
  /// The key of the path's DH-rekey in-SA of the peer's latest pair.
  std::optional<SecurityAssociationKey> getLatestInSaKey(const SecurityAssociationKey& key) const;
  /// Makes the new pair steady and retires the rest.
  void markRekeyComplete(const SecurityAssociationKey& outSaKey);

 private:
  RekeySm(TesselV1Sm* sm, const ConnectionKey& key, const Ptr<RecordEvents>& recordEvents);
  ~RekeySm() override;

  void handleInitialized();
  void pathConnStateDispatch(const Change& change);
  /// Makes the reactors match the SAs of the path.
  void syncSaInfos();
  void pathConnSaInfoIs(const Ptr<Ike::PathConnSaInfo>& saInfo);
  void pathConnSaInfoDel(const SecurityAssociationKey& key);

  /// The SA that a reactor watches, or null.
  Ptr<Ike::SecurityAssociation> findSa(const SecurityAssociationKey& key) const;
  /// The path's DH role for a pair of generations: idle where there is none.
  SmState dhSmStateOf(const DhKeyPair& pair) const;
  // An SA was installed, by the path's role. Whether that led to anything.
  bool handleDhInitiatorInstalled(const Ptr<Ike::SecurityAssociation>& sa);
  bool handleDhResponderInstalled(const Ptr<Ike::SecurityAssociation>& sa);
  bool handleSaInitiatorInstalled(const Ptr<Ike::SecurityAssociation>& sa);
  bool handleSaResponderInstalled(const Ptr<Ike::SecurityAssociation>& sa);
  bool isLatestDhKeyPair(const DhKeyPair& pair) const;
  /// Whether an SA belongs to a DH rekey that runs beside the rekey of `completing`.
  bool belongsToDhRekey(const Ike::SecurityAssociation& sa, const DhKeyPair& completing) const;
  /// Whether a DH rekey has made an out-SA already of generations newer than `pair`.
  bool hasNewerOutSa(const DhKeyPair& pair) const;
  /// The in-SA to install an out-SA for, decided from an in-SA; null for none.
  Ptr<Ike::SecurityAssociation> selectInSaForOutSa(const Ptr<Ike::SecurityAssociation>& inSa);

  TesselV1Sm* const sm_;
  // What the sweeps look at, together.
  Ptr<Ike::PathConnState> pathConnState_;
  KeptMember<const Path::PathStatus> pathStatus_;
  KeptMember<Ike::PathTestKnob> testKnob_;
  const ConnectionKey connectionKey_;
  const Ptr<RecordEvents> recordEvents_;
  Subscription pathConnStateSubscription_;
  KeyedCollection<SecurityAssociationKey, Ptr<SaInfo>> pathConnSaInfo_;
  bool notificationActive_ = true;
  bool initialized_ = false;
};

Ptr<RekeySm> rekeySmFactory(TesselV1Sm* sm, const ConnectionKey& key,
                            const Ptr<RecordEvents>& recordEvents);

/// The word that carries a nonce, host byte order: the type in bits 31 to 28, the value below.
uint32_t nonceWord(NonceType type, uint32_t nonceValue);

}  // namespace tessel::Ipsec
