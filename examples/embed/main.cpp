// embed OWN PEER: a router's agent around the engine, with two paths to one peer. Two of them,
// `embed 1 2` and `embed 2 1`, bring the paths up and rekey them until their standard input ends.
//
// It plays the three parts that are an agent's own: it describes the paths, it carries key records
// between the key directories (straight to the peer; elsewhere controllers stand in between, and
// see to it that records are genuine), and it moves ESP packets with the SAs that it is handed.
// Left out: anti-replay windows, and packets of users. What flows are probes.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <random>

#include "Esp.h"
#include "KeyRecord.h"
#include "UdpSocket.h"
#include "host/agent/AgentEntities.h"
#include "host/agent/AgentPaths.h"
#include "host/crypto/WipingMemory.h"
#include "host/facility/Allocation.h"
#include "host/facility/Trace.h"
#include "host/runtime/PollClock.h"
#include "host/runtime/RealTime.h"
#include "sm/TesselV1Sm.h"

using namespace tessel;

namespace {

IpGenAddr routerId(uint32_t router) {
  return IpGenAddr::fromV4(0xC0000200 + router);  // 192.0.2.0/24
}

IpGenAddr underlay(uint32_t router) {
  return IpGenAddr::fromV4(0x7F000100 + router);  // 127.0.1.0/24
}

/// An SA in the data path.
struct Sa {
  explicit Sa(const Ptr<Ike::SecurityAssociation>& handedOver)
      : entity(handedOver), inbound(isInSa(handedOver->saType())), esp(*handedOver) {
    changes.attach<&Sa::handleChange>(*entity, *this);
  }
  void handleChange(const Change& change) {
    if (change.is(Ike::SecurityAssociation::rekeyName)) {
      nonceWord = entity->rekey() ? entity->nonce() : 0;
    }
  }

  const Ptr<Ike::SecurityAssociation> entity;
  const bool inbound;
  Esp esp;
  uint32_t nonceWord = 0;  // What its packets carry, network byte order.
  Subscription changes;
};

struct Path {
  explicit Path(const PathDescription& path)
      : description(path), socket(path.key.srcAddr, path.key.dstAddr, path.localPort) {}

  const PathDescription description;
  UdpSocket socket;
  std::list<Sa> sas;  // In the order of their hand-over.
  DynamicPathState state = DynamicPathState::none;
};

class Agent {
 public:
  Agent(const Ptr<RealTime>& time, PollClock& clock, uint32_t own, uint32_t peer)
      : peer_(routerId(peer)),
        scheduler_(makePtr<RealTimeScheduler>(time, "router-" + std::to_string(own))),
        entities_(time->clock()),
        keySocket_(underlay(own), underlay(peer), 4600) {
    configure(routerId(own));
    localKey_.attach<&Agent::handleLocalKey>(*entities_.ipsecLocalKeyDir, *this);
    saTable_.attach<&Agent::handleSaTable>(*entities_.tesselV1, *this);
    machine_ = Ipsec::tesselV1SmFactory(scheduler_, entities_);
    entities_.controllerStatus->connectedIs(true);
    clock.readableIs(keySocket_.descriptor(), [this] { receiveRecord(); });
    addPath({0, underlay(own), underlay(peer), 1}, "internet", 4500, clock);
    addPath({0, underlay(own), underlay(peer), 2}, "mpls", 4501, clock);
    tick_->handlerIs([this] { handleTick(); });
    tick_->scheduleTaskDelay(Duration());
  }

 private:
  void configure(const IpGenAddr& own) {
    const auto sa = entities_.ipsecConfig->securityAssocIs("sa");
    sa->encryptAlgoIs(EncryptionAlgo::aes256Gcm128);
    sa->integrityAlgoIs(IntegrityAlgo::sha256);
    sa->lifetimeIs(100);  // Seconds, to see a rekey soon; in earnest hours.
    const auto profile = entities_.ipsecConfig->ipsecProfileIs("overlay");
    profile->modeIs("tunnel");
    profile->securityAssocNameIs("sa");
    entities_.ipsecConfig->keyControllerIs({.enabled = 1,
                                            .profileName = "overlay",
                                            .dhKeyLifetime = 24 * 3600,
                                            .holdTime = 30 * 60,
                                            .dhGroup = IpsecDhGroup::ecp256});
    entities_.ipsecDpsPathConfig->routerIdIs(own);
  }

  void addPath(const ConnectionKey& key, const char* name, uint16_t port, PollClock& clock) {
    const auto number = static_cast<uint32_t>(key.connId);
    Path& path = paths_
                     .try_emplace(key, PathDescription{.key = key,
                                                       .peer = peer_,
                                                       .name = name,
                                                       .reqid = number,
                                                       .index = number,
                                                       .localPort = port,
                                                       .remotePort = port})
                     .first->second;
    clock.readableIs(path.socket.descriptor(), [this, &path] { receivePacket(path); });
    agentPaths_.add(path.description);
  }

  void handleLocalKey(const Change& change) {
    if (change.is(Controller::LocalKeyDir::updateVersionName)) {  // Written last.
      const auto record = publishedRecord(*entities_.ipsecLocalKeyDir);
      record_ = record ? encode(*record) : Bytes();
    }
  }

  void receiveRecord() {
    const TraceContext context(scheduler_->name(), scheduler_->clock());
    const auto record = decode(keySocket_.receive());
    Controller::PeerKeyDir& directory = *entities_.ipsecPeerKeyDir;
    if (record && record->originatorId == peer_ &&
        record->rekeyCounter >= directory.ipsecPeerKeyInfo(peer_).rekeyCounter) {
      directory.ipsecPeerKeyInfoIs(peer_, *record);
    }
  }

