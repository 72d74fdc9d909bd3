// Changes of a router's entities and time steps, in any order and with any values: the machine goes
// on, and what must hold of one router's own tables, logs and packets holds.
#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "lab/check/Invariants.h"
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"

namespace tessel::lab {
namespace {

using fuzz::FuzzInput;

/// What does not follow from the promises that a host makes about the order of its writes, which
/// are broken here on purpose. The others speak of two ends that agree, or of when things are over.
const std::set<std::string> kJudged = {
    "iv-never-twice", "equal-spi-equal-key", "packets-accounted", "tables-agree",
    "tables-bounded", "records-whole",       "logs-contiguous",   "no-secret-in-output"};

class Target {
 public:
  Target() {
    invariants_.start(lab_);
    lab_.run(seconds(2));
  }
  ~Target() { judge(); }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  void step(FuzzInput& input) {
    Router& router = lab_.router(input.below(4) == 0 ? "west" : "east");
    const uint8_t what = input.byte();
    if (what % 4 == 0) {
      lab_.run(seconds(input.oneOf({0.001, 0.02, 0.5, 1.0, 5.0, 5.0, 20.0, 61.0, 61.0, 185.0})));
      judge();
    } else if (what % 4 == 1 && what < 64) {
      lab_.apply(action(input, router.name()));
    } else if (router.up()) {
      // The input is read when the agent gets to it, which is now.
      router.post([&](RunningRouter& agent) { change(input, router, agent); });
      lab_.run(Duration());
    }
  }

 private:
  static Scenario scenario() {
    Scenario made = meshScenario({.seed = 5, .pathsPerPair = 2, .trafficInterval = seconds(5)});
    for (RouterPlan& router : made.routers) {
      router.settings.holdTime = 100;
      router.settings.otherProfiles.push_back({.name = "other"});
    }
    return made;
  }

  static Action action(FuzzInput& input, const std::string& router) {
    const std::string path = input.flag() ? "east-west-1" : "east-west-2";
    switch (input.below(6)) {
      case 0:
        return ForceSaRekey{.path = path, .router = router};
      case 1:
        return ForceDhRekey{.router = router};
      case 2:
        return RestartRouter{.router = router, .downFor = seconds(3)};
      case 3:
        return ClearPath{.path = path, .router = router};
      case 4:
        return CutLink{.path = path};
      default:
        return RestoreLink{.path = path};
    }
  }

  static IpGenAddr address(FuzzInput& input) {
    switch (input.below(7)) {
      case 0:
        return IpGenAddr();
      case 1:
        return IpGenAddr::fromV4(0);
      case 2:
        return IpGenAddr::fromV4(static_cast<uint32_t>(input.number(4)));
      case 3:
        return IpGenAddr::parse("2001:db8::1").value();
      case 4:
        return IpGenAddr(AddressFamily::ipv6);
      default:
        return IpGenAddr::fromV4(0xC0000201 + input.below(3));
    }
  }

