// Packets into the data plane: what was sent is delivered once, as it was; nothing else is
// delivered, everything is counted, and no packet keeps a later one out.
#include <set>
#include <utility>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "host/crypto/RandomSource.h"
#include "host/runtime/VirtualTime.h"
#include "lab/dataplane/DataPlane.h"
#include "lab/dataplane/InnerPacket.h"

namespace tessel::lab {
namespace {

using fuzz::FuzzInput;

/// One cipher of each kind: with integrity of its own, with an HMAC, with an HMAC alone.
struct Suite {
  const char* cryptoAlgo;
  uint16_t cryptoKeyLen;
  const char* authAlgo;
  uint16_t authKeyLen;
};
constexpr Suite kSuites[] = {{"rfc4106(gcm(aes))", 288, "hmac(sha256)", 256},
                             {"aes", 128, "sha1", 160},
                             {"cipher_null", 0, "md5", 128}};
constexpr uint32_t kPaths = std::size(kSuites);

/// Path 2 is one of IPv6.
IpGenAddr addressOf(uint32_t path, uint8_t end) {
  std::array<uint8_t, 16> bytes = {0x20, 0x01, 0x0d, 0xb8};
  bytes[15] = end;
  return path == 2 ? IpGenAddr::fromV6(bytes) : IpGenAddr::fromV4(0x0A000000 + 256 * path + end);
}

SecretBytes keyOf(uint16_t bits, uint32_t path) {
  SecretBytes key(bits / 8U);
  for (size_t i = 0; i < key.size(); ++i) {
    key.data()[i] = static_cast<uint8_t>(7 * i + path);
  }
  return key;
}

/// A data plane with one SA per path.
class End {
 public:
  End(const Ptr<VirtualTime>& time, bool sends)
      : scheduler_(makePtr<VirtualTimeScheduler>(time, sends ? "sender" : "receiver")),
        plane(
            {scheduler_, table_, makePtr<Ike::Status>(nullptr), counters_,
             IpGenAddr::fromV4(0xC0A80001)},
            [this](const ConnectionKey&, Bytes outer) { sent = std::move(outer); },
            [this](const ConnectionKey&, BytesView inner) {
              delivered.emplace_back(inner.begin(), inner.end());
            }) {
    plane.probeIntervalIs(Duration::never());
    for (uint32_t path = 0; path < kPaths; ++path) {
      const ConnectionKey key = pathKey(path, sends);
      const auto sa = makePtr<Ike::SecurityAssociation>(
          SecurityAssociationKey{0x1000 + path, addressOf(path, 2), 50, path + 1, 2});
      sa->saddrIs(addressOf(path, 1));
      sa->modeIs(1);
      sa->reqidIs(path + 1);
      sa->saTypeIs(sends ? SaType::steadyOut : SaType::steadyIn);
      sa->connIdIs(path + 1);
      sa->encapTypeIs(IpsecEncapProtocol::udp);
      sa->encapSrcPortIs(4500);
      sa->encapDstPortIs(4500);
      sa->cryptoAlgoIs(kSuites[path].cryptoAlgo);
      sa->cryptoKeyLenIs(kSuites[path].cryptoKeyLen);
      sa->cryptoKeyIs(keyOf(kSuites[path].cryptoKeyLen, path));
      sa->icvLenIs(128);
      sa->authAlgoIs(kSuites[path].authAlgo);
      sa->authKeyLenIs(kSuites[path].authKeyLen);
      sa->authKeyIs(keyOf(kSuites[path].authKeyLen, path + 100));
      if (sends) {
        sa->nonceIs(0x1A2B3C4D + path);
        sa->rekeyIs(path != 1);
      }
      table_->cpSaIs(sa->sakey(), key);
      table_->saIs(sa);
    }
  }

  static ConnectionKey pathKey(uint32_t path, bool sends) {
    const IpGenAddr here = addressOf(path, sends ? 1 : 2);
    const IpGenAddr there = addressOf(path, sends ? 2 : 1);
    return {0, here, there, path + 1};
  }

