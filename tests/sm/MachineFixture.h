// MachineFixture: one machine over bare host entities in virtual time, with peers and a data path
// that are not there: tests write what those would write.
//
//   class Something : public MachineTest {};
//   TEST_F(Something, Holds) {
//     const FakePeer peer = makePeer(2);
//     const ConnectionKey key = addPath(peer, 1);
//     start();
//     publish(peer);          // The controllers deliver the peer's record.
//     run(1);
//     installSas();           // The data path reports what it was handed.
//     pass(key);              // Packets flow both ways.
//     run(60);
//     EXPECT_EQ(path(key)->pathState(), DynamicPathState::active);
//   }
#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/RandomSource.h"
#include "host/facility/Toggles.h"
#include "host/facility/Trace.h"
#include "host/runtime/VirtualTime.h"
#include "lab/router/RouterEntities.h"
#include "sm/DhRekey.h"
#include "sm/EventRecorder.h"
#include "sm/KeyDerivation.h"
#include "sm/LocalKey.h"
#include "sm/PathHealth.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/SecurityAssociations.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::Ipsec {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

inline IpGenAddr address(const std::string& text) {
  return IpGenAddr::parse(text).value();
}

/// Fails from a given draw on, counted from 1.
class FailingRandomSource final : public RandomSource {
 public:
  explicit FailingRandomSource(int firstFailure) : left_(firstFailure - 1) {}
  bool fill(std::span<uint8_t> out) override { return left_-- > 0 && seeded_->fill(out); }

 private:
  int left_;
  const Ptr<SeededRandomSource> seeded_ = makePtr<SeededRandomSource>(5);
};

/// A router at the other end, as far as the controllers show it: real keys, and a nonce of one
/// repeated byte. 0 makes the machine under test the initiator, 0xFF the responder.
class FakePeer {
 public:
  explicit FakePeer(uint32_t v4Addr) : address(IpGenAddr::fromV4(v4Addr)) {
    record.originatorId = address;
    record.dhGroup = static_cast<uint32_t>(IpsecDhGroup::ecp256);
    record.encryptAlgo = static_cast<uint8_t>(IpsecEspAlgorithm::aes256Gcm128);
    record.hashAlgo = static_cast<uint8_t>(IpsecHmacAlgorithm::sha256);
    renew(0);
  }
  /// The next generation.
  void rekey() {
    ++record.rekeyCounter;
    renew(record.nonce[0]);
  }
  /// A fresh key and another nonce; the counter stays.
  void renew(uint8_t nonceByte) {
    IpsecDHGeneral dh(record.dhGroup);
    EXPECT_TRUE(dh.initIpsecDH() && dh.getMyPublicKey(&record.dhKey) &&
                dh.getMyPrivateKey(&privateKey));
    record.dhKeyLen = static_cast<uint32_t>(record.dhKey.size());
    record.nonce.assign(32, nonceByte);
    record.nonceLen = 32;
  }

  IpGenAddr address;
  SecretBytes privateKey;
  Controller::PeerKeyInfo record;
};

/// Every event as text, in the order of recording: "local generateDhKey 0", "peer 192.0.2.2
/// firstDhExchange", "path 1 establishPath established(1)" (its connection id), "sa deleteSA".
class EventCapture final : public EventObserver {
 public:
  std::vector<std::string> take() { return std::exchange(seen_, {}); }

 private:
  void handleEvent(const LocalEvent& event) override {
    seen_.push_back("local " + event.eventName.string() + " " + std::to_string(event.number));
  }
  void handleEvent(const PeerEvent& event) override {
    seen_.push_back("peer " + event.peer.stringValue() + " " + event.eventName.string());
  }
  void handleEvent(const PathEvent& event) override {
    seen_.push_back("path " + std::to_string(event.connectionKey.connId) + " " +
                    event.eventName.string() + " " + stringValue(event.pathState));
  }
  void handleEvent(const SecurityAssociationKey&, const ConnectionKey&, const SaEvent& e) override {
    seen_.push_back("sa " + e.eventName.string());
  }
  std::vector<std::string> seen_;
};

