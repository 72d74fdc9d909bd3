#include "lab/net/Link.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "host/entity/Hash.h"
#include "lab/net/SmallRandom.h"
#include "lab/net/UdpPacket.h"

namespace tessel::lab {
namespace {

constexpr size_t kDefaultRecording = 256;

void checkRate(const char* field, double rate) {
  if (!(rate >= 0 && rate <= 1)) {
    throw std::invalid_argument(std::string("link: ") + field + " " + std::to_string(rate) +
                                " is no probability from 0 to 1");
  }
}

void checkTime(const char* field, Duration time) {
  if (!std::isfinite(time.seconds()) || time < Duration()) {
    throw std::invalid_argument(std::string("link: ") + field + " " + stringValue(time) +
                                " is no time span of 0 s or more");
  }
}

}  // namespace

const char* linkLossName(LinkLoss reason) {
  switch (reason) {
    case LinkLoss::loss:
      return "loss";
    case LinkLoss::burst:
      return "burst";
    case LinkLoss::cut:
      return "cut";
    case LinkLoss::receiverDown:
      return "receiver_down";
  }
  return "unknown";
}

void checkLinkSettings(const LinkSettings& settings) {
  checkTime("latency", settings.latency);
  checkTime("jitter", settings.jitter);
  checkRate("lossRate", settings.lossRate);
  checkRate("burstStartRate", settings.burstStartRate);
  checkRate("burstEndRate", settings.burstEndRate);
  checkRate("reorderRate", settings.reorderRate);
  checkTime("reorderDelay", settings.reorderDelay);
  checkRate("duplicateRate", settings.duplicateRate);
  checkTime("duplicateDelay", settings.duplicateDelay);
  checkRate("bitFlipRate", settings.bitFlipRate);
  checkRate("replayRate", settings.replayRate);
  if (settings.replayRate > 0 && settings.replayDepth == 0) {
    throw std::invalid_argument("link: replayDepth 0 leaves nothing to replay");
  }
}

uint64_t LinkCounts::lost() const {
  uint64_t sum = 0;
  for (const uint64_t count : lostBy) {
    sum += count;
  }
  return sum;
}

LinkCounts& LinkCounts::operator+=(const LinkCounts& other) {
  sent += other.sent;
  duplicated += other.duplicated;
  replayed += other.replayed;
  altered += other.altered;
  reordered += other.reordered;
  delivered += other.delivered;
  inFlight += other.inFlight;
  for (size_t i = 0; i < lostBy.size(); ++i) {
    lostBy[i] += other.lostBy[i];
  }
  return *this;
}

/// One direction. Packets under way hold it, so that it outlives its link until they have arrived.
class Link::Direction final : public RefCounted {
 public:
  Direction(const LinkSettings& settings, uint64_t seed) : settings_(settings), random_(seed) {}

  void send(Bytes packet) {
    if (!scheduler_) {
      throw std::logic_error("link: a packet was sent before anybody was attached to receive it");
    }
    ++counts_.sent;
    if (held_) {
      ++counts_.inFlight;
      waiting_.push_back(std::move(packet));
      return;
    }
    depart(std::move(packet));
  }

  void heldIs(bool held) {
    held_ = held;
    if (!held) {
      release(waiting_.size());
    }
  }
  size_t waiting() const { return waiting_.size(); }
  void release(size_t count) {
    for (; count > 0 && !waiting_.empty(); --count) {
      Bytes packet = std::move(waiting_.front());
      waiting_.pop_front();
      --counts_.inFlight;
      depart(std::move(packet));
    }
  }

  void depart(Bytes packet) {
    if (senderTranslation_) {
      rewriteSource(packet, senderTranslation_->privateAddr, senderTranslation_->publicAddr);
    }
    if (recording()) {
      record(packet);
    }
    if (random_.duplicate.chance(settings_.duplicateRate)) {
      ++counts_.duplicated;
      const Duration late = settings_.duplicateDelay * random_.duplicate.uniform();
      pass(packet, late);
    }
    pass(std::move(packet), Duration());
    if (random_.replay.chance(settings_.replayRate)) {
      ++counts_.replayed;
      pass(recorded_[random_.replay.below(recorded_.size())], Duration());
    }
  }

  size_t replay(size_t count) {
    count = std::min(count, recorded_.size());
    // By index: a receiver that runs at once could send, and so record.
    const std::vector<Bytes> packets(recorded_.end() - static_cast<std::ptrdiff_t>(count),
                                     recorded_.end());
    for (const Bytes& packet : packets) {
      ++counts_.replayed;
      pass(packet, Duration());
    }
    return count;
  }

