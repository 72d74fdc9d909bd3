#include "lab/fuzz/RunDigest.h"

#include <bit>
#include <cstdlib>

#include "host/entity/Hash.h"
#include "lab/net/SmallRandom.h"
#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

constexpr uint32_t kKeySeed = 0;

}  // namespace

uint64_t RunDigest::finish(const Lab& lab) {
  for (const PathPlan& path : lab.scenario().paths) {
    const Link& link = lab.link(path.name);
    add(link.stateHash());
    for (const LinkEnd end : {LinkEnd::a, LinkEnd::b}) {
      add(link.counts(end).sent);
      add(link.counts(end).delivered);
    }
  }
  add(lab.random().stateHash());
  add(static_cast<uint64_t>(random()));
  return state_;
}

void RunDigest::handleRouterUp(Router& router) {
  add("up");
  add(router.name());
}

void RunDigest::handleRouterDown(Router& router) {
  add("down");
  add(router.name());
}

void RunDigest::handleEvent(const Router& router, const LocalEvent& event) {
  addEvent(router, event);
  add(event.number);
}

void RunDigest::handleEvent(const Router& router, const PeerEvent& event) {
  addEvent(router, event);
  add(hashValue(event.peer, kKeySeed));
  add(event.dhKeyPair.localRekeyCount);
  add(event.dhKeyPair.peerRekeyCount);
}

void RunDigest::handleEvent(const Router& router, const PathEvent& event) {
  addEvent(router, event);
  add(hashValue(event.connectionKey, kKeySeed));
  add(static_cast<uint64_t>(event.pathState));
}

void RunDigest::handleEvent(const Router& router, const SecurityAssociationKey& key,
                            const ConnectionKey&, const SaEvent& event) {
  addEvent(router, event);
  add(key.spi);
  add(static_cast<uint64_t>(event.pathState));
}

void RunDigest::handleDelivered(const std::string& router, const IpGenAddr& originator,
                                const Controller::PeerKeyInfo* record) {
  add(router);
  add(hashValue(originator, kKeySeed));
  add(record == nullptr ? 0 : record->rekeyCounter + 1);
}

void RunDigest::handleLog(const AgentLogLine& line) {
  add(line.context);
  add(line.text);
}

void RunDigest::add(uint64_t word) {
  state_ = SmallRandom(state_ ^ word).next();
}

void RunDigest::add(std::string_view text) {
  add(hashValue(text, kKeySeed));
}

template <class Event>
void RunDigest::addEvent(const Router& router, const Event& event) {
  add(std::bit_cast<uint64_t>(event.time.seconds()));
  add(router.index());
  add(std::string_view(event.eventName.text()));
}

}  // namespace tessel::lab