/// Every trace line, in order.
class TraceCapture final : public TraceSink {
 public:
  TraceCapture() { Trace::sinkIs(this); }
  ~TraceCapture() override { Trace::sinkIs(nullptr); }

  /// Whether a line begins with `text`.
  bool has(const std::string& text) const {
    return std::ranges::any_of(lines_, [&](const auto& line) { return line.starts_with(text); });
  }
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  void trace(const TraceLine& line) override { lines_.emplace_back(line.text); }
  std::vector<std::string> lines_;
};

/// Calls a function on every change of an entity.
class Meddler {
 public:
  Meddler(const Entity& entity, std::function<void(const Change&)> action)
      : action_(std::move(action)) {
    subscription_.attach<&Meddler::handle>(entity, *this);
  }

 private:
  void handle(const Change& change) { action_(change); }
  const std::function<void(const Change&)> action_;
  Subscription subscription_;
};

/// Counts the notifications of every entity that there is.
class Everything {
 public:
  explicit Everything(const lab::RouterEntities& host) {
    const Ike::Status& status = *host.ipsecStatus;
    const Ike::VrfStatus& vrf = *status.vrfStatus("default");
    follow(host.ipsecConfig, host.ipsecStatus, host.ipsecDpsPathConfig, host.ipsecPathStatusDir,
           host.ipsecLocalKeyDir, host.ipsecPeerKeyDir, host.controllerStatus,
           host.profileNotificationList, host.encapIdHelper, host.mergeData, host.tesselV1,
           status.testKnob(), status.testKnob()->pathTestKnob(), status.appliedProfiles(),
           status.vrfStatus(), status.ipsecPeerConnectionState(),
           host.ipsecPathStatusDir->ipsecPathStatus(), host.mergeData->connectionInfo(),
           vrf.tesselSa(), vrf.lifetimeCfg());
    for (const auto& [address, peer] : status.ipsecPeerConnectionState()) {
      follow(peer->dhCryptoInfo(), peer->pathConnState());
      for (const auto& [key, path] : peer->pathConnState()) {
        follow(path->dhState(), path->pathConnSaInfo(), path->sanityCheck());
      }
    }
  }
  uint64_t notifications() const { return notifications_; }

 private:
  template <class... EntitiesAndCollections>
  void follow(const EntitiesAndCollections&... all) {
    (add(all), ...);
  }
  template <class T>
  void add(const Ptr<T>& entity) {
    meddlers_.push_back(
        std::make_unique<Meddler>(*entity, [this](const Change&) { ++notifications_; }));
  }
  template <class Key, class T>
  void add(const KeyedCollection<Key, Ptr<T>>& members) {
    for (const auto& [key, member] : members) {
      add(member);
    }
  }

  std::vector<std::unique_ptr<Meddler>> meddlers_;
  uint64_t notifications_ = 0;
};

inline Ptr<TesselV1Sm> makeMachine(const Ptr<TaskScheduler>& scheduler,
                                   const lab::RouterEntities& host) {
  return tesselV1SmFactory(scheduler, host);
}

/// Everything that the agent writes for a path, in its order, but for the merged data.
inline void describePath(const lab::RouterEntities& host, const ConnectionKey& key,
                         const IpGenAddr& peer, const std::string& name) {
  host.ipsecDpsPathConfig->ipsecPathConfigIs(key, {.ipsecEnabled = true});
  const auto pathStatus = host.ipsecPathStatusDir->ipsecPathStatusIs(key);
  pathStatus->remoteIpIs(peer);
  pathStatus->establishAllowedIs(true);
  pathStatus->pathNameIs(name);
  pathStatus->stateIs(Path::UnderlayState::established);
  host.ipsecStatus->ipsecConnectionStatusInfoIs(key)->connectionStateIs(7);
  host.encapIdHelper->encapIdIs({key, kDynamicPathConnection},
                                {.reqid = 100 + static_cast<uint32_t>(key.connId)});
}

