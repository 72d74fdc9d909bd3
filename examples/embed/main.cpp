// embed OWN PEER: a router's agent around the engine, with two paths to one peer. Two of them,
// `embed 1 2` and `embed 2 1`, bring the paths up and rekey them until their standard input ends.
//
// It plays the three parts that are an agent's own: it describes the paths, it carries key records
// between the key directories (straight to the peer; elsewhere controllers stand in between, and
// see to it that records are genuine), and it moves ESP packets with the SAs that it is handed.
// Left out: anti-replay windows, and packets of users. What flows are probes.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <random>

#include "host/agent/AgentEntities.h"
#include "host/agent/AgentPaths.h"
#include "host/agent/AgentSas.h"
#include "host/agent/Esp.h"
#include "host/agent/KeyRecord.h"
#include "host/crypto/WipingMemory.h"
#include "host/facility/Allocation.h"
#include "host/facility/Trace.h"
#include "host/runtime/PollClock.h"
#include "host/runtime/RealTime.h"
#include "host/runtime/UdpSocket.h"
#include "sm/TesselV1Sm.h"

using namespace tessel;

namespace {

constexpr uint8_t kNoNextHeader = 59;  // A packet that carries none: a dummy (RFC 4303, 2.6).

IpGenAddr routerId(uint32_t router) {
  return IpGenAddr::fromV4(0xC0000200 + router);  // 192.0.2.0/24
}

IpGenAddr underlay(uint32_t router) {
  return IpGenAddr::fromV4(0x7F000100 + router);  // 127.0.1.0/24
}

/// What moves the packets of one SA.
struct Esp {
  EspTransform transform;
  uint32_t sequence = 0;  // The last one sent.
};

struct Path {
  Path(const ConnectionKey& pathKey, const char* pathName, uint16_t port)
      : key(pathKey), name(pathName), socket(key.srcAddr, port) {
    socket.peerIs(key.dstAddr, port);
  }

  const ConnectionKey key;
  const char* const name;
  UdpSocket socket;
  DynamicPathState state = DynamicPathState::none;
};

class Agent {
 public:
  Agent(const Ptr<RealTime>& time, PollClock& clock, uint32_t own, uint32_t peer)
      : peer_(routerId(peer)),
        scheduler_(makePtr<RealTimeScheduler>(time, "router-" + std::to_string(own))),
        entities_(time->clock()),
        keySocket_(underlay(own), 4600) {
    configure(routerId(own));
    localKey_.attach<&Agent::handleLocalKey>(*entities_.ipsecLocalKeyDir, *this);
    machine_ = Ipsec::tesselV1SmFactory(scheduler_, entities_);
    entities_.controllerStatus->connectedIs(true);
    keySocket_.peerIs(underlay(peer), 4600);
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
    Path& path = paths_.try_emplace(key, key, name, port).first->second;
    clock.readableIs(path.socket.descriptor(), [this, &path] { receivePacket(path); });
    agentPaths_.add({.key = key,
                     .peer = peer_,
                     .name = name,
                     .reqid = static_cast<uint32_t>(key.connId),
                     .localPort = port,
                     .remotePort = port});
  }

  void handleLocalKey(const Change& change) {
    if (change.is(Controller::LocalKeyDir::updateVersionName)) {  // Written last.
      const auto record = publishedRecord(*entities_.ipsecLocalKeyDir);
      record_ = record ? keyRecordBytes(*record) : Bytes();
    }
  }

  void receiveRecord() {
    const TraceContext context(scheduler_->name(), scheduler_->clock());
    const auto datagram = keySocket_.receive();
    const auto record = datagram ? readKeyRecord(*datagram) : std::nullopt;
    Controller::PeerKeyDir& directory = *entities_.ipsecPeerKeyDir;
    if (record && record->originatorId == peer_ &&
        record->rekeyCounter >= directory.ipsecPeerKeyInfo(peer_).rekeyCounter) {
      directory.ipsecPeerKeyInfoIs(peer_, *record);
    }
  }

