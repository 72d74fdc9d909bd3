// Link: the network between the two ends of one path, with what a network does to packets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "host/entity/Ptr.h"
#include "host/model/Bytes.h"
#include "host/model/Duration.h"
#include "host/model/IpGenAddr.h"
#include "host/runtime/VirtualTime.h"

namespace tessel::lab {

/// The ends of a link. A direction is named by the end that sends.
enum class LinkEnd : uint8_t { a = 0, b = 1 };
constexpr LinkEnd otherEnd(LinkEnd end) {
  return end == LinkEnd::a ? LinkEnd::b : LinkEnd::a;
}

/// How one direction of a link behaves. Rates are probabilities per packet, from 0 to 1.
struct LinkSettings {
  Duration latency = Duration(0.01);
  /// Uniform in [0, jitter], added to the latency. Packets keep their order: one that would
  /// overtake another waits for it.
  Duration jitter{};

  /// Independent loss.
  double lossRate = 0;
  /// Bursts (two-state model): a burst begins with probability `burstStartRate` and ends with
  /// probability `burstEndRate` after each of its packets, all of which are lost.
  double burstStartRate = 0;
  double burstEndRate = 0.25;

  /// A packet that is reordered is late by a uniform part of `reorderDelay`; others overtake it.
  double reorderRate = 0;
  Duration reorderDelay = Duration(0.1);
  /// A packet that is duplicated arrives a second time, late by a uniform part of
  /// `duplicateDelay`.
  double duplicateRate = 0;
  Duration duplicateDelay = Duration(0.01);
  /// One bit of the packet, anywhere in it, is inverted.
  double bitFlipRate = 0;
  /// Behind a packet, one of the last `replayDepth` packets of the direction is sent once more.
  double replayRate = 0;
  uint32_t replayDepth = 256;

  friend bool operator==(const LinkSettings&, const LinkSettings&) = default;
};

/// Throws std::invalid_argument that names the field and its value when a rate is outside [0, 1], a
/// time is negative or not finite, or `replayDepth` is 0 while packets are replayed.
void checkLinkSettings(const LinkSettings& settings);

/// Why the network lost a packet.
enum class LinkLoss : uint8_t {
  loss = 0,          ///< Independent loss.
  burst = 1,         ///< In a burst.
  cut = 2,           ///< The direction was cut.
  receiverDown = 3,  ///< Nobody was there when it arrived.
};
inline constexpr size_t kLinkLosses = 4;
/// "loss", "burst", "cut", "receiver_down".
const char* linkLossName(LinkLoss reason);

/// What happened in one direction. At every time
/// sent + duplicated + replayed = delivered + lost + inFlight.
struct LinkCounts {
  uint64_t sent = 0;        ///< Given to the link by the sender.
  uint64_t duplicated = 0;  ///< Copies made.
  uint64_t replayed = 0;    ///< Recorded packets sent once more.
  uint64_t altered = 0;     ///< Packets with an inverted bit (sent ones and copies alike).
  uint64_t reordered = 0;
  uint64_t delivered = 0;  ///< Handed to the receiver.
  uint64_t inFlight = 0;
  std::array<uint64_t, kLinkLosses> lostBy{};

  uint64_t lost() const;
  uint64_t lost(LinkLoss reason) const { return lostBy[static_cast<size_t>(reason)]; }
  LinkCounts& operator+=(const LinkCounts& other);
  friend bool operator==(const LinkCounts&, const LinkCounts&) = default;
};

/// The network between two ends. Packets are whole IP packets; they are moved, never copied but for
/// duplicates and recorded packets. What happens depends on the seed and on what is sent when. Each
/// kind of fault has random numbers of its own: switching one off changes nothing for the others
/// but by the packets that it added or lost.
class Link {
 public:
  /// Takes a packet that has arrived.
  using Receive = std::function<void(Bytes packet)>;

  /// An address translator at one end, one to one, ports kept: packets that leave get the public
  /// address as their source, packets that come in for it the private one as their destination.
  struct Translation {
    IpGenAddr privateAddr;
    IpGenAddr publicAddr;
  };

  Link(const LinkSettings& settings, uint64_t seed);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link();

  /// Who is at `end`: what arrives is handed to `receive` in a job of `scheduler`, among those of
  /// priority 0; while the scheduler is paused it waits there. Needed before the other end sends.
  void attach(LinkEnd end, Ptr<VirtualTimeScheduler> scheduler, Receive receive);
  /// Nobody is at `end`, for example while its router restarts: what arrives there is lost. Sending
  /// towards it goes on as before.
  void detach(LinkEnd end);
  void translationIs(LinkEnd end, std::optional<Translation> translation);

  /// Sends a packet from `from` to the other end, or loses it. Throws std::logic_error when nobody
  /// was ever attached at the other end.
  void send(LinkEnd from, Bytes packet);

  /// Settings of the direction that starts at `from`, from the next packet on.
  void settingsIs(LinkEnd from, const LinkSettings& settings);
  void settingsIs(const LinkSettings& settings);
  const LinkSettings& settings(LinkEnd from) const;

  /// Cuts or restores one direction (or both): a cut loses what is sent from now on, and not what
  /// is under way.
  void cutIs(LinkEnd from, bool cut);
  void cutIs(bool cut);
  bool cut(LinkEnd from) const;

  /// Holds one direction: what is sent waits at its start, in its order, and counts as in flight,
  /// until it is released. The end of the hold releases all.
  void heldIs(LinkEnd from, bool held);
  /// How many packets wait in a direction that is held.
  size_t waiting(LinkEnd from) const;
  /// Sends the first `count` of them on their way, or all when there are fewer.
  void release(LinkEnd from, size_t count);

  /// Sends up to `count` of the newest recorded packets of a direction once more, oldest first.
  /// Packets are recorded while `replayRate` is above 0 or after `recordingIs(from, true)`.
  /// Returns how many were sent.
  size_t replay(LinkEnd from, size_t count);
  void recordingIs(LinkEnd from, bool recording);

  const LinkCounts& counts(LinkEnd from) const;
  /// Digest of the random state of both directions: equal for equal histories.
  uint64_t stateHash() const;

 private:
  class Direction;

  Direction& direction(LinkEnd from) const { return *directions_[static_cast<size_t>(from)]; }

  std::array<Ptr<Direction>, 2> directions_;
};

}  // namespace tessel::lab