/// A change of the path's merged data, which makes the machine reconcile it.
inline void touchMergeData(const lab::RouterEntities& host, const ConnectionKey& key) {
  const auto info = host.mergeData->connectionInfoIs({key.vrfId, key.srcAddr, key.dstAddr});
  info->connectionIs(key, {.version = info->connection(key).version + 1});
}

/// Reports every SA that was handed over as installed now, unless it was before.
inline void reportInstalled(const lab::RouterEntities& host, const Clock& clock) {
  for (const auto& [key, handedOver] : host.tesselV1->sa()) {
    uint64_t& addTime = host.ipsecCounterTable->saCounterEntryIs(key).addTime;
    addTime = addTime != 0 ? addTime : static_cast<uint64_t>(clock.utcTime().seconds());
  }
}

/// A machine over host entities that are configured and ready: router id, profile, security
/// association, connected controllers. Change them before `start()` to test something else.
class MachineTest : public ::testing::Test {
 protected:
  /// Of the profile and of its security association.
  static constexpr const char* profileName = "profile";

  MachineTest() { startOver(); }
  ~MachineTest() override {
    sm = nullptr;
    RandomSource::currentIs(nullptr);
    Toggles::reset();
  }

  /// Other entities, without a machine: for a case that has nothing to do with the one before.
  void startOver() {
    sm = nullptr;
    host.reset();
    time = makePtr<VirtualTime>();
    scheduler = makePtr<VirtualTimeScheduler>(time, "router");
    host.emplace(*time, lab::RouterSettings{});
    srandom(1);
    RandomSource::currentIs(makePtr<SeededRandomSource>(1));
    Toggles::reset();
    host->ipsecDpsPathConfig->routerIdIs(address("192.0.2.1"));
    lab::writeProfile(*host->ipsecConfig, {.name = profileName, .sa = {.lifetime = 3600}});
    host->ipsecConfig->keyControllerIs({1, profileName, 86400, 3600, IpsecDhGroup::ecp256});
    host->controllerStatus->connectedIs(true);
    host->recordEvents->observerIs(&events);
  }

  void start() { sm = makeMachine(scheduler, *host); }
  void run(double span) { time->runFor(seconds(span)); }

  // Peers.

  /// The peer 192.0.2.`number`.
  static FakePeer makePeer(uint32_t number) { return FakePeer(0xC0000200 + number); }
  void publish(const FakePeer& peer) {
    host->ipsecPeerKeyDir->ipsecPeerKeyInfoIs(peer.address, peer.record);
  }
  void withdraw(const FakePeer& peer) { host->ipsecPeerKeyDir->ipsecPeerKeyInfoDel(peer.address); }
  /// The same, and the machine takes it in.
  void deliver(const FakePeer& peer) {
    publish(peer);
    run(0);
  }
  void takeAway(const FakePeer& peer) {
    withdraw(peer);
    run(0);
  }
  /// Ends one case of several: the only peer goes, and everything with it; then the machine.
  void finish(const FakePeer& peer) {
    takeAway(peer);
    EXPECT_EQ(state(peer), nullptr);
    expectNoPathLeft();
    sm = nullptr;
  }
  Ptr<Ike::PeerConnectionState> state(const FakePeer& peer) const {
    return host->ipsecStatus->ipsecPeerConnectionState(peer.address);
  }

  // Paths.