  void install(const AgentSa& sa) {
    const auto use = sa.inbound ? EspTransform::Use::open : EspTransform::Use::seal;
    esp_.try_emplace(sa.key, Esp{EspTransform(sa.attributes(), use)});
    sas_.installedIs(sa);
    std::printf("SA %s %s: installed on %s\n", spiText(sa.key.spi).c_str(),
                sa.inbound ? "in" : "out", paths_.at(sa.path).name);
  }

  void uninstall(const AgentSa& sa) {
    esp_.erase(sa.key);
    std::printf("SA %s: removed\n", spiText(sa.key.spi).c_str());
  }

  void handleTick() {
    tick_->scheduleTaskDelay(seconds(0.25));
    if (!record_.empty()) {
      keySocket_.send(record_);  // Again and again: datagrams get lost.
    }
    for (auto& [key, path] : paths_) {
      sendProbe(path);
      showState(path);
    }
  }

  /// A probe is a dummy packet that carries the nonce word of a rekey, while there is one.
  void sendProbe(Path& path) {
    const AgentSa* const sa = sas_.sendingSa(path.key);
    if (sa == nullptr) {
      return;
    }
    const auto nonce = espNonceBytes(sa->nonceWord());
    const BytesView inside = sa->nonceWord() != 0 ? BytesView(nonce) : BytesView();
    Esp& esp = esp_.at(sa->key);
    Bytes packet(esp.transform.sealedSize(inside.size()));
    esp.transform.seal(sa->key.spi, ++esp.sequence, {}, inside, kNoNextHeader, packet);
    path.socket.send(packet);
    sas_.countSent(*sa, inside.size());
  }

  void receivePacket(Path& path) {
    const auto packet = path.socket.receive();
    if (!packet) {
      return;
    }
    const auto header = readEspHeader(*packet);
    const AgentSa* const sa = header ? sas_.receivingSa(path.key, header->spi) : nullptr;
    const auto opened =
        sa != nullptr ? esp_.at(sa->key).transform.open(*packet) : EspTransform::Opened();
    if (opened.failure != EspTransform::Failure::none) {
      // Who has the other one's key first sends first.
      const bool early = sas_.sendingSa(path.key) == nullptr;
      std::printf("path %s: a packet %s\n", path.name, early ? "before there are SAs" : "dropped");
      return;
    }
    sas_.countReceived(*sa, opened.payload.size(), readEspNonce(opened.payload).value_or(0));
  }

  void showState(Path& path) {
    const auto peer = entities_.ipsecStatus->ipsecPeerConnectionState(peer_);
    const auto seen = peer ? peer->pathConnState(path.key) : nullptr;
    const DynamicPathState state = seen ? seen->pathState() : DynamicPathState::none;
    if (state != path.state) {
      std::printf("path %s: %s -> %s\n", path.name, stringValue(path.state).c_str(),
                  stringValue(state).c_str());
      path.state = state;
    }
  }

  const IpGenAddr peer_;
  const Ptr<RealTimeScheduler> scheduler_;
  const AgentEntities entities_;
  AgentPaths agentPaths_{entities_};
  std::map<ConnectionKey, Path> paths_;
  std::map<SecurityAssociationKey, Esp> esp_;
  AgentSas sas_{entities_, [this](const auto& sa) { install(*sa); },
                [this](const auto& sa) { uninstall(*sa); }};
  UdpSocket keySocket_;
  Bytes record_;  // As published; empty while there is none.
  Subscription localKey_;
  const Ptr<TimerTask> tick_ = makePtr<TimerTask>(scheduler_, 3, "tick");
  Ptr<Ipsec::TesselV1Sm> machine_;  // Last: it goes before what it watches.
};

/// Runs an agent until standard input has something to read, or has ended.
void run(uint32_t own, uint32_t peer) {
  srandom(std::random_device()());  // Or all routers would rekey in step.
  auto clock = std::make_unique<PollClock>();
  PollClock& descriptors = *clock;
  const auto time = makePtr<RealTime>(std::move(clock));
  descriptors.readableIs(STDIN_FILENO, [&] { time->stop(); });
  const Agent agent(time, descriptors, own, peer);
  time->run();
}

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
  try {
    run(static_cast<uint32_t>(own), static_cast<uint32_t>(peer));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "embed: %s\n", error.what());  // A port that is taken, say.
    return 1;
  }
}
