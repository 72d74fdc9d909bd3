// EventRecorder: the machine's short history, in bounded logs that operators can inspect.
#pragma once

#include "host/model/Events.h"

namespace tessel::Ipsec {

class TesselV1Sm;

/// Records events into the host's `RecordEvents`. Nothing here fails towards its caller; nothing is
/// recorded while the toggle "TrellisSnapshot" is off.
class EventRecorder {
 public:
  explicit EventRecorder(TesselV1Sm& sm) : sm_(sm) {}

  void recordLocalEvent(EventName eventName, uint64_t number);
  void recordPeerEvent(EventName eventName, const IpGenAddr& peerAddr);
  /// Records nothing for a path without status or state.
  void recordPathEvent(EventName eventName, const ConnectionKey& connectionKey,
                       const DhKeyPair& dhKeyPair);
  void recordSaEvent(EventName eventName, const SecurityAssociationKey& saKey,
                     const ConnectionKey& connectionKey);

 private:
  bool recording() const;

  TesselV1Sm& sm_;
};

}  // namespace tessel::Ipsec