  void change(FuzzInput& input, Router& router, RunningRouter& agent) {
    RouterEntities& host = agent.entities;
    Ike::Status& status = *host.ipsecStatus;
    const ConnectionKey key = router.paths()[input.below(2)]->end.key;
    const IpGenAddr peer =
        router.name() == "east" ? IpGenAddr::fromV4(0xC0000202) : IpGenAddr::fromV4(0xC0000201);
    const std::string profile = input.oneOf({"overlay", "overlay", "other", "missing", ""});
    const auto limit = [&] {
      return input.oneOf<uint32_t>({0, 1, 2, 60, 300, 3600, 86400, UINT32_MAX});
    };
    switch (input.below(22)) {
      case 0: {
        Ike::KeyControllerConfig settings = host.ipsecConfig->keyController();
        switch (input.below(4)) {
          case 0:
            settings.dhGroup = static_cast<IpsecDhGroup>(input.byte());
            break;
          case 1:
            settings.profileName = profile;
            break;
          case 2:
            settings.dhKeyLifetime = limit();
            break;
          default:
            settings.holdTime = limit();
            break;
        }
        host.ipsecConfig->keyControllerIs(settings);
        break;
      }
      case 1:
        if (const auto config = host.ipsecConfig->ipsecProfile(profile)) {
          config->modeIs(profile);
          config->securityAssocNameIs(input.oneOf({"overlay", "other", "missing"}));
          notifyProfile(host, profile);
        }
        break;
      case 2:
        input.flag() ? host.ipsecConfig->ipsecProfileDel(profile)
                     : writeProfile(*host.ipsecConfig, {.name = profile});
        notifyProfile(host, profile);
        break;
      case 3:
        if (const auto config = host.ipsecConfig->securityAssoc(profile)) {
          config->encryptAlgoIs(static_cast<EncryptionAlgo>(input.byte()));
          config->integrityAlgoIs(static_cast<IntegrityAlgo>(input.byte()));
          config->lifetimeIs(limit());
          config->packetLimitIs(limit());
          config->byteLimitIs(input.flag() ? limit() : input.number());
          notifyProfile(host, profile);
        }
        break;
      case 4:
        host.ipsecDpsPathConfig->routerIdIs(address(input));
        break;
      case 5:
        input.flag() ? host.ipsecDpsPathConfig->ipsecPathConfigIs(key, {input.flag()})
                     : host.ipsecDpsPathConfig->ipsecPathConfigDel(key);
        agent.pathLayer.announce(key);
        break;
      case 6:
        if (const auto& pathStatus = host.ipsecPathStatusDir->ipsecPathStatus(key)) {
          switch (input.below(4)) {
            case 0:
              pathStatus->remoteIpIs(address(input));
              break;
            case 1:
              pathStatus->stateIs(static_cast<Path::UnderlayState>(input.below(5)));
              break;
            case 2:
              pathStatus->establishAllowedIs(input.flag());
              break;
            default:
              pathStatus->publicIpIs(address(input));
              pathStatus->encapSrcPortIs(static_cast<uint16_t>(input.number(2)));
              break;
          }
        }
        break;
      case 7:
        host.ipsecPathStatusDir->ipsecPathStatusDel(key);
        break;
      case 8:
        input.flag() ? agent.pathLayer.add(router.path(key)->end) : agent.pathLayer.remove(key);
        break;
      case 9:
        agent.pathLayer.announce(key);
        break;
      case 10:
        if (input.flag()) {
          status.ipsecConnectionStatusInfoDel(key);
        } else {
          status.ipsecConnectionStatusInfoIs(key)->connectionStateIs(input.byte());
        }
        break;
      case 11:
        if (input.flag()) {
          host.encapIdHelper->encapIdDel({key, kDynamicPathConnection});
        } else {
          // Two paths under one number, among others.
          host.encapIdHelper->encapIdIs({key, kDynamicPathConnection}, {.reqid = input.below(4)});
        }
        break;
      case 12:
        status.clearKeyIs(key)->clearCntInc(1);
        break;
      case 13: {
        Controller::PeerKeyInfo record = host.ipsecPeerKeyDir->ipsecPeerKeyInfo(peer);
        const auto step = input.oneOf<uint64_t>({0, 1, 2, UINT64_MAX});
        record.nonce.assign(32, input.byte());
        const IpGenAddr filedUnder = input.below(4) == 0 ? address(input) : peer;
        // What tables may hold counts on peers that rekey twice a minute at most.
        if (const auto [due, first] = nextRekey_.try_emplace({router.name(), filedUnder});
            lab_.now() >= due->second) {
          record.rekeyCounter += step;
          due->second = lab_.now() + seconds(30);
        }
        host.ipsecPeerKeyDir->ipsecPeerKeyInfoIs(filedUnder, record);
        break;
      }
      case 14:
        host.ipsecPeerKeyDir->ipsecPeerKeyInfoDel(peer);
        break;
      case 15:
        host.controllerStatus->connectedIs(input.flag());
        break;
      case 16: {
        const bool corrupt = input.flag();
        for (const SecurityAssociationKey& sa : host.tesselV1->sa().keys()) {
          host.ipsecCounterTable->saCounterEntryCorruptIs(sa, corrupt);
          host.ipsecCounterTable->sessionCounterEntryCorruptIs(sa.reqid, corrupt);
        }
        break;
      }
      case 17:
        for (const SecurityAssociationKey& sa : host.tesselV1->sa().keys()) {
          auto& entry = host.ipsecCounterTable->saCounterEntryIs(sa);
          switch (input.below(4)) {
            case 0:
              entry.nonceWord = static_cast<uint32_t>(input.number(4));
              break;
            case 1:
              entry.pkts = input.number();
              break;
            case 2:
              entry.addTime = input.number();
              break;
            default:
              break;
          }
        }
        break;
      case 18:
        status.testKnob()->forcePathActiveIs(input.flag());
        break;
      case 19:
        status.testKnob()->dhExpiryTimeIs(seconds(input.oneOf({0.0, 299.0, 300.0, 1e300})));
        break;
      case 20:
        status.testKnob()->forcedNonceIs(
            input.flag() ? std::string(32, static_cast<char>(input.byte())) : "");
        break;
      default:
        host.vrfIdStatus->idToNameIs(input.byte(), input.oneOf({"default", "red", ""}));
        break;
    }
  }

  void judge() const {
    for (const Violation& violation : invariants_.violations()) {
      FUZZ_CHECK(!kJudged.contains(violation.invariant), stringValue(violation));
    }
  }

  std::map<std::pair<std::string, IpGenAddr>, Duration> nextRekey_;
  Invariants invariants_;
  Lab lab_{scenario(), {&invariants_}};
};

}  // namespace
}  // namespace tessel::lab

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tessel::fuzz::FuzzInput input(data, size);
  tessel::lab::Target target;
  for (int steps = 0; steps < 32 && !input.empty(); ++steps) {
    target.step(input);
  }
  return 0;
}