  /// The key of path `number`: 10.0.`number`.1 to 10.0.`number`.2 with that connection id.
  static ConnectionKey pathKey(uint32_t number) {
    const uint32_t net = 0x0A000000 + (number << 8U);
    return {0, IpGenAddr::fromV4(net + 1), IpGenAddr::fromV4(net + 2), number};
  }
  ConnectionKey addPath(const FakePeer& peer, uint32_t number) {
    const ConnectionKey key = pathKey(number);
    describePath(*host, key, peer.address, "path " + std::to_string(number));
    touchMerge(key);
    return key;
  }
  void touchMerge(const ConnectionKey& key) { touchMergeData(*host, key); }
  Ptr<Path::PathStatus> pathStatus(const ConnectionKey& key) const {
    return host->ipsecPathStatusDir->ipsecPathStatus(key);
  }
  /// The path's state, whichever peer has it; null when none has.
  Ptr<Ike::PathConnState> path(const ConnectionKey& key) const {
    for (const auto& [peer, peerState] : host->ipsecStatus->ipsecPeerConnectionState()) {
      if (const auto found = peerState->pathConnState(key)) {
        return found;
      }
    }
    return nullptr;
  }
  /// The path's first SA of a type, or null.
  Ptr<Ike::SecurityAssociation> sa(const ConnectionKey& key, SaType type) const {
    for (const auto& [saKey, handedOver] : host->tesselV1->sa()) {
      if (host->tesselV1->cpSa(saKey) == key && handedOver->saType() == type) {
        return handedOver;
      }
    }
    return nullptr;
  }
  /// A peer with one path, both up and installed.
  ConnectionKey establish(const FakePeer& peer, uint32_t number = 1) {
    const ConnectionKey key = addPath(peer, number);
    if (!sm) {
      start();
    }
    deliver(peer);
    installSas();
    EXPECT_TRUE(sa(key, SaType::steadyIn) && sa(key, SaType::steadyOut));
    return key;
  }

  // The data path.

  const Ptr<Ike::VrfStatus>& vrf() const { return host->ipsecStatus->vrfStatus("default"); }
  void installSas() { reportInstalled(*host, *time); }
  /// Packets on every SA of a path.
  void pass(const ConnectionKey& key, uint64_t packets = 1) {
    for (const auto& [saKey, pathOfSa] : host->tesselV1->cpSa()) {
      host->ipsecCounterTable->saCounterEntryIs(saKey).pkts += pathOfSa == key ? packets : 0;
    }
  }

  /// That no table holds anything of any path.
  void expectNoPathLeft() const {
    EXPECT_EQ(sm->paths().totalPaths(), 0U);
    expectTablesAgree();
  }
  /// That the tables agree with each other: every SA of every path lies in all of them, and nothing
  /// else does.
  void expectTablesAgree() const {
    size_t sas = 0;
    for (const auto& [peer, peerState] : host->ipsecStatus->ipsecPeerConnectionState()) {
      for (const auto& [key, pathState] : peerState->pathConnState()) {
        const Ptr<RekeySm>& rekeySm = sm->paths().rekeySm(key);
        ASSERT_TRUE(rekeySm);
        EXPECT_EQ(rekeySm->pathConnState(), pathState);
        EXPECT_EQ(rekeySm->pathConnSaInfo().size(), pathState->pathConnSaInfo().size());
        EXPECT_TRUE(host->ipsecStatus->testKnob()->pathTestKnobHas(key));
        for (const auto& [saKey, saInfo] : pathState->pathConnSaInfo()) {
          ++sas;
          EXPECT_EQ(vrf()->tesselSa(saKey), saInfo->sa());
          EXPECT_TRUE(vrf()->lifetimeCfgHas(saKey) && host->tesselV1->sa().has(saKey));
          EXPECT_EQ(host->tesselV1->cpSa(saKey), key);
        }
      }
    }
    EXPECT_EQ(vrf()->tesselSa().size(), sas);
    EXPECT_EQ(vrf()->lifetimeCfg().size(), sas);
    EXPECT_EQ(host->tesselV1->sa().size(), sas);
    EXPECT_EQ(host->tesselV1->cpSa().size(), sas);
    EXPECT_EQ(sm->paths().rekeySm().size(), sm->paths().totalPaths());
    EXPECT_EQ(host->ipsecStatus->testKnob()->pathTestKnob().size(), sm->paths().totalPaths());
  }

  Ptr<VirtualTime> time;
  Ptr<VirtualTimeScheduler> scheduler;
  std::optional<lab::RouterEntities> host;
  EventCapture events;
  Ptr<TesselV1Sm> sm;
};

}  // namespace tessel::Ipsec
