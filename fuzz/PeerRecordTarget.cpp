// Peer key records into a machine that runs: whatever a peer publishes, nobody but its own paths is
// concerned, every table stays whole, and a good record that comes afterwards brings the peer up.
#include <optional>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/RandomSource.h"
#include "host/facility/Toggles.h"
#include "host/runtime/VirtualTime.h"
#include "lab/router/RouterEntities.h"
#include "sm/LocalKey.h"
#include "sm/Paths.h"
#include "sm/PeerKeys.h"
#include "sm/TesselV1Sm.h"
#include "sm/rekey/RekeySm.h"

namespace tessel::lab {
namespace {

using fuzz::FuzzInput;

constexpr uint32_t kRouterId = 0xC0000201;
constexpr uint32_t kStranger = 0xC0000202;   // Publishes what the fuzzer makes up.
constexpr uint32_t kBystander = 0xC0000203;  // Published once, and is never to notice.
constexpr size_t kKeyLen = 64;

/// Sound public keys of the group in use; the last one is the bystander's.
const std::vector<Bytes>& soundKeys() {
  static const std::vector<Bytes> keys = [] {
    RandomSource::currentIs(makePtr<SeededRandomSource>(uint64_t{7}));
    std::vector<Bytes> made(5);
    for (Bytes& key : made) {
      IpsecDHGeneral dh(static_cast<DhGroupNum>(IpsecDhGroup::ecp256));
      FUZZ_CHECK(dh.initIpsecDH() && dh.getMyPublicKey(&key), "a key can be made");
    }
    return made;
  }();
  return keys;
}

class Target {
 public:
  Target() {
    soundKeys();
    RandomSource::currentIs(makePtr<SeededRandomSource>(uint64_t{1}));
    srandom(1);
    host_.ipsecDpsPathConfig->routerIdIs(IpGenAddr::fromV4(kRouterId));
    writeProfile(*host_.ipsecConfig, {.name = "profile", .sa = {.lifetime = 3600}});
    host_.ipsecConfig->keyControllerIs({1, "profile", 86400, 0, IpsecDhGroup::ecp256});
    host_.controllerStatus->connectedIs(true);
    addPath(kStranger, 1);
    addPath(kStranger, 2);
    addPath(kBystander, 3);
    machine_ = Ipsec::tesselV1SmFactory(scheduler_, host_);
    publish(kBystander, soundRecord(soundKeys().back(), 0x80));
    run(1);
    FUZZ_CHECK(isUp(kBystander, 1), "the bystander comes up");
  }

  void step(FuzzInput& input) {
    const uint32_t what = input.below(12);
    if (what < 7) {
      publish(kStranger, madeUp(input));
    } else if (what == 7) {
      host_.ipsecPeerKeyDir->ipsecPeerKeyInfoDel(IpGenAddr::fromV4(kStranger));
    } else if (what == 8) {
      publish(input.oneOf({kRouterId, 0U, 0xFFFFFFFFU}), madeUp(input));
    } else if (what == 9) {
      host_.ipsecStatus->testKnob()->dhRekeyTriggerIs(true);
      run(61);
    } else if (what == 10) {
      run(input.below(180));
    } else {
      touchMerge(input.flag() ? 1 : 2);
    }
    run(input.oneOf({0.0, 0.0, 0.1, 5.0, 61.0}));
    check();
  }

  /// A good record, and the peer is up with all of its paths.
  void heal() {
    const Controller::PeerKeyInfo good = soundRecord(soundKeys()[0], 0x7F);
    const auto& state = host_.ipsecStatus->ipsecPeerConnectionState(IpGenAddr::fromV4(kStranger));
    // Counter and nonce of one that was refused: nothing new, until the next sanity pass.
    const bool looksKnown =
        state && state->nonce() == good.nonce && state->rekeyCounter() == good.rekeyCounter;
    publish(kStranger, good);
    run(looksKnown ? 61 : 1);
    check();
    FUZZ_CHECK(isUp(kStranger, 2), "a good record brings the peer up");
  }

