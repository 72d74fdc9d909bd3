#include "lab/check/MeshView.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {

MeshView::MeshView(const Lab& lab) : byRouter_(lab.routers().size()) {
  for (const PathPlan& plan : lab.scenario().paths) {
    const size_t number = plans_.size();
    plans_.push_back(&plan);
    links_.push_back(&lab.link(plan.name));
    std::array<End, 2>& ends = ends_.emplace_back();
    for (const size_t end : {0U, 1U}) {
      Router& router = lab.router(plan.ends[end].router);
      ends[end] = {.router = &router,
                   .path = router.path(plan.name),
                   .privateAddress = plan.ends[end].address,
                   .publicAddress = plan.ends[end].publicAddress};
      byRouter_[router.index()].push_back({number, end});
    }
  }
}

EndId MeshView::find(const Router& router, const ConnectionKey& key) const {
  const size_t path = key.connId - 1;  // The lab gives its paths the connection ids 1, 2, ...
  return {path, ends_[path][0].router == &router ? 0U : 1U};
}

Ptr<Ike::PeerConnectionState> MeshView::peerState(EndId id) const {
  const End& end = this->end(id);
  return end.router->up()
             ? end.router->entities().ipsecStatus->ipsecPeerConnectionState(end.path->end.peerAddr)
             : nullptr;
}

Ptr<Ike::PathConnState> MeshView::pathState(EndId id) const {
  const Ptr<Ike::PeerConnectionState> peer = peerState(id);
  return peer ? peer->pathConnState(end(id).path->end.key) : nullptr;
}

bool MeshView::forcesActive(EndId id) const {
  const Router& router = *end(id).router;
  const Ptr<Ike::TestKnob> knob = router.up() ? router.entities().ipsecStatus->testKnob() : nullptr;
  return knob && knob->forcePathActive();
}

const MeshView::Sa* MeshView::sending(EndId id) const {
  const Sa* last = nullptr;
  for (const Sa& sa : end(id).sas) {
    if (!sa.inbound && sa.installed && (last == nullptr || sa.handOver > last->handOver)) {
      last = &sa;
    }
  }
  return last;
}

const MeshView::Sa* MeshView::receiving(EndId id, uint32_t spi) const {
  const std::vector<Sa>& sas = end(id).sas;
  const auto found = std::ranges::find_if(
      sas, [&](const Sa& sa) { return sa.inbound && sa.installed && sa.key.spi == spi; });
  return found == sas.end() ? nullptr : &*found;
}

std::optional<SaReport> MeshView::report(EndId id, const Sa& sa) const {
  const Router& router = *end(id).router;
  return router.up() ? router.dataPlane().sa(sa.key) : std::nullopt;
}

bool MeshView::matches(EndId from) const {
  const Sa* const out = sending(from);
  const Sa* const in = out != nullptr ? receiving(from.other(), out->key.spi) : nullptr;
  if (in == nullptr) {
    return false;
  }
  const std::optional<SaReport> sent = report(from, *out);
  const std::optional<SaReport> received = report(from.other(), *in);
  return sent && received && sent->keyTag == received->keyTag;
}

}  // namespace tessel::lab
