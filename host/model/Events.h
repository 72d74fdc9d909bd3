// RecordEvents: the bounded event logs, per router, peer, path and SA.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/entity/Entity.h"
#include "host/facility/Export.h"
#include "host/model/Duration.h"
#include "host/model/Enumerations.h"
#include "host/model/Keys.h"

namespace tessel {

namespace IpsecCommon {
class TesselV1;
}

/// The name of every event that the machine records, sorted.
inline constexpr std::string_view kEventNames[] = {"clearPath",
                                                   "createControllerSA",
                                                   "createControllerSAs",
                                                   "createPeerKeyInfo",
                                                   "deleteControllerSAs",
                                                   "deleteOldCryptoInfos",
                                                   "deleteOldLocalKeys",
                                                   "deletePeerKeyInfo",
                                                   "deletePeerSAs",
                                                   "deleteSA",
                                                   "destroyDhKey",
                                                   "destroyPath",
                                                   "dhRekeyInProgress",
                                                   "dhRekeyInSaInstalled",
                                                   "dhRekeyInitiated",
                                                   "dhRekeyNotRekeying",
                                                   "establishPath",
                                                   "fillPathConnSaInfo",
                                                   "firstDhExchange",
                                                   "generateCryptoKeys",
                                                   "generateDhKey",
                                                   "generateLocalKeyInfo",
                                                   "generateOrDestroyDhKey",
                                                   "generatePeerCryptoInfo",
                                                   "handleIpsecPeerKeyInfo",
                                                   "handleKeyController",
                                                   "handlePath",
                                                   "handlePeerNonce",
                                                   "handlePeerNonceType",
                                                   "handlePktsPresent",
                                                   "handleProfile",
                                                   "handleRouterId",
                                                   "handleSaInstalled",
                                                   "initiatorDhRekey",
                                                   "installDhRekeyOutSa",
                                                   "installRekeySa",
                                                   "markPathsAsDhRekeyInitiated",
                                                   "markPathsAsDhRekeyResponder",
                                                   "markRekeyComplete",
                                                   "maybeRekeySa",
                                                   "prunePath",
                                                   "responderDhRekey",
                                                   "updateAppliedProfile",
                                                   "updateNonceForPeer",
                                                   "updateRouterId"};

/// The name of an event: one of `kEventNames`, or none.
class TESSEL_API EventName {
 public:
  constexpr EventName() = default;
  /// From a string literal; one that is not listed does not compile.
  template <size_t N>
  consteval EventName(const char (&text)[N]) {
    const auto* const found = std::ranges::lower_bound(kEventNames, std::string_view(text));
    if (found == std::end(kEventNames) || *found != text) {
      throw "not one of kEventNames";
    }
    number_ = static_cast<uint8_t>(found - std::begin(kEventNames));
  }
  /// The name with a number that `number()` gave.
  static constexpr EventName fromNumber(uint8_t number) {
    EventName name;
    name.number_ = number;
    return name;
  }
  constexpr uint8_t number() const { return number_; }
  constexpr const char* text() const { return number_ == kNone ? "" : kEventNames[number_].data(); }
  std::string string() const { return text(); }

 private:
  static constexpr uint8_t kNone = UINT8_MAX;
  static_assert(std::size(kEventNames) < kNone);

  uint8_t number_ = kNone;
};

/// An event of the router itself; `number` is the own key generation that it is about.
/// `time` is UTC in all events.
struct TESSEL_API LocalEvent {
  Duration time;
  EventName eventName;
  uint64_t number = 0;
};

/// An event of a peer; `dhKeyPair`, here and below, is the pair of generations at that time.
struct TESSEL_API PeerEvent {
  Duration time;
  EventName eventName;
  IpGenAddr peer;
  DhKeyPair dhKeyPair;
};

/// An event of a path, with the state that it was in.
struct TESSEL_API PathEvent {
  Duration time;
  EventName eventName;
  ConnectionKey connectionKey;
  DynamicPathState pathState = DynamicPathState::none;
  DhKeyPair dhKeyPair;
};

/// An event of an SA, with the state of its path.
struct TESSEL_API SaEvent {
  Duration time;
  EventName eventName;
  uint32_t spi = 0;
  DynamicPathState pathState = DynamicPathState::none;
  DhKeyPair dhKeyPair;
};

/// What a log keeps of an event: the key is the log's own.
struct TESSEL_API StoredEvent {
  double time = 0;
  uint64_t first = 0;  ///< Of the key pair; or the number of a local event.
  uint64_t second = 0;
  uint8_t name = 0;
  uint8_t pathState = 0;
};

/// The slots of a log. There are thousands of logs, and most of a router's memory would be theirs:
/// numbers that need more than 32 bits, which are rare, cost their room in those logs alone that
/// have seen one.
class TESSEL_API EventSlots {
 public:
  uint32_t size() const { return static_cast<uint32_t>(slots_.size()); }
  StoredEvent read(uint32_t slot) const;
  /// Makes the slot, and those before it, if it is new.
  void write(uint32_t slot, const StoredEvent& event);