  void settingsIs(const LinkSettings& settings) {
    settings_ = settings;
    inBurst_ = inBurst_ && settings.burstStartRate > 0;
    trimRecording();
  }
  const LinkSettings& settings() const { return settings_; }
  void cutIs(bool cut) { cut_ = cut; }
  bool cut() const { return cut_; }
  void recordingIs(bool recording) {
    recordingAsked_ = recording;
    trimRecording();
  }
  void receiverIs(Ptr<VirtualTimeScheduler> scheduler, Receive receive) {
    if (scheduler_ && scheduler_ != scheduler && counts_.inFlight > 0) {
      formerSchedulers_.push_back(scheduler_);  // What is under way arrives in its jobs.
    }
    scheduler_ = std::move(scheduler);
    receive_ = std::make_shared<const Receive>(std::move(receive));
  }
  void receiverDel() { receive_ = nullptr; }
  void senderTranslationIs(const std::optional<Translation>& translation) {
    senderTranslation_ = translation;
  }
  void receiverTranslationIs(const std::optional<Translation>& translation) {
    receiverTranslation_ = translation;
  }
  /// The link is gone: nobody receives, and nothing ties the direction to a scheduler any more.
  void close() {
    receive_ = nullptr;
    scheduler_ = nullptr;
    formerSchedulers_.clear();
  }

  const LinkCounts& counts() const { return counts_; }
  uint64_t state() const { return random_.state() ^ (inBurst_ ? 1U : 0U); }

 private:
  // One generator per kind of fault.
  struct Random {
    explicit Random(uint64_t seed)
        : loss(seed),
          burst(loss.next()),
          jitter(burst.next()),
          reorder(jitter.next()),
          duplicate(reorder.next()),
          flip(duplicate.next()),
          replay(flip.next()) {}
    SmallRandom loss;
    SmallRandom burst;
    SmallRandom jitter;
    SmallRandom reorder;
    SmallRandom duplicate;
    SmallRandom flip;
    SmallRandom replay;

    uint64_t state() const {
      uint64_t digest = 0;
      for (const SmallRandom* each :
           {&loss, &burst, &jitter, &reorder, &duplicate, &flip, &replay}) {
        digest = digest * 0x100000001B3U ^ each->state();
      }
      return digest;
    }
  };

  bool recording() const { return recordingAsked_ || settings_.replayRate > 0; }
  size_t recordingDepth() const {
    return settings_.replayDepth > 0 ? settings_.replayDepth : kDefaultRecording;
  }
  void record(const Bytes& packet) {
    recorded_.push_back(packet);
    trimRecording();
  }
  void trimRecording() {
    const size_t keep = recording() ? recordingDepth() : 0;
    while (recorded_.size() > keep) {
      recorded_.pop_front();
    }
  }

  void lose(LinkLoss reason) { ++counts_.lostBy[static_cast<size_t>(reason)]; }

  /// Loses a packet, or lets it arrive; `late` on top of what the link takes.
  void pass(Bytes packet, Duration late) {
    if (cut_) {
      lose(LinkLoss::cut);
      return;
    }
    // The burst goes on with every packet, also with one that is lost for itself.
    const bool burst = stepBurst();
    if (random_.loss.chance(settings_.lossRate)) {
      lose(LinkLoss::loss);
      return;
    }
    if (burst) {
      lose(LinkLoss::burst);
      return;
    }
    if (!packet.empty() && random_.flip.chance(settings_.bitFlipRate)) {
      ++counts_.altered;
      const uint64_t bit = random_.flip.below(packet.size() * 8);
      packet[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8));
    }
    Duration arrival = now() + settings_.latency + late;
    if (settings_.jitter > Duration()) {
      arrival += settings_.jitter * random_.jitter.uniform();
    }
    if (random_.reorder.chance(settings_.reorderRate)) {
      ++counts_.reordered;
      arrival += settings_.reorderDelay * random_.reorder.uniform();
    } else if (late == Duration()) {
      arrival = std::max(arrival, lastArrival_);
      lastArrival_ = arrival;
    }
    launch(std::move(packet), arrival);
  }

  bool stepBurst() {
    if (!inBurst_) {
      inBurst_ = random_.burst.chance(settings_.burstStartRate);
      return inBurst_;
    }
    if (random_.burst.chance(settings_.burstEndRate)) {
      inBurst_ = random_.burst.chance(settings_.burstStartRate);
    }
    return inBurst_;
  }

