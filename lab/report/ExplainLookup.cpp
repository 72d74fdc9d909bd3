// What was the case at a time, for the explanations.
#include <algorithm>

#include "lab/report/Explain.h"
#include "lab/report/ExplainText.h"
#include "lab/report/Summary.h"

namespace tessel::lab {

/// The SA with that SPI that was handed over last by then; the next one when there is none.
const SaLife* Explain::life(const std::string& router, const std::string& path, uint32_t spi,
                            bool inbound, Duration time) const {
  const SaLife* found = nullptr;
  for (const SaLife& each : history_.sas(router, path)) {
    if (each.sa.spi == spi && each.sa.inbound == inbound &&
        (found == nullptr || each.handedOver <= time)) {
      found = &each;
    }
  }
  return found;
}

std::string Explain::causeAt(const std::string& router, const std::string& path,
                             Duration time) const {
  std::string cause;
  const auto look = [&](const std::vector<size_t>& positions) {
    for (const size_t position : positions) {
      const LabEvent& event = history_.events()[position];
      if (event.at != time) {
        continue;
      }
      if (const auto* action = std::get_if<event::TimelineAction>(&event.what)) {
        cause = ", at the timeline's " + action->text;
      } else if (std::holds_alternative<event::RouterDown>(event.what)) {
        cause = ", when it went down";
      } else if (const auto* status = std::get_if<event::PeerStatus>(&event.what);
                 status != nullptr && status->status == PeerConnStatus::down) {
        cause = fmt::format(", when it took {} down for {}", event.peer, plainName(status->reason));
      } else if (const auto* machine = std::get_if<event::Machine>(&event.what)) {
        if (machine->name == "clearPath") {
          cause = ", to build the path anew";
        } else if (machine->name == "prunePath") {
          cause = ", when it pruned the path after a rekey";
        } else if (machine->name == "deletePeerKeyInfo") {
          cause = fmt::format(", since {}'s key was withdrawn or {} had started over", event.peer,
                              event.peer);
        } else if (machine->name == "destroyDhKey") {
          cause = ", when it started over with a new key of its own";
        } else if (machine->name == "destroyPath" && cause.empty()) {
          cause = ", when it took the path down";
        }
      }
    }
  };
  look(history_.ofRouter(""));
  look(history_.ofRouter(router));
  look(history_.ofEnd(router, path));
  return cause;
}

std::optional<DynamicPathState> Explain::stateAt(const std::string& router, const std::string& path,
                                                 Duration time) const {
  std::optional<DynamicPathState> state;
  Duration since;
  for (const size_t position : history_.ofEnd(router, path)) {
    const LabEvent& event = history_.events()[position];
    if (event.at > time) {
      break;
    }
    if (const auto* change = std::get_if<event::PathState>(&event.what)) {
      state = change->to;
      since = event.at;
    } else if (std::holds_alternative<event::PathGone>(event.what)) {
      state.reset();
    }
  }
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at > since && event.at <= time &&
        std::holds_alternative<event::RouterDown>(event.what)) {
      state.reset();
    }
  }
  return state;
}

std::optional<KeyFacts> Explain::publishedAt(const std::string& router, Duration time) const {
  std::optional<KeyFacts> key;
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at > time) {
      break;
    }
    if (const auto* published = std::get_if<event::Published>(&event.what)) {
      key = published->key;
    } else if (std::holds_alternative<event::RouterDown>(event.what)) {
      key.reset();
    }
  }
  return key;
}

std::optional<std::pair<Duration, std::optional<KeyFacts>>> Explain::receivedAt(
    const std::string& router, const std::string& peer, Duration time) const {
  std::optional<std::pair<Duration, std::optional<KeyFacts>>> last;
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at > time) {
      break;
    }
    if (std::holds_alternative<event::RouterDown>(event.what)) {
      last.reset();
    } else if (const auto* received = std::get_if<event::Received>(&event.what);
               received != nullptr && event.peer == peer) {
      last.emplace(event.at, received->key);
    }
  }
  return last;
}

/// A router that goes down takes its paths with it.
const LabEvent* Explain::lastPathGone(const std::string& router, const std::string& path,
                                      Duration time) const {
  const LabEvent* last = nullptr;
  const auto look = [&](const std::vector<size_t>& positions) {
    for (const size_t position : positions) {
      const LabEvent& event = history_.events()[position];
      if (event.at <= time && (last == nullptr || event.at >= last->at) &&
          (std::holds_alternative<event::PathGone>(event.what) ||
           std::holds_alternative<event::RouterDown>(event.what))) {
        last = &event;
      }
    }
  };
  look(history_.ofEnd(router, path));
  look(history_.ofRouter(router));
  return last;
}

std::optional<PeerDownReason> Explain::downAt(const std::string& router, const std::string& peer,
                                              Duration time) const {
  auto reason = PeerDownReason::none;
  bool down = false;
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at > time) {
      break;
    }
    const bool ofPeer = event.peer == peer;
    const auto* const status = ofPeer ? std::get_if<event::PeerStatus>(&event.what) : nullptr;
    if (status != nullptr) {
      down = status->status == PeerConnStatus::down;
      reason = status->reason;
    } else if (std::holds_alternative<event::RouterDown>(event.what) ||
               (ofPeer && std::holds_alternative<event::PeerGone>(event.what))) {
      down = false;
    }
  }
  return down ? std::optional(reason) : std::nullopt;
}

std::string Explain::outageText(const std::string& router, Duration time) const {
  const LabEvent* last = nullptr;
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at <= time && std::holds_alternative<event::Connection>(event.what)) {
      last = &event;
    }
  }
  if (last == nullptr || std::get<event::Connection>(last->what).connected) {
    return "";
  }
  return fmt::format("; {} has been without its controllers since {}", router, timeText(last->at));
}

/// Why a path is not there at a time, as a clause.
std::string Explain::absenceText(const std::string& router, const std::string& path,
                                 const std::string& peer, Duration time) const {
  const LabEvent* start = nullptr;
  for (const size_t position : history_.ofRouter(router)) {
    const LabEvent& event = history_.events()[position];
    if (event.at <= time && std::holds_alternative<event::RouterUp>(event.what)) {
      start = &event;
    } else if (event.at <= time && std::holds_alternative<event::RouterDown>(event.what)) {
      start = nullptr;
    }
  }
  if (start == nullptr) {
    return router + " is down";
  }
  if (const std::optional<PeerDownReason> reason = downAt(router, peer, time)) {
    return fmt::format("{} has taken its peer {} down for {}", router, peer, plainName(*reason));
  }
  if (!publishedAt(router, time)) {
    return router + " has not published a key of its own" + outageText(router, time);
  }
  const auto received = receivedAt(router, peer, time);
  if (!received) {
    return fmt::format("{}, up since {}, has not received a key of {}'s", router,
                       timeText(start->at), peer) +
           outageText(router, time) + outageText(peer, time);
  }
  if (!received->second) {
    return fmt::format("{}'s key is withdrawn since {}", peer, timeText(received->first));
  }
  if (const LabEvent* gone = lastPathGone(router, path, time);
      gone != nullptr && gone->at >= start->at) {
    return fmt::format("{} took it down at {}{}", router, timeText(gone->at),
                       causeAt(router, path, gone->at));
  }
  return fmt::format("{} has never built it, though it has {}'s key since {}", router, peer,
                     timeText(received->first));
}

}  // namespace tessel::lab
