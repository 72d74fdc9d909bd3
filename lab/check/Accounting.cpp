#include "lab/check/Accounting.h"

namespace tessel::lab {
namespace {

LinkEnd linkEnd(size_t end) {
  return end == 0 ? LinkEnd::a : LinkEnd::b;
}

}  // namespace

Accounting::Start Accounting::now(EndId id) const {
  const Link& link = mesh_.link(id.path);
  return {.sent = link.counts(linkEnd(id.end)).sent,
          .received = link.counts(linkEnd(1 - id.end)).delivered};
}

void Accounting::handleRouterUp(const Router& router) {
  delivered_[router.index()] = 0;
  for (const EndId id : mesh_.endsOf(router)) {
    starts_[id.path][id.end] = now(id);
  }
}

void Accounting::look(const std::vector<std::unique_ptr<Router>>& routers) {
  for (size_t path = 0; path < mesh_.paths(); ++path) {
    for (const size_t end : {0U, 1U}) {
      const LinkCounts& counts = mesh_.link(path).counts(linkEnd(end));
      if (findings_.violated(Invariant::packetsAccounted,
                             counts.sent + counts.duplicated + counts.replayed ==
                                 counts.delivered + counts.lost() + counts.inFlight)) {
        findings_.add(Invariant::packetsAccounted, mesh_.place(path), "the link has lost count");
      }
      checkSender({path, end});
    }
  }
  for (const std::unique_ptr<Router>& router : routers) {
    if (router->up()) {
      checkReceiver(*router);
    }
  }
}

void Accounting::checkSender(EndId id) {
  const MeshView::End& end = mesh_.end(id);
  if (!end.router->up()) {
    return;
  }
  const PathStatistics statistics = end.router->dataPlane().statistics(end.path->end.key);
  const uint64_t onLink = now(id).sent - starts_[id.path][id.end].sent;
  if (findings_.violated(
          Invariant::packetsAccounted,
          statistics.sent == onLink &&
              statistics.offered == statistics.sent + statistics.sendDrops.total())) {
    findings_.add(Invariant::packetsAccounted, mesh_.place(id.path),
                  end.router->name() + " was offered " + std::to_string(statistics.offered) +
                      " packets, dropped " + std::to_string(statistics.sendDrops.total()) +
                      ", sealed " + std::to_string(statistics.sent) + "; the link got " +
                      std::to_string(onLink));
  }
}

/// Over all paths: a packet that matches no SA is of no path, and one whose port was altered on its
/// way can be taken for one of another.
void Accounting::checkReceiver(const Router& router) {
  uint64_t arrived = 0;
  for (const EndId id : mesh_.endsOf(router)) {
    arrived += now(id).received - starts_[id.path][id.end].received;
  }
  const PathStatistics all = router.dataPlane().statistics();
  const uint64_t delivered = delivered_[router.index()];
  if (findings_.violated(
          Invariant::packetsAccounted,
          arrived == all.received + all.receiveDrops.total() && delivered == all.received)) {
    findings_.add(Invariant::packetsAccounted, {.routers = {router.name()}},
                  std::to_string(arrived) + " packets arrived; opened " +
                      std::to_string(all.received) + ", dropped " +
                      std::to_string(all.receiveDrops.total()) + ", passed on " +
                      std::to_string(delivered));
  }
}

}  // namespace tessel::lab