 private:
  struct [[gnu::packed]] Slot {
    double time;
    uint32_t first;
    uint32_t second;
    uint8_t name;
    uint8_t pathState;
  };
  struct UpperHalves {
    uint32_t first;
    uint32_t second;
  };

  std::vector<Slot> slots_;
  std::unique_ptr<std::vector<UpperHalves>> upper_;  // As many as slots, or null: all are 0.
};

/// How an event is kept and read, with the key that all events of one log share.
template <class Event>
struct EventForm;

template <>
struct TESSEL_API EventForm<LocalEvent> {
  struct Key {};
  static StoredEvent store(const LocalEvent& event);
  static LocalEvent read(const Key& key, const StoredEvent& stored);
};
template <>
struct TESSEL_API EventForm<PeerEvent> {
  using Key = IpGenAddr;
  static StoredEvent store(const PeerEvent& event);
  static PeerEvent read(const Key& key, const StoredEvent& stored);
};
template <>
struct TESSEL_API EventForm<PathEvent> {
  using Key = ConnectionKey;
  static StoredEvent store(const PathEvent& event);
  static PathEvent read(const Key& key, const StoredEvent& stored);
};
template <>
struct TESSEL_API EventForm<SaEvent> {
  using Key = SecurityAssociationKey;
  static StoredEvent store(const SaEvent& event);
  static SaEvent read(const Key& key, const StoredEvent& stored);
};

/// One log: a ring of slots. `head` is the slot that the next event takes.
template <class Event>
class TESSEL_API EventLog : public RefCounted {
 public:
  using Key = typename EventForm<Event>::Key;

  EventLog(const Key& key, uint32_t capacity) : key_(key), capacity_(capacity) {}
  /// Whose events these are.
  const Key& key() const { return key_; }
  /// Slots of the ring; at least 1.
  uint32_t capacity() const { return capacity_; }

  /// The events by their slots.
  std::vector<Event> events() const {
    std::vector<Event> result;
    for (uint32_t slot = 0; slot < events_.size(); ++slot) {
      result.push_back(EventForm<Event>::read(key_, events_.read(slot)));
    }
    return result;
  }
  /// Puts an event of the log's key into a slot, which is made if it is new. Slots are used in
  /// order.
  void eventsIs(uint32_t slot, const Event& event) {
    events_.write(slot, EventForm<Event>::store(event));
  }
  uint32_t eventCount() const { return eventCount_; }
  void eventCountInc(uint32_t n) { eventCount_ += n; }
  uint32_t head() const { return head_; }
  void headInc(uint32_t n) { head_ += n; }
  void headIs(uint32_t head) { head_ = head; }

  /// The events from the oldest to the newest.
  std::vector<Event> inOrder() const {
    std::vector<Event> result;
    for (uint32_t i = 0; i < events_.size(); ++i) {
      const uint32_t slot = (head_ + i) % events_.size();
      result.push_back(EventForm<Event>::read(key_, events_.read(slot)));
    }
    return result;
  }

 private:
  EventSlots events_;
  const Key key_;
  const uint32_t capacity_;
  uint32_t eventCount_ = 0;
  uint32_t head_ = 0;
};

using LocalEventLog = EventLog<LocalEvent>;
using PeerEventEntry = EventLog<PeerEvent>;
using PathEventEntry = EventLog<PathEvent>;
class PathNameMapping;
/// The log of one SA.
class TESSEL_API SaEventEntry final : public EventLog<SaEvent> {
 public:
  using EventLog::EventLog;
  const SecurityAssociationKey& sakey() const { return key(); }
  /// The index entry that lists this log; null when none does.
  PathNameMapping* mapping() const { return mapping_; }

 private:
  friend class PathNameMapping;

