#include "lab/check/PathChecks.h"

#include <algorithm>

#include "lab/run/Lab.h"

namespace tessel::lab {
namespace {

/// The look that sees a state may be late by its period, and the pass by what runs before it.
constexpr Duration kSlack = seconds(15);
/// So often may a path enter the state again that it is in: the data path's counters restarted and
/// the first packets came in again, or the peer was rebuilt and answered again.
constexpr uint32_t kReentries = 3;

/// The steady SAs of a path that has no others.
struct SteadyPair {
  Ptr<Ike::SecurityAssociation> in;
  Ptr<Ike::SecurityAssociation> out;
  explicit operator bool() const { return in && out; }
};

SteadyPair steadyPair(const Ike::PathConnState& path) {
  SteadyPair pair;
  if (path.pathConnSaInfo().size() != 2 || !isSteady(path.pathState()) ||
      path.saSmState() != SmState::idle) {
    return pair;
  }
  for (const auto& [key, saInfo] : path.pathConnSaInfo()) {
    const Ptr<Ike::SecurityAssociation>& sa = saInfo->sa();
    if (sa->saType() == SaType::steadyIn) {
      pair.in = sa;
    } else if (sa->saType() == SaType::steadyOut) {
      pair.out = sa;
    }
  }
  return pair;
}

/// Whether what one end sends on is what the other one receives on.
bool crosses(const SteadyPair& from, const SteadyPair& to) {
  return from.out->sakey().spi == to.in->sakey().spi &&
         from.out->pairSpi() == from.in->sakey().spi &&
         from.out->cryptoAlgo() == to.in->cryptoAlgo() &&
         from.out->authAlgo() == to.in->authAlgo() && from.out->cryptoKey() == to.in->cryptoKey() &&
         from.out->authKey() == to.in->authKey();
}

}  // namespace

PathChecks::PathChecks(const Lab& lab, const MeshView& mesh, const SendWindows& windows,
                       Findings& findings)
    : lab_(lab), mesh_(mesh), windows_(windows), findings_(findings), stays_(mesh.paths()) {}

void PathChecks::look() {
  for (size_t path = 0; path < mesh_.paths(); ++path) {
    const std::array<Ptr<Ike::PathConnState>, 2> ends = {mesh_.pathState({path, 0}),
                                                         mesh_.pathState({path, 1})};
    checkStay({path, 0}, ends[0]);
    checkStay({path, 1}, ends[1]);
    if (ends[0] && ends[1] && windows_.closed(path)) {
      checkCrossing(path, *ends[0], *ends[1]);
    }
  }
}

void PathChecks::handleEvent(EndId id, const PathEvent& event) {
  Stay& stay = stays_[id.path][id.end];
  const std::string_view name = event.eventName.text();
  if (event.pathState != stay.state || name == "markPathsAsDhRekeyInitiated" ||
      name == "markPathsAsDhRekeyResponder") {
    stay.state = event.pathState;
    stay.since = lab_.now();
    stay.reentries = 0;
  } else if (name == "createControllerSAs" && stay.reentries < kReentries &&
             lab_.now() != stay.since) {
    stay.since = lab_.now();
    ++stay.reentries;
  }
}

/// Whether sanity passes look at the path, and may rebuild it.
bool PathChecks::clockRuns(EndId id, const Ptr<Ike::PathConnState>& path) const {
  const MeshView::End& end = mesh_.end(id);
  if (!path || isSteady(path->pathState()) || end.router->running().scheduler->paused()) {
    return false;
  }
  const Ptr<Path::PathStatus>& status =
      end.router->entities().ipsecPathStatusDir->ipsecPathStatus(end.path->end.key);
  return status && status->state() == Path::UnderlayState::established && !mesh_.forcesActive(id);
}

void PathChecks::checkStay(EndId id, const Ptr<Ike::PathConnState>& path) {
  Stay& stay = stays_[id.path][id.end];
  const Duration now = lab_.now();
  const DynamicPathState state = path ? path->pathState() : DynamicPathState::none;
  if (state != stay.state || !clockRuns(id, path)) {
    stay = {.state = state, .since = now};
    return;
  }
  const MeshView::End& end = mesh_.end(id);
  Duration since = stay.since;
  if (state == DynamicPathState::dhInitiatorInSaInstalled) {
    // The peer may not have heard of the key; the path waits for as long as it has traffic.
    const PathStatistics statistics = end.router->dataPlane().statistics(end.path->end.key);
    if (statistics.sent != stay.sent) {
      stay.sent = statistics.sent;
      stay.sentAt = now;
    }
    if (statistics.received != stay.received) {
      stay.received = statistics.received;
      stay.receivedAt = now;
    }
    since = std::max(since, std::min(stay.sentAt, stay.receivedAt) + kSanityInterval);
  }
  const Duration bound = state == DynamicPathState::rebuild
                             ? kSanityInterval
                             : end.router->settings().sanityExpiry + kSanityInterval;
  if (findings_.violated(Invariant::statesBounded, now - since <= bound + kSlack)) {
    Place place = mesh_.place(id.path);
    place.detail = "at " + end.router->name();
    findings_.add(Invariant::statesBounded, place,
                  "in state " + stringValue(state) + " since " + stringValue(stay.since));
  }
}

void PathChecks::checkCrossing(size_t path, const Ike::PathConnState& first,
                               const Ike::PathConnState& second) {
  const SteadyPair a = steadyPair(first);
  const SteadyPair b = steadyPair(second);
  if (a && b && findings_.violated(Invariant::endsCross, crosses(a, b) && crosses(b, a))) {
    findings_.add(Invariant::endsCross, mesh_.place(path),
                  "the steady SAs of one end are not those of the other");
  }
}

}  // namespace tessel::lab
