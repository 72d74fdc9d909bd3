#include "lab/check/PacketChecks.h"

#include <algorithm>
#include <iterator>

#include "host/model/ByteOrder.h"
#include "lab/net/UdpPacket.h"
#include "lab/run/DataPlaneWatch.h"
#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

constexpr size_t kIvCounterSize = 8;
constexpr size_t kNonceWords = 64;
constexpr uint32_t kNonceMask = 0x0FFF'FFFF;  // The other bits are the nonce's type.

/// Takes `iv` into the ranges. False when one of them had it.
bool insert(std::map<uint64_t, uint64_t>& ranges, uint64_t iv) {
  auto next = ranges.upper_bound(iv);
  if (!ranges.empty()) {
    // Counters wrap: before the first range comes the last one.
    const auto before = std::prev(next == ranges.begin() ? ranges.end() : next);
    const uint64_t offset = iv - before->first;
    if (offset < before->second) {
      return false;
    }
    if (offset == before->second) {
      ++before->second;
      return true;
    }
  }
  ranges.emplace_hint(next, iv, 1);
  return true;
}

}  // namespace

/// Watches the data plane of a router from one start to the next stop.
class PacketChecks::Watch final : public DataPlaneWatch {
 public:
  Watch(PacketChecks& owner, Router& router) : DataPlaneWatch(router), owner_(owner) {}

 private:
  bool wantsPackets() const override { return true; }
  void handlePacketSent(const PacketSent& packet) override { owner_.handleSent(router(), packet); }

  void handleNonceSent(const SaReport& sa, uint32_t word) override {
    owner_.handleNonceSent(idOf(sa), sa, word);
  }
  void handleNonceReceived(const SaReport& sa, uint32_t word) override {
    owner_.handleNonceReceived(idOf(sa), sa, word);
  }

  void handleSaHandedOver(const SaReport& sa) override {
    if (!isOfPath(sa)) {
      return;
    }
    sasOf(sa).push_back({.key = sa.key, .inbound = sa.inbound, .handOver = sa.handOver});
  }
  void handleSaInstalled(const SaReport& sa) override {
    update(sa);
    owner_.handleInstalled(idOf(sa), sa);
  }
  void handleSaNotInstalled(const SaReport& sa) override {
    if (isOfPath(sa)) {
      update(sa);
    }
  }
  void handleSaRemoved(const SaReport& sa) override {
    if (!isOfPath(sa)) {
      return;
    }
    std::vector<MeshView::Sa>& sas = sasOf(sa);
    std::erase_if(sas, [&](const MeshView::Sa& each) { return each.key == sa.key; });
    if (sas.empty()) {
      owner_.windows_.handleAllGone(idOf(sa));
    } else {
      owner_.windows_.handleRemoved(idOf(sa));
    }
  }

  /// An SA that the table gives to no path is refused, and carries nothing.
  bool isOfPath(const SaReport& sa) const { return router().path(sa.path) != nullptr; }
  EndId idOf(const SaReport& sa) const { return owner_.mesh_.find(router(), sa.path); }
  std::vector<MeshView::Sa>& sasOf(const SaReport& sa) { return owner_.mesh_.end(idOf(sa)).sas; }
  void update(const SaReport& sa) {
    for (MeshView::Sa& each : sasOf(sa)) {
      if (each.key == sa.key) {
        each.installed = sa.state == SaInstallState::installed;
        each.failed = sa.state == SaInstallState::failed && sa.installedAt.isNever();
      }
    }
  }

  PacketChecks& owner_;
};

PacketChecks::PacketChecks(Lab& lab, Findings& findings)
    : findings_(findings), mesh_(lab), windows_(lab, mesh_) {}

PacketChecks::~PacketChecks() = default;

void PacketChecks::handleRouterUp(Router& router) {
  watches_.push_back(std::make_unique<Watch>(*this, router));
}

void PacketChecks::handleRouterDown(const Router& router) {
  std::erase_if(watches_, [&](const auto& each) { return &each->router() == &router; });
  for (const EndId id : mesh_.endsOf(router)) {
    mesh_.end(id).sas.clear();
    windows_.handleAllGone(id);
  }
}