  PathNameMapping* mapping_ = nullptr;
};

/// From a path's name to the logs that concern it.
class TESSEL_API PathNameMapping final : public RefCounted {
 public:
  ~PathNameMapping() override;
  const Ptr<PathEventEntry>& pathEvents() const { return pathEvents_; }
  void pathEventsIs(Ptr<PathEventEntry> log) { pathEvents_ = std::move(log); }
  const Ptr<PeerEventEntry>& peerEvents() const { return peerEvents_; }
  void peerEventsIs(Ptr<PeerEventEntry> log) { peerEvents_ = std::move(log); }
  const KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>>& saEvents() const {
    return saEvents_;
  }
  /// Lists a log here, and nowhere else any more.
  void saEventsIs(const Ptr<SaEventEntry>& log);
  void saEventsDel(const SecurityAssociationKey& key);

 private:
  Ptr<PathEventEntry> pathEvents_;
  Ptr<PeerEventEntry> peerEvents_;
  KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>> saEvents_;
};

/// Is told of every event as it is recorded.
class TESSEL_API EventObserver {
 public:
  virtual ~EventObserver() = default;
  virtual void handleEvent(const LocalEvent& event) = 0;
  virtual void handleEvent(const PeerEvent& event) = 0;
  virtual void handleEvent(const PathEvent& event) = 0;
  virtual void handleEvent(const SecurityAssociationKey& key, const ConnectionKey& path,
                           const SaEvent& event) = 0;
};

/// The logs of one agent. The machine writes them and never deletes one; the host retires the logs
/// of SAs that are gone, see `follow`.
class TESSEL_API RecordEvents final : public RefCounted {
 public:
  /// Capacity of every log; 0 records nothing. Read once per log, when the log is made.
  uint32_t maxEventRecord() const { return maxEventRecord_; }
  void maxEventRecordIs(uint32_t n) { maxEventRecord_ = n; }

  /// The local log; null until the first local event.
  const Ptr<LocalEventLog>& localEvents() const { return local_; }
  uint32_t localEventCount() const { return local_ ? local_->eventCount() : 0; }
  uint32_t localEventHead() const { return local_ ? local_->head() : 0; }
  const KeyedCollection<IpGenAddr, Ptr<PeerEventEntry>>& peerEvents() const { return peer_; }
  const KeyedCollection<ConnectionKey, Ptr<PathEventEntry>>& pathEvents() const { return path_; }
  const KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>>& saEvents() const { return sa_; }
  const KeyedCollection<std::string, Ptr<PathNameMapping>>& pathNameMapping() const {
    return names_;
  }
  /// Find or make. Not to be called while the capacity is 0.
  const Ptr<LocalEventLog>& localEventsIs();
  const Ptr<PeerEventEntry>& peerEventsIs(const IpGenAddr& peer);
  const Ptr<PathEventEntry>& pathEventsIs(const ConnectionKey& key);
  const Ptr<SaEventEntry>& saEventsIs(const SecurityAssociationKey& key);
  const Ptr<PathNameMapping>& pathNameMappingIs(const std::string& pathName);

  /// Follows the table of SAs: from then on the logs of at most `maxGoneSaLogs` SAs per path stay
  /// when their SAs are gone, at least the last one's, and older ones are retired. An SA without
  /// path in the table (`cpSa`) as it comes or goes is left alone.
  void follow(const Ptr<IpsecCommon::TesselV1>& tesselV1);
  uint32_t maxGoneSaLogs() const { return maxGoneSaLogs_; }
  void maxGoneSaLogsIs(uint32_t n) { maxGoneSaLogs_ = n; }

  /// At most one observer; null for none. It must outlive its registration.
  EventObserver* observer() const { return observer_; }
  void observerIs(EventObserver* observer) { observer_ = observer; }

 private:
  void handleSa(const Change& change);

  uint32_t maxEventRecord_ = 64;
  uint32_t maxGoneSaLogs_ = 2;
  EventObserver* observer_ = nullptr;
  Ptr<LocalEventLog> local_;
  KeyedCollection<IpGenAddr, Ptr<PeerEventEntry>> peer_;
  KeyedCollection<ConnectionKey, Ptr<PathEventEntry>> path_;
  KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>> sa_;
  KeyedCollection<std::string, Ptr<PathNameMapping>> names_;

  Ptr<IpsecCommon::TesselV1> followed_;
  Subscription sas_;
  KeyedCollection<ConnectionKey, std::vector<SecurityAssociationKey>> gone_;  // Oldest first.
};

// Compiled once, in Events.cpp: most units of the engine use these.
extern template class KeyedCollection<SecurityAssociationKey, Ptr<SaEventEntry>>;
extern template class KeyedCollection<IpGenAddr, Ptr<PeerEventEntry>>;
extern template class KeyedCollection<ConnectionKey, Ptr<PathEventEntry>>;
extern template class KeyedCollection<std::string, Ptr<PathNameMapping>>;

}  // namespace tessel