 private:
  static Controller::PeerKeyInfo soundRecord(const Bytes& key, uint8_t nonceByte) {
    Controller::PeerKeyInfo record;
    record.originatorId = IpGenAddr::fromV4(kStranger);
    record.dhKey = key;
    record.dhKeyLen = kKeyLen;
    record.dhGroup = static_cast<uint32_t>(IpsecDhGroup::ecp256);
    record.nonce.assign(32, nonceByte);
    record.nonceLen = 32;
    record.encryptAlgo = static_cast<uint8_t>(IpsecEspAlgorithm::aes256Gcm128);
    record.hashAlgo = static_cast<uint8_t>(IpsecHmacAlgorithm::sha256);
    record.valid = 1;
    return record;
  }

  Bytes keyMadeUp(FuzzInput& input) const {
    Bytes key = soundKeys()[input.below(4)];
    switch (input.below(8)) {
      case 0:
        return host_.ipsecLocalKeyDir->dhKey();  // Ours.
      case 1:
        return soundKeys().back();  // Another peer's.
      case 2:
        return input.bytes();
      case 3:
        key.resize(input.byte(), input.byte());
        return key;
      case 4:
        key[input.byte() % kKeyLen] ^= input.byte();  // Off the curve, or the negative point.
        return key;
      case 5:
        return Bytes(kKeyLen, input.byte());
      default:
        return key;
    }
  }

  /// A record of which each field is sound or not, as `input` says.
  Controller::PeerKeyInfo madeUp(FuzzInput& input) {
    Controller::PeerKeyInfo record = soundRecord(soundKeys()[0], input.byte());
    const uint8_t unsound = input.byte();
    if ((unsound & 1U) != 0) {
      record.dhKey = keyMadeUp(input);
    }
    if ((unsound & 2U) != 0) {
      record.dhKeyLen = static_cast<uint32_t>(input.number(4));
    }
    if ((unsound & 4U) != 0) {
      record.dhGroup = static_cast<uint32_t>(input.number(4));
    }
    if ((unsound & 8U) != 0) {
      record.nonce = input.flag() ? host_.ipsecLocalKeyDir->nonce() : input.bytes();
    }
    if ((unsound & 16U) != 0) {
      record.nonceLen = static_cast<uint32_t>(input.number(4));
    }
    if ((unsound & 32U) != 0) {
      record.encryptAlgo = input.byte();
      record.hashAlgo = input.byte();
    }
    if ((unsound & 64U) != 0) {
      record.originatorId = IpGenAddr::fromV4(static_cast<uint32_t>(input.number(4)));
      record.valid = input.byte();
      record.received = input.byte();
    }
    switch (input.below(6)) {
      case 0:
        counter_ = 0;
        break;
      case 1:
        counter_ = input.number();
        break;
      case 2:
        --counter_;
        break;
      case 3:
        break;
      default:
        ++counter_;
        break;
    }
    record.rekeyCounter = counter_;
    return record;
  }

  void publish(uint32_t peer, const Controller::PeerKeyInfo& record) {
    host_.ipsecPeerKeyDir->ipsecPeerKeyInfoIs(IpGenAddr::fromV4(peer), record);
  }

  static ConnectionKey pathKey(uint32_t number) {
    const uint32_t net = 0x0A000000 + (number << 8U);
    return {0, IpGenAddr::fromV4(net + 1), IpGenAddr::fromV4(net + 2), number};
  }
  void touchMerge(uint32_t number) {
    const ConnectionKey key = pathKey(number);
    const auto info = host_.mergeData->connectionInfoIs({key.vrfId, key.srcAddr, key.dstAddr});
    info->connectionIs(key, {.version = info->connection(key).version + 1});
  }
  void addPath(uint32_t peer, uint32_t number) {
    const ConnectionKey key = pathKey(number);
    host_.ipsecDpsPathConfig->ipsecPathConfigIs(key, {.ipsecEnabled = true});
    const auto status = host_.ipsecPathStatusDir->ipsecPathStatusIs(key);
    status->remoteIpIs(IpGenAddr::fromV4(peer));
    status->establishAllowedIs(true);
    status->pathNameIs("path " + std::to_string(number));
    status->stateIs(Path::UnderlayState::established);
    host_.ipsecStatus->ipsecConnectionStatusInfoIs(key)->connectionStateIs(7);
    host_.encapIdHelper->encapIdIs({key, kDynamicPathConnection}, {.reqid = number});
    touchMerge(number);
  }

