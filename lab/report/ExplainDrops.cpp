// Why packets were dropped.
#include <algorithm>

#include "lab/report/Explain.h"
#include "lab/report/ExplainText.h"
#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

/// "a packet", "42 packets".
std::string packetsText(uint64_t count) {
  return count == 1 ? "a packet" : std::to_string(count) + " packets";
}

}  // namespace

std::string Explain::ofDrops(const Finding& finding) const {
  std::string text = fmt::format("{} dropped {}", finding.router, packetsText(finding.count));
  text += finding.to == finding.from || !finding.to
              ? fmt::format(" at {}", timeText(finding.from))
              : fmt::format(" from {} to {}", timeText(finding.from), timeText(*finding.to));
  if (finding.reason == dropReasonName(DropReason::noSa)) {
    text += fmt::format(", since no installed in-SA of it has SPI {}. {}",
                        spiText(finding.spi.value_or(0)), ofUnknownSa(finding));
  } else if (finding.reason == dropReasonName(DropReason::noOutbound)) {
    text += fmt::format(" that were to be sent, since the path had no installed out-SA. {}",
                        ofNoOutSa(finding));
  } else if (finding.reason == dropReasonName(DropReason::badIcv)) {
    text += ", since the integrity check failed. " + ofBadIcv(finding);
  } else if (finding.reason == dropReasonName(DropReason::replayed)) {
    text += ": it had received them before, under the same sequence numbers. " + ofNetwork(finding);
  } else if (finding.reason == dropReasonName(DropReason::tooOld)) {
    text += ": they came more than 64 packets late, from before the anti-replay window. " +
            ofNetwork(finding);
  } else if (finding.reason == dropReasonName(DropReason::malformed)) {
    text += ": what they say of themselves does not fit what they are. " + ofNetwork(finding);
  } else {
    text += ", since its data path has refused the SA.";
    for (const SaLife& each : history_.sas(finding.router, finding.path)) {
      if (!each.why.empty() && each.notInstalled <= finding.from && finding.from < each.removed &&
          (!finding.spi || each.sa.spi == *finding.spi)) {
        text += fmt::format(" {}: {}.", textOf(each.sa), each.why);
      }
    }
  }
  return text;
}

std::string Explain::senderText(const Finding& finding) const {
  const SaLife* out =
      life(finding.peer, finding.path, finding.spi.value_or(0), false, finding.from);
  if (out == nullptr) {
    return "";
  }
  return fmt::format("{} sent on it as its out-SA of keys {} ({}), installed at {}", finding.peer,
                     pairText(out->sa.generations), plainName(out->sa.type),
                     timeText(out->installed));
}

std::string Explain::ofUnknownSa(const Finding& finding) const {
  const uint32_t spi = finding.spi.value_or(0);
  const std::string sender = finding.path.empty() ? "" : senderText(finding);
  if (sender.empty()) {
    return ofForeignSpi(finding);
  }
  const std::string& router = finding.router;
  const SaLife* in = life(router, finding.path, spi, true, finding.from);
  if (in == nullptr) {
    std::string text = fmt::format("{}; {} has never made the in-SA for it", sender, router);
    const std::vector<SaLife>& lives = history_.sas(router, finding.path);
    const auto last = std::find_if(lives.rbegin(), lives.rend(), [&](const SaLife& each) {
      return each.sa.inbound && each.isInstalledAt(finding.from);
    });
    const std::optional<DynamicPathState> state = stateAt(router, finding.path, finding.from);
    if (last != lives.rend()) {
      text +=
          fmt::format(". Its own in-SA then was {}, of keys {}, handed over at {}{}",
                      spiText(last->sa.spi), pairText(last->sa.generations),
                      timeText(last->handedOver), causeAt(router, finding.path, last->handedOver));
    } else if (!state) {
      text += ": " + absenceText(router, finding.path, finding.peer, finding.from);
    }
    return text + ". Two ends that made their SAs from other keys or nonces have other SPIs.";
  }
  if (in->handedOver > finding.from) {
    return fmt::format("{}; {} made the in-SA for it only at {}{}.", sender, router,
                       timeText(in->handedOver), causeAt(router, finding.path, in->handedOver));
  }
  if (in->removed <= finding.from) {
    return fmt::format("{}; {} had deleted the in-SA for it at {}{}, which {} had not noticed.",
                       sender, router, timeText(in->removed),
                       causeAt(router, finding.path, in->removed), finding.peer);
  }
  if (!in->notInstalled.isNever()) {
    return fmt::format("{}; {}'s data path did not install the in-SA for it: {}.", sender, router,
                       in->why);
  }
  return fmt::format(
      "{}; {} was handed the in-SA for it at {} and {}.", sender, router, timeText(in->handedOver),
      in->installed.isNever() ? "had not installed it by the end"
                              : "had it installed only at " + timeText(in->installed));
}

