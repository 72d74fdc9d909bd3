#include "lab/report/PacketCapture.h"

#include <array>
#include <cmath>
#include <ostream>

#include "host/model/ByteOrder.h"

namespace tessel::lab {
namespace {

constexpr uint32_t kPcap = 0xA1B2C3D4;  // With microseconds.
constexpr uint32_t kLinkTypeRaw = 101;  // IPv4 or IPv6, as the first half byte says.
constexpr uint32_t kSnapLength = 0x40000;
constexpr int kMicroseconds = 1'000'000;  // In a second.

void writeWords(std::ostream& out, std::initializer_list<uint32_t> words) {
  for (const uint32_t word : words) {
    std::array<uint8_t, 4> bytes{};
    put32(bytes.data(), word);
    out.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
}

}  // namespace

class PacketCapture::Watch final : public DataPlaneWatch {
 public:
  Watch(PacketCapture& capture, Router& router)
      : DataPlaneWatch(router),
        capture_(capture),
        clock_(router.running().dataScheduler->clock()) {}

 private:
  bool wantsPackets() const override { return true; }
  void handlePacketSent(const PacketSent& packet) override {
    const auto start = static_cast<int64_t>(VirtualTime::defaultUtcStart().seconds());
    const int64_t time = start * kMicroseconds +
                         std::llround(clock_.monotonicTime().seconds() * double{kMicroseconds});
    const auto size = static_cast<uint32_t>(packet.outer.size());
    writeWords(capture_.out_, {static_cast<uint32_t>(time / kMicroseconds),
                               static_cast<uint32_t>(time % kMicroseconds), size, size});
    capture_.out_.write(reinterpret_cast<const char*>(packet.outer.data()), size);
  }

  PacketCapture& capture_;
  const Clock& clock_;
};

PacketCapture::PacketCapture(std::ostream& out) : out_(out) {
  writeWords(out_, {kPcap, 2U << 16U | 4U, 0, 0, kSnapLength, kLinkTypeRaw});
}

std::unique_ptr<DataPlaneWatch> PacketCapture::watch(Router& router) {
  return std::make_unique<Watch>(*this, router);
}

}  // namespace tessel::lab