  /// Time passes, for a data path that installs every SA at once and counts packets both ways.
  void run(double span) {
    const Duration end = time_->monotonicTime() + seconds(span);
    do {
      for (const auto& [key, sa] : host_.tesselV1->sa()) {
        auto& entry = host_.ipsecCounterTable->saCounterEntryIs(key);
        entry.addTime =
            entry.addTime != 0 ? entry.addTime : static_cast<uint64_t>(time_->utcTime().seconds());
        ++entry.pkts;
      }
      time_->runFor(std::min(end - time_->monotonicTime(), seconds(5)));
    } while (time_->monotonicTime() < end);
  }

  /// Ready, with that many paths that have a steady pair.
  bool isUp(uint32_t peer, size_t paths) const {
    const auto& state = host_.ipsecStatus->ipsecPeerConnectionState(IpGenAddr::fromV4(peer));
    if (!state || state->peerConnStatus() != PeerConnStatus::ready ||
        state->pathConnState().size() != paths) {
      return false;
    }
    for (const auto& [key, path] : state->pathConnState()) {
      const Ptr<Ipsec::RekeySm>& rekeySm = machine_->paths().rekeySm(key);
      if (!rekeySm || !rekeySm->getSaInfoFromType(SaType::steadyIn) ||
          !rekeySm->getSaInfoFromType(SaType::steadyOut)) {
        return false;
      }
    }
    return true;
  }

  void check() const {
    const Ptr<Ike::VrfStatus>& vrf = host_.ipsecStatus->vrfStatus("default");
    size_t sas = 0;
    for (const auto& [peer, state] : host_.ipsecStatus->ipsecPeerConnectionState()) {
      for (const auto& [key, path] : state->pathConnState()) {
        const Ptr<Ipsec::RekeySm>& rekeySm = machine_->paths().rekeySm(key);
        FUZZ_CHECK(rekeySm && rekeySm->pathConnState() == path, "a path has its rekey machine");
        for (const auto& [saKey, info] : path->pathConnSaInfo()) {
          ++sas;
          FUZZ_CHECK(vrf->tesselSa(saKey) == info->sa() && vrf->lifetimeCfgHas(saKey) &&
                         host_.tesselV1->sa().has(saKey) && host_.tesselV1->cpSa(saKey) == key,
                     "an SA is in every table");
        }
      }
      const auto generations = machine_->peerKeys().localPeerKeyInfoList(peer);
      FUZZ_CHECK(!generations || generations->peerKeyInfo().size() <= 64,
                 "generations are bounded");
    }
    FUZZ_CHECK(vrf->tesselSa().size() == sas && host_.tesselV1->sa().size() == sas,
               "no SA belongs to no path");
    FUZZ_CHECK(machine_->paths().rekeySm().size() == machine_->paths().totalPaths(),
               "no rekey machine belongs to no path");
    FUZZ_CHECK(isUp(kBystander, 1), "the bystander does not notice");
    FUZZ_CHECK(host_.ipsecLocalKeyDir->valid(), "the own key stays");
  }

  const Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  const Ptr<VirtualTimeScheduler> scheduler_ = makePtr<VirtualTimeScheduler>(time_, "router");
  RouterEntities host_{*time_, RouterSettings{}};
  Ptr<Ipsec::TesselV1Sm> machine_;
  uint64_t counter_ = 0;
};

}  // namespace
}  // namespace tessel::lab

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tessel::fuzz::FuzzInput input(data, size);
  tessel::lab::Target target;
  for (int steps = 0; steps < 24 && !input.empty(); ++steps) {
    target.step(input);
  }
  target.heal();
  return 0;
}
