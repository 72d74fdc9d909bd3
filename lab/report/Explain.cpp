#include "lab/report/Explain.h"

#include <algorithm>
#include <set>
#include <tuple>

#include <fmt/format.h>

#include "lab/report/ExplainText.h"
#include "lab/report/PathStateText.h"
#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

constexpr Duration kLongRekey = seconds(180);
constexpr size_t kLinesBefore = 5;  // Of each router, and of its end of the path.
constexpr size_t kActionsBefore = 2;

const char* advice(PeerDownReason reason) {
  switch (reason) {
    case PeerDownReason::none:
      return "";
    case PeerDownReason::dhGroupMismatch:
      return "Without the same group there is no shared secret: no SA is made, and no path between "
             "the two is built until both are set to one DH group.";
    case PeerDownReason::encryptAlgoMismatch:
      return "Without the same encryption algorithm no SA is made, and no path between the two is "
             "built until both are set to one.";
    case PeerDownReason::hashAlgoMismatch:
      return "Without the same integrity algorithm no SA is made, and no path between the two is "
             "built until both are set to one.";
    case PeerDownReason::dhKeyLengthMismatch:
      return "The public key in the record does not have the length that its group has: the record "
             "was spoilt on its way through the controllers, or made wrongly.";
    case PeerDownReason::nonceLengthMismatch:
      return "The nonce in the record does not have the length that it must have: the record was "
             "spoilt on its way through the controllers, or made wrongly.";
    case PeerDownReason::keyDerivationFailed:
      return "The public key in the record is not a valid one of its group: the record was spoilt "
             "on its way through the controllers, or made wrongly.";
  }
  return "";
}

/// What an engine's event says about why a path's state changed; empty when it says nothing.
std::string_view triggerText(std::string_view name) {
  static const std::map<std::string_view, std::string_view> texts = {
      {"establishPath", "the path was built"},
      {"clearPath", "the path was cleared to be built anew"},
      {"maybeRekeySa", "an SA rekey was due or asked for"},
      {"handlePeerNonceType", "a nonce of the peer came in"},
      {"handlePeerNonce", "a nonce of the peer came in"},
      {"handleSaInstalled", "the data path had installed an SA"},
      {"handlePktsPresent", "the first packets came in on the new in-SA"},
      {"markRekeyComplete", "the new pair of SAs was taken into use"},
      {"markPathsAsDhRekeyInitiated", "this router began to replace its DH key"},
      {"markPathsAsDhRekeyResponder", "the peer's new DH key arrived"},
      {"prunePath", "the path was pruned"}};
  const auto found = texts.find(name);
  return found == texts.end() ? std::string_view() : found->second;
}

}  // namespace

const char* findingKindName(Finding::Kind kind) {
  switch (kind) {
    case Finding::Kind::peerDown:
      return "peer-down";
    case Finding::Kind::pathMissing:
      return "path-missing";
    case Finding::Kind::installation:
      return "installation";
    case Finding::Kind::drops:
      return "drops";
    case Finding::Kind::pathState:
      return "path-state";
  }
  return "";
}

std::vector<Finding> Explain::findings() const {
  std::vector<Finding> all;
  addPeersDown(all);
  addPathsMissing(all);
  addInstallations(all);
  addDrops(all);
  addPathStates(all);
  std::ranges::stable_sort(all, {}, [](const Finding& finding) {
    // What stands at the end comes before what has passed; more packets before fewer.
    return std::tuple(finding.kind != Finding::Kind::drops && finding.to.has_value(), finding.kind,
                      UINT64_MAX - finding.count, finding.from);
  });
  for (Finding& finding : all) {
    addBefore(finding);
  }
  return all;
}

// --- What is found