void PacketChecks::handleInstalled(EndId id, const SaReport& sa) {
  windows_.handleInstalled(id);
  for (const MeshView::Sa& theirs : mesh_.end(id.other()).sas) {
    if (!theirs.installed || theirs.inbound == sa.inbound || theirs.key.spi != sa.key.spi) {
      continue;
    }
    const std::optional<SaReport> other = mesh_.report(id.other(), theirs);
    if (other && findings_.violated(Invariant::equalSpiEqualKey, other->keyTag == sa.keyTag)) {
      findings_.add(Invariant::equalSpiEqualKey, mesh_.place(id.path),
                    "SA " + spiText(sa.key.spi) + " has another key at each end");
    }
  }
}

void PacketChecks::handleNonceSent(EndId from, const SaReport& sa, uint32_t word) {
  MeshView::End& end = mesh_.end(from);
  if (end.nonceWords.size() == kNonceWords) {
    end.nonceWords.erase(end.nonceWords.begin());
  }
  end.nonceWords.push_back(word);
  const Ptr<Ike::PathConnState> path = mesh_.pathState(from);
  if (path && findings_.violated(Invariant::noncesArrive,
                                 (word & kNonceMask) == path->saLocalNonce().nonceValue)) {
    findings_.add(Invariant::noncesArrive, mesh_.place(from.path),
                  end.router->name() + " sent another nonce on SA " + spiText(sa.key.spi) +
                      " than the path's own");
  }
}

void PacketChecks::handleNonceReceived(EndId at, const SaReport& sa, uint32_t word) {
  const std::vector<uint32_t>& sent = mesh_.end(at.other()).nonceWords;
  if (findings_.violated(Invariant::noncesArrive, std::ranges::find(sent, word) != sent.end())) {
    findings_.add(Invariant::noncesArrive, mesh_.place(at.path),
                  mesh_.end(at).router->name() + " read a nonce on SA " + spiText(sa.key.spi) +
                      " that was not sent");
  }
}

void PacketChecks::handleSent(const Router& router, const PacketSent& packet) {
  const EndId from = mesh_.find(router, packet.sa->path);
  checkReceiver(from, packet);
  checkIv(from, packet);
}

void PacketChecks::checkReceiver(EndId from, const PacketSent& packet) {
  const MeshView::End& receiver = mesh_.end(from.other());
  bool held = false;
  if (receiver.router->up()) {
    if (std::optional<UdpPacket> udp = readUdpPacket(packet.outer)) {
      // What translators make of it on its way.
      if (udp->ends.dst == receiver.publicAddress) {
        udp->ends.dst = receiver.privateAddress;
      }
      held = receiver.router->dataPlane().holdsInSa(packet.sa->key.spi, udp->ends);
    }
  }
  if (findings_.violated(Invariant::receiverHoldsSa, held)) {
    const std::string why = windows_.whyNot(from, *packet.sa);
    if (!why.empty()) {
      const std::string& sender = mesh_.end(from).router->name();
      Place place = mesh_.place(from.path);
      place.detail = "from " + sender;
      findings_.add(Invariant::receiverHoldsSa, place,
                    sender + " sent packet " + std::to_string(packet.sequence) + " on SA " +
                        spiText(packet.sa->key.spi) + ", " + stringValue(packet.sa->saType) +
                        ", which " + receiver.router->name() + " does not hold; " + why);
    }
  }
}

void PacketChecks::checkIv(EndId from, const PacketSent& packet) {
  if (packet.iv.empty()) {
    return;  // Nothing is encrypted.
  }
  const uint64_t iv = get64(packet.iv.data());
  const bool isNew = packet.iv.size() == kIvCounterSize
                         ? insert(ivs_[packet.sa->keyTag], iv)
                         : randomIvs_[packet.sa->keyTag].insert(iv).second;
  if (findings_.violated(Invariant::ivNeverTwice, isNew)) {
    findings_.add(Invariant::ivNeverTwice, mesh_.place(from.path),
                  "SA " + spiText(packet.sa->key.spi) + " sent packet " +
                      std::to_string(packet.sequence) + " with an IV that its key has had before");
  }
}

}  // namespace tessel::lab