  void handleSaTable(const Change& change) {
    const SecurityAssociationKey* const key = change.memberOf(IpsecCommon::TesselV1::saName);
    if (key == nullptr) {
      return;
    }
    if (change.kind() == Change::Kind::removed) {
      for (auto& [pathKey, path] : paths_) {
        path.sas.remove_if([&](const Sa& sa) { return sa.entity->sakey() == *key; });
      }
      counters().saCounterEntryDel(*key);
      std::printf("SA %s: removed\n", spiText(key->spi).c_str());
      return;
    }
    Path& path = paths_.at(entities_.tesselV1->cpSa(*key));
    const Sa& sa = path.sas.emplace_back(*entities_.tesselV1->sa().find(*key));
    counters().saCounterEntryIs(*key).addTime =
        static_cast<uint64_t>(scheduler_->clock().utcTime().seconds());
    std::printf("SA %s %s: installed on %s\n", spiText(key->spi).c_str(), sa.inbound ? "in" : "out",
                path.description.name.c_str());
  }

  void handleTick() {
    tick_->scheduleTaskDelay(seconds(0.25));
    keySocket_.send(record_);  // Again and again: datagrams get lost.
    for (auto& [key, path] : paths_) {
      sendProbe(path);
      showState(path);
    }
  }

  /// A probe is the nonce word, 0 for none, and a text.
  void sendProbe(Path& path) {
    const auto sa = std::find_if(path.sas.rbegin(), path.sas.rend(),
                                 [](const Sa& each) { return !each.inbound; });
    if (sa != path.sas.rend()) {
      Bytes probe = {0, 0, 0, 0, 'p', 'r', 'o', 'b', 'e'};
      std::memcpy(probe.data(), &sa->nonceWord, sizeof sa->nonceWord);
      path.socket.send(sa->esp.seal(probe));
      count(*sa, probe.size());
      ++counters().sessionCounterEntryIs(path.description.reqid).pktsOut;
    }
  }

  void receivePacket(Path& path) {
    const Bytes packet = path.socket.receive();
    const auto sa = std::find_if(path.sas.begin(), path.sas.end(), [&](const Sa& each) {
      return each.inbound && Esp::spiOf(packet) == each.entity->sakey().spi;
    });
    const auto payload = sa == path.sas.end() ? std::nullopt : sa->esp.open(packet);
    uint32_t nonceWord = 0;
    if (!payload || payload->size() < sizeof nonceWord) {
      std::printf("path %s: a packet dropped\n", path.description.name.c_str());
      return;
    }
    std::memcpy(&nonceWord, payload->data(), sizeof nonceWord);
    auto& entry = count(*sa, payload->size());
    entry.nonceWord = nonceWord != 0 ? ntohl(nonceWord) : entry.nonceWord;
    ++counters().sessionCounterEntryIs(path.description.reqid).pktsIn;
  }

  IpsecCounters::IpsecSACounterEntry& count(const Sa& sa, size_t bytes) {
    auto& entry = counters().saCounterEntryIs(sa.entity->sakey());
    ++entry.pkts;
    entry.bytes += bytes;
    return entry;
  }

  void showState(Path& path) {
    const auto peer = entities_.ipsecStatus->ipsecPeerConnectionState(peer_);
    const auto seen = peer ? peer->pathConnState(path.description.key) : nullptr;
    const DynamicPathState state = seen ? seen->pathState() : DynamicPathState::none;
    if (state != path.state) {
      std::printf("path %s: %s -> %s\n", path.description.name.c_str(),
                  stringValue(path.state).c_str(), stringValue(state).c_str());
      path.state = state;
    }
  }

  IpsecCounters::IpsecCounterTable& counters() { return *entities_.ipsecCounterTable; }

  const IpGenAddr peer_;
  const Ptr<RealTimeScheduler> scheduler_;
  const AgentEntities entities_;
  AgentPaths agentPaths_{entities_};
  std::map<ConnectionKey, Path> paths_;
  UdpSocket keySocket_;
  Bytes record_;  // As published; empty while there is none.
  Subscription localKey_, saTable_;
  const Ptr<TimerTask> tick_ = makePtr<TimerTask>(scheduler_, 3, "tick");
  Ptr<Ipsec::TesselV1Sm> machine_;  // Last: it goes before what it watches.
};

}  // namespace

int main(int argc, char** argv) {
  const int own = argc == 3 ? std::atoi(argv[1]) : 0;
  const int peer = argc == 3 ? std::atoi(argv[2]) : 0;
  if (own < 1 || own > 254 || peer < 1 || peer > 254 || own == peer || !wipeLibcryptoMemory()) {
    std::fprintf(stderr, "usage: embed OWN PEER, two different numbers from 1 to 254\n");
    return 2;
  }
  mergeFreedMemoryAtOnce();
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  srandom(std::random_device()());  // Or all routers would rekey in step.
  auto clock = std::make_unique<PollClock>();
  PollClock& descriptors = *clock;
  const auto time = makePtr<RealTime>(std::move(clock));
  descriptors.readableIs(STDIN_FILENO, [&] { time->stop(); });
  const Agent agent(time, descriptors, static_cast<uint32_t>(own), static_cast<uint32_t>(peer));
  time->run();
}