void Explain::addPeersDown(std::vector<Finding>& out) const {
  const auto end = [&](const std::string& router, const std::string& peer, Duration at) {
    for (Finding& finding : out) {
      if (!finding.to && finding.router == router && (peer.empty() || finding.peer == peer)) {
        finding.to = at;
      }
    }
  };
  for (const LabEvent& event : history_.events()) {
    if (const auto* status = std::get_if<event::PeerStatus>(&event.what)) {
      end(event.router, event.peer, event.at);
      if (status->status == PeerConnStatus::down) {
        out.push_back({.kind = Finding::Kind::peerDown,
                       .router = event.router,
                       .peer = event.peer,
                       .from = event.at,
                       .reason = plainName(status->reason)});
      }
    } else if (std::holds_alternative<event::PeerGone>(event.what)) {
      end(event.router, event.peer, event.at);
    } else if (std::holds_alternative<event::RouterDown>(event.what)) {
      end(event.router, "", event.at);
    }
  }
  for (Finding& finding : out) {
    finding.title = fmt::format("{}: peer {} {} down, {}", finding.router, finding.peer,
                                finding.to ? "was" : "is", finding.reason);
    finding.explanation = ofPeerDown(finding);
  }
}

void Explain::addPathsMissing(std::vector<Finding>& out) const {
  for (const std::unique_ptr<Router>& router : lab_.routers()) {
    for (const std::unique_ptr<RouterPath>& path : router->paths()) {
      const PathEnd& end = path->end;
      const bool isThere = router->up() && router->pathView(end.name).exists();
      if (isThere || !path->wanted() || !router->present() ||
          downAt(router->name(), end.peer, lab_.now())) {
        continue;
      }
      const LabEvent* gone = lastPathGone(router->name(), end.name, lab_.now());
      Finding finding{.kind = Finding::Kind::pathMissing,
                      .router = router->name(),
                      .path = end.name,
                      .peer = end.peer,
                      .from = gone == nullptr ? Duration() : gone->at,
                      .title = fmt::format("{}: path {} is not there", router->name(), end.name)};
      finding.explanation = ofMissingPath(finding);
      out.push_back(std::move(finding));
    }
  }
}

void Explain::addInstallations(std::vector<Finding>& out) const {
  for (const LabEvent& event : history_.events()) {
    const auto* step = std::get_if<event::SaStep>(&event.what);
    if (step == nullptr || step->step != event::SaStep::Step::notInstalled) {
      continue;
    }
    for (const SaLife& life : history_.sas(event.router, event.path)) {
      if (life.notInstalled != event.at || life.sa.handOver != step->sa.handOver) {
        continue;
      }
      Finding finding{.kind = Finding::Kind::installation,
                      .router = event.router,
                      .path = event.path,
                      .peer = event.peer,
                      .from = event.at,
                      .spi = life.sa.spi,
                      .reason = saInstallStateName(life.sa.state),
                      .sending = !life.sa.inbound};
      if (!life.removed.isNever()) {
        finding.to = life.removed;
      }
      finding.title = fmt::format("{}: {} of path {} was not installed", event.router,
                                  textOf(life.sa), event.path);
      finding.explanation = ofInstallation(finding, life);
      out.push_back(std::move(finding));
    }
  }
}

void Explain::addDrops(std::vector<Finding>& out) const {
  // An SA that is made again with the SPI of an earlier one is another, and a path that has gone
  // once more is another occasion.
  using Kind = std::tuple<std::string, std::string, DropReason, bool, uint32_t, Duration>;
  std::map<Kind, size_t> groups;
  for (const DropBurst& burst : history_.drops()) {
    const event::Drop& drop = burst.drop;
    Duration since;
    if (const SaLife* sa = life(burst.router, burst.path, drop.spi, !drop.sending, burst.first)) {
      since = sa->handedOver;
    } else if (const LabEvent* gone = lastPathGone(burst.router, burst.path, burst.first);
               gone != nullptr && drop.sending) {
      since = gone->at;
    }
    const Kind kind(burst.router, burst.path, drop.reason, drop.sending, drop.spi, since);
    const auto [group, isNew] = groups.emplace(kind, out.size());
    if (isNew) {
      out.push_back({.kind = Finding::Kind::drops,
                     .router = burst.router,
                     .path = burst.path,
                     .peer = burst.peer,
                     .from = burst.first,
                     .reason = dropReasonName(burst.drop.reason),
                     .sending = burst.drop.sending});
      if (burst.drop.spi != 0) {
        out.back().spi = burst.drop.spi;
      }
    }
    Finding& finding = out[group->second];
    finding.to = burst.last;
    finding.count += burst.count;
  }
  for (const auto& [kind, place] : groups) {
    Finding& finding = out[place];
    finding.title =
        fmt::format("{}: dropped {} {}packet{}{}{}, {}", finding.router, finding.count,
                    finding.sending ? "" : "received ", finding.count == 1 ? "" : "s",
                    finding.sending ? " to send" : "",
                    finding.path.empty() ? "" : " on path " + finding.path, finding.reason);
    finding.explanation = ofDrops(finding);
  }
}