 private:
  const Ptr<VirtualTimeScheduler> scheduler_;
  const Ptr<IpsecCommon::TesselV1> table_ = makePtr<IpsecCommon::TesselV1>();
  const Ptr<IpsecCounters::IpsecCounterTable> counters_ =
      makePtr<IpsecCounters::IpsecCounterTable>();

 public:
  DataPlane plane;
  Bytes sent;
  std::vector<Bytes> delivered;
};

class Exchange {
 public:
  Exchange() { time_->runFor(seconds(1)); }

  /// A packet as `input` says: made up, or sent and then altered, shortened, extended, repeated.
  void step(FuzzInput& input) {
    switch (input.below(6)) {
      case 0:
        receive(input.bytes());
        break;
      case 1: {
        Bytes packet = seal(input);
        receive(packet);
        FUZZ_CHECK(lastDelivered_, "a packet that was sent is taken");
        receive(packet);
        FUZZ_CHECK(!lastDelivered_, "and once only");
        break;
      }
      case 2: {
        Bytes packet = seal(input);
        for (uint32_t changes = 1 + input.below(4); changes > 0; --changes) {
          packet[input.number(2) % packet.size()] ^= input.byte();
        }
        receive(std::move(packet));
        break;
      }
      case 3: {
        Bytes packet = seal(input);
        packet.resize(input.number(2) % (packet.size() + 40), input.byte());
        receive(std::move(packet));
        break;
      }
      case 4:
        if (!known_.empty()) {
          receive(known_[input.byte() % known_.size()]);  // Late, or for the second time.
        }
        break;
      default:
        known_.push_back(seal(input));  // Lost, or late.
        break;
    }
  }

 private:
  Bytes seal(FuzzInput& input) {
    const uint32_t path = input.below(kPaths);
    const UdpEnds ends = {IpGenAddr::fromV4(0x0A630001), IpGenAddr::fromV4(0x0A630002), 1, 2};
    const Bytes inner =
        innerPacketBytes({.ends = ends, .sequence = ++sequence_}, kInnerPayloadSize + input.byte());
    FUZZ_CHECK(!sender_.plane.sendPacket(End::pathKey(path, true), inner), "it is sent");
    onTheWay_.insert(inner);
    known_.push_back(sender_.sent);
    return sender_.sent;
  }

  void receive(Bytes packet) {
    const uint64_t before = counted();
    receiver_.delivered.clear();
    const DataPlane::Received received = receiver_.plane.receivePacket(std::move(packet));
    lastDelivered_ = !received.drop;
    FUZZ_CHECK(receiver_.delivered.size() == (lastDelivered_ ? 1U : 0U), "delivered or dropped");
    FUZZ_CHECK(counted() == before + 1, "every packet is counted once");
    FUZZ_CHECK(!lastDelivered_ || onTheWay_.erase(receiver_.delivered.front()) == 1,
               "only what was sent is delivered, and once");
  }

  uint64_t counted() const {
    const PathStatistics all = receiver_.plane.statistics();
    return all.received + all.receiveDrops.total();
  }

  const Ptr<VirtualTime> time_ = makePtr<VirtualTime>();
  End sender_{time_, true};
  End receiver_{time_, false};
  uint64_t sequence_ = 0;
  std::set<Bytes> onTheWay_;
  std::vector<Bytes> known_;
  bool lastDelivered_ = false;
};

}  // namespace
}  // namespace tessel::lab

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tessel::RandomSource::currentIs(tessel::makePtr<tessel::SeededRandomSource>(uint64_t{1}));
  tessel::fuzz::FuzzInput input(data, size);
  tessel::lab::Exchange exchange;
  for (int steps = 0; steps < 80 && !input.empty(); ++steps) {
    exchange.step(input);
  }
  return 0;
}