/// No SA of the peer has that SPI on that path.
std::string Explain::ofForeignSpi(const Finding& finding) const {
  for (const std::unique_ptr<Router>& router : lab_.routers()) {
    for (const std::unique_ptr<RouterPath>& path : router->paths()) {
      const SaLife* out =
          life(router->name(), path->end.name, finding.spi.value_or(0), false, finding.from);
      if (out != nullptr && path->end.peer == finding.router) {
        return fmt::format(
            "It is the SPI of {}'s out-SA of path {}: the packet's addresses or "
            "ports are not those of that path at {}.",
            router->name(), path->end.name, finding.router);
      }
    }
  }
  return "No router has an out-SA with that SPI: the network altered the packet.";
}

std::string Explain::ofNoOutSa(const Finding& finding) const {
  const std::string& router = finding.router;
  const std::optional<DynamicPathState> state = stateAt(router, finding.path, finding.from);
  if (!state) {
    return "The path was not there: " +
           absenceText(router, finding.path, finding.peer, finding.from) + ".";
  }
  const SaLife* last = nullptr;
  for (const SaLife& each : history_.sas(router, finding.path)) {
    if (!each.sa.inbound && each.handedOver <= finding.from && finding.from < each.removed) {
      last = &each;
    }
  }
  if (last == nullptr) {
    return fmt::format("The path was in state {} without any out-SA.", plainName(*state));
  }
  if (!last->notInstalled.isNever() && last->notInstalled <= finding.from) {
    return fmt::format("Its out-SA {} was not installed: {}.", spiText(last->sa.spi), last->why);
  }
  if (last->installed <= finding.from) {
    return fmt::format("Its out-SA {} has used up its sequence numbers.", spiText(last->sa.spi));
  }
  return fmt::format("Its out-SA {} was handed over at {}{} and {}.", spiText(last->sa.spi),
                     timeText(last->handedOver), causeAt(router, finding.path, last->handedOver),
                     last->installed.isNever() ? "was never installed"
                                               : "installed at " + timeText(last->installed));
}

std::string Explain::ofBadIcv(const Finding& finding) const {
  const uint32_t spi = finding.spi.value_or(0);
  const SaLife* in = life(finding.router, finding.path, spi, true, finding.from);
  const SaLife* out = life(finding.peer, finding.path, spi, false, finding.from);
  if (in != nullptr && out != nullptr && in->sa.keyTag != out->sa.keyTag) {
    return fmt::format(
        "Both routers have an SA {} with different keys: {}'s was handed over at {} "
        "for keys {}, {}'s at {} for keys {}. They derived them from different "
        "secrets or nonces, or disagree about who of them is the initiator.",
        spiText(spi), finding.peer, timeText(out->handedOver), pairText(out->sa.generations),
        finding.router, timeText(in->handedOver), pairText(in->sa.generations));
  }
  return "Both routers have the same key for it: the packets were altered on their way. " +
         ofNetwork(finding);
}

/// What the network did to packets of the direction that was received.
std::string Explain::ofNetwork(const Finding& finding) const {
  const RouterPath* path =
      finding.path.empty() ? nullptr : lab_.router(finding.router).path(finding.path);
  if (path == nullptr) {
    return "";
  }
  const LinkCounts& counts = path->link->counts(otherEnd(path->linkEnd));
  return fmt::format(
      "In the whole run, the network altered {} of {}'s {} packets on this path, "
      "duplicated {}, replayed {} and delivered {} out of order.",
      counts.altered, finding.peer, counts.sent, counts.duplicated, counts.replayed,
      counts.reordered);
}

}  // namespace tessel::lab