void Explain::addPathStates(std::vector<Finding>& out) const {
  const std::vector<LabEvent>& events = history_.events();
  std::map<History::End, size_t> current;  // Position of the last change of an end.
  const auto leave = [&](const History::End& end, std::optional<Duration> at) {
    const auto found = current.find(end);
    if (found == current.end()) {
      return;
    }
    const size_t position = found->second;
    current.erase(found);
    const LabEvent& event = events[position];
    const DynamicPathState state = std::get<event::PathState>(event.what).to;
    const bool tooLong = at && isIntermediate(state) && *at - event.at > kLongRekey;
    const bool unfinished = !at && state != DynamicPathState::active;
    if (tooLong || unfinished) {
      out.push_back(
          {.kind = Finding::Kind::pathState,
           .router = event.router,
           .path = event.path,
           .peer = event.peer,
           .from = event.at,
           .to = at,
           .reason = plainName(state),
           .title = fmt::format("{}: path {} {} {}", event.router, event.path,
                                at ? "was long in state" : "ends in state", plainName(state)),
           .explanation = ofPathState(position)});
    }
  };
  for (size_t i = 0; i < events.size(); ++i) {
    const LabEvent& event = events[i];
    if (std::holds_alternative<event::PathState>(event.what)) {
      leave({event.router, event.path}, event.at);
      current[{event.router, event.path}] = i;
    } else if (std::holds_alternative<event::PathGone>(event.what)) {
      leave({event.router, event.path}, event.at);
    } else if (std::holds_alternative<event::RouterDown>(event.what)) {
      std::erase_if(current, [&](const auto& each) { return each.first.first == event.router; });
    }
  }
  while (!current.empty()) {
    leave(current.begin()->first, std::nullopt);
  }
}

/// The last things that a reader would look at, at either end.
void Explain::addBefore(Finding& finding) const {
  std::set<size_t> chosen;
  // Of what a router does for all of its peers, only what concerns this one.
  const auto concerns = [&](const LabEvent& event) {
    return event.at <= finding.from && !std::holds_alternative<event::Drop>(event.what) &&
           !std::holds_alternative<event::Checked>(event.what) &&
           (finding.peer.empty() || event.peer.empty() || event.peer == finding.peer ||
            event.peer == finding.router) &&
           !textOf(event).empty();
  };
  const auto collect = [&](const std::string& router, const std::string& path, size_t most) {
    const std::vector<size_t>& positions = history_.ofEnd(router, path);
    size_t found = 0;
    for (auto each = positions.rbegin(); each != positions.rend() && found < most; ++each) {
      if (concerns(history_.events()[*each])) {
        chosen.insert(*each);
        ++found;
      }
    }
  };
  for (const std::string& router : {finding.router, finding.peer}) {
    if (!router.empty()) {
      collect(router, "", kLinesBefore);
      collect(router, finding.path, kLinesBefore);
    }
  }
  collect("", "", kActionsBefore);
  for (const size_t position : chosen) {
    const LabEvent& event = history_.events()[position];
    finding.before.push_back({.at = event.at, .router = event.router, .text = textOf(event)});
  }
}

// --- Sentences