  void launch(Bytes packet, Duration arrival) {
    ++counts_.inFlight;
    if (idleSlots_.empty()) {
      idleSlots_.push_back(static_cast<uint32_t>(flying_.size()));
      flying_.emplace_back();
    }
    const uint32_t slot = idleSlots_.back();
    idleSlots_.pop_back();
    flying_[slot] = std::move(packet);
    scheduler_->at(arrival, [self = Ptr<Direction>(this), slot] { self->arrive(slot); });
  }

  void arrive(uint32_t slot) {
    Bytes packet = std::move(flying_[slot]);
    idleSlots_.push_back(slot);
    if (--counts_.inFlight == 0) {
      formerSchedulers_.clear();
    }
    if (!receive_) {
      lose(LinkLoss::receiverDown);
      return;
    }
    ++counts_.delivered;
    if (receiverTranslation_) {
      rewriteDestination(packet, receiverTranslation_->publicAddr,
                         receiverTranslation_->privateAddr);
    }
    const std::shared_ptr<const Receive> receive = receive_;  // It may detach itself.
    (*receive)(std::move(packet));
  }

  Duration now() const { return scheduler_->clock().monotonicTime(); }

  LinkSettings settings_;
  Random random_;
  bool inBurst_ = false;
  bool cut_ = false;
  bool held_ = false;
  std::deque<Bytes> waiting_;
  bool recordingAsked_ = false;
  Duration lastArrival_;
  std::deque<Bytes> recorded_;
  std::vector<Bytes> flying_;
  std::vector<uint32_t> idleSlots_;
  Ptr<VirtualTimeScheduler> scheduler_;
  std::vector<Ptr<VirtualTimeScheduler>> formerSchedulers_;
  std::shared_ptr<const Receive> receive_;
  std::optional<Translation> senderTranslation_;
  std::optional<Translation> receiverTranslation_;
  LinkCounts counts_;
};

Link::Link(const LinkSettings& settings, uint64_t seed) {
  checkLinkSettings(settings);
  SmallRandom seeds(seed);
  for (Ptr<Direction>& each : directions_) {
    each = makePtr<Direction>(settings, seeds.next());
  }
}

Link::~Link() {
  for (const Ptr<Direction>& each : directions_) {
    each->close();
  }
}

void Link::attach(LinkEnd end, Ptr<VirtualTimeScheduler> scheduler, Receive receive) {
  direction(otherEnd(end)).receiverIs(std::move(scheduler), std::move(receive));
}

void Link::detach(LinkEnd end) {
  direction(otherEnd(end)).receiverDel();
}

void Link::translationIs(LinkEnd end, std::optional<Translation> translation) {
  direction(end).senderTranslationIs(translation);
  direction(otherEnd(end)).receiverTranslationIs(translation);
}

void Link::send(LinkEnd from, Bytes packet) {
  direction(from).send(std::move(packet));
}

void Link::settingsIs(LinkEnd from, const LinkSettings& settings) {
  checkLinkSettings(settings);
  direction(from).settingsIs(settings);
}

void Link::settingsIs(const LinkSettings& settings) {
  settingsIs(LinkEnd::a, settings);
  settingsIs(LinkEnd::b, settings);
}

const LinkSettings& Link::settings(LinkEnd from) const {
  return direction(from).settings();
}

void Link::cutIs(LinkEnd from, bool cut) {
  direction(from).cutIs(cut);
}

void Link::cutIs(bool cut) {
  cutIs(LinkEnd::a, cut);
  cutIs(LinkEnd::b, cut);
}

bool Link::cut(LinkEnd from) const {
  return direction(from).cut();
}

void Link::heldIs(LinkEnd from, bool held) {
  direction(from).heldIs(held);
}

size_t Link::waiting(LinkEnd from) const {
  return direction(from).waiting();
}

void Link::release(LinkEnd from, size_t count) {
  direction(from).release(count);
}

size_t Link::replay(LinkEnd from, size_t count) {
  return direction(from).replay(count);
}

void Link::recordingIs(LinkEnd from, bool recording) {
  direction(from).recordingIs(recording);
}

const LinkCounts& Link::counts(LinkEnd from) const {
  return direction(from).counts();
}

uint64_t Link::stateHash() const {
  return Hasher(0).add(direction(LinkEnd::a).state()).add(direction(LinkEnd::b).state()).value();
}

}  // namespace tessel::lab