std::string Explain::ofPeerDown(const Finding& finding) const {
  const auto received = receivedAt(finding.router, finding.peer, finding.from);
  const std::optional<KeyFacts> own = publishedAt(finding.router, finding.from);
  const std::optional<PeerDownReason> reason = downAt(finding.router, finding.peer, finding.from);
  std::string text;
  if (received && received->second) {
    text += fmt::format("The controllers gave {} {}'s {}, at {}. ", finding.router, finding.peer,
                        textOf(*received->second), timeText(received->first));
  }
  if (own) {
    text += fmt::format("{} itself has published {}. ", finding.router, textOf(*own));
  }
  if (reason) {
    text += advice(*reason);
  }
  const std::optional<PeerDownReason> other =
      downAt(finding.peer, finding.router, finding.to.value_or(lab_.now()));
  text += other ? fmt::format(" {} says the same of {}: down, {}.", finding.peer, finding.router,
                              plainName(*other))
                : fmt::format(" {} does not take {} down.", finding.peer, finding.router);
  if (finding.to) {
    text += fmt::format(" It was over at {}.", timeText(*finding.to));
  }
  return text;
}

std::string Explain::ofMissingPath(const Finding& finding) const {
  return "The path is configured at both routers, and yet " +
         absenceText(finding.router, finding.path, finding.peer, lab_.now()) + ".";
}

std::string Explain::ofInstallation(const Finding& finding, const SaLife& life) const {
  std::string text = fmt::format("{} was handed the {} at {} as {}, of keys {}. ", finding.router,
                                 textOf(life.sa), timeText(life.handedOver),
                                 plainName(life.sa.type), pairText(life.sa.generations));
  text += life.sa.state == SaInstallState::refused
              ? "Its data path refused it, since no usable SA comes from its attributes: "
              : "Its data path could not install it: ";
  text += life.why + ". ";
  text += life.sa.inbound ? finding.peer + "'s packets on it are dropped as long as it is missing."
                          : "Packets of the path go on the out-SA before it, or nowhere.";
  return text;
}

std::string Explain::ofPathState(size_t position) const {
  const LabEvent& event = history_.events()[position];
  const auto& change = std::get<event::PathState>(event.what);
  std::string text = meaningOf(change.to);
  text += fmt::format(" {} came to it at {}", event.router, timeText(event.at));
  if (change.from != DynamicPathState::none) {
    text += " from " + plainName(change.from);
  }
  // What the engine recorded for this end of the path in the same instant: last before the change,
  // or else first behind it.
  const std::vector<size_t>& all = history_.ofEnd(event.router, event.path);
  std::string_view trigger;
  const auto look = [&](size_t each) {
    const LabEvent& near = history_.events()[each];
    const auto* machine = std::get_if<event::Machine>(&near.what);
    if (machine != nullptr && trigger.empty()) {
      trigger = triggerText(machine->name);
    }
    return near.at == event.at && trigger.empty();
  };
  const auto place = std::ranges::lower_bound(all, position);
  for (auto each = place; each != all.begin() && look(*std::prev(each)); --each) {
  }
  for (auto each = std::next(place); trigger.empty() && each != all.end() && look(*each); ++each) {
  }
  if (!trigger.empty()) {
    text += fmt::format(", when {}", trigger);
  }
  if (!event.peer.empty()) {
    const std::optional<DynamicPathState> other = stateAt(event.peer, event.path, event.at);
    text += fmt::format("; {}'s end {}", event.peer,
                        other ? "was in state " + plainName(*other) : "was not there");
  }
  text += ".";
  const Router& router = lab_.router(event.router);
  const bool standsAtEnd =
      all.end() == std::find_if(std::ranges::upper_bound(all, position), all.end(),
                                [&](size_t each) { return isPathChange(history_.events()[each]); });
  if (standsAtEnd && router.up() && router.path(event.path) != nullptr &&
      change.to != DynamicPathState::active) {
    const PathStatistics packets = router.pathView(event.path).statistics();
    text += fmt::format(
        " It still stands so at the end, after {} packets sent and {} received since {}'s start.",
        packets.sent, packets.received, event.router);
  }
  return text;
}

}  // namespace tessel::lab
