#include "lab/report/TextReport.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include <fmt/format.h>

#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

/// Rows of text in columns that are as wide as their widest cell; the last one ends its line.
class Table {
 public:
  explicit Table(std::vector<std::string> header) { row(std::move(header)); }

  void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

  std::string text(const std::string& indent) const {
    std::vector<size_t> widths(rows_.front().size());
    for (const std::vector<std::string>& cells : rows_) {
      for (size_t i = 0; i < cells.size(); ++i) {
        widths[i] = std::max(widths[i], cells[i].size());
      }
    }
    std::string text;
    for (const std::vector<std::string>& cells : rows_) {
      std::string line = indent;
      for (size_t i = 0; i < cells.size(); ++i) {
        fmt::format_to(std::back_inserter(line), "{:<{}}  ", cells[i], widths[i]);
      }
      line.erase(line.find_last_not_of(' ') + 1);
      text += line + "\n";
    }
    return text;
  }

 private:
  std::vector<std::vector<std::string>> rows_;
};

std::string endText(const IpGenAddr& address, uint16_t port) {
  const bool v6 = address.family() == AddressFamily::ipv6;
  return fmt::format("{}{}{}:{}", v6 ? "[" : "", address.stringValue(), v6 ? "]" : "", port);
}

std::string headline(const RouterSummary& router) {
  const std::string identity = fmt::format("{} ({})", router.name, router.routerId.stringValue());
  if (!router.up) {
    return fmt::format("{}: down\n", identity);
  }
  std::string text =
      router.generation ? fmt::format("key {} published", *router.generation) : "no key published";
  if (router.dhRekeyState != DhRekeyState::notRekeying) {
    text += fmt::format(", DH rekey {}", plainName(router.dhRekeyState));
  }
  text +=
      router.connected ? ", connected to the controllers" : ", no connection to the controllers";
  text += router.holdTimerRunning ? ", hold timer running" : "";
  return fmt::format("{}: {}\n", identity, text);
}

std::string peersText(const RouterSummary& router) {
  Table table({"peer", "address", "status", "key", "role"});
  for (const PeerSummary& peer : router.peers) {
    const bool down = peer.status == PeerConnStatus::down;
    std::string status = plainName(peer.status);
    if (down) {
      status.append(": ").append(plainName(peer.reason));
    }
    table.row({peer.name, peer.address.stringValue(), status, std::to_string(peer.generation),
               down ? "-" : (peer.initiator ? "initiator" : "responder")});
  }
  return table.text("  ");
}

std::string pathsText(const RouterSummary& router) {
  Table table({"path", "peer", "state", "keys", "from", "to", "sent", "received"});
  for (const PathSummary& path : router.paths) {
    std::string state = path.state ? plainName(*path.state) : "absent";
    if (path.saRekeyRole != SmState::idle) {
      state += fmt::format(" ({})", plainName(path.saRekeyRole));
    }
    table.row({path.name, path.peer, path.wanted ? state : state + " (not configured)",
               path.state ? pairText(path.generations) : "-",
               endText(path.localAddr, path.localPort), endText(path.remoteAddr, path.remotePort),
               std::to_string(path.packets.sent), std::to_string(path.packets.received)});
  }
  return table.text("  ");
}

std::string sasText(const RouterSummary& router) {
  Table table({"SA", "path", "type", "keys", "algorithms", "age", "packets", "bytes"});
  for (const SaSummary& sa : router.sas) {
    const std::string algorithms =
        sa.integrity.empty() ? sa.encryption : sa.encryption + " " + sa.integrity;
    table.row({spiText(sa.spi), sa.path, plainName(sa.type), pairText(sa.generations), algorithms,
               sa.age ? fmt::format("{:.1f} s", sa.age->seconds()) : saInstallStateName(sa.state),
               std::to_string(sa.packets), std::to_string(sa.bytes)});
  }
  return table.text("  ");
}

std::string dropsText(const RouterSummary& router) {
  std::string reasons;
  for (size_t i = 0; i < kDropReasons; ++i) {
    const auto reason = static_cast<DropReason>(i);
    if (router.drops[reason] > 0) {
      reasons += fmt::format("{}{} {}", reasons.empty() ? "" : ", ", router.drops[reason],
                             dropReasonName(reason));
    }
  }
  std::string text = fmt::format("  dropped: {}\n", reasons.empty() ? "nothing" : reasons);
  if (router.sasPastHardLimit > 0) {
    text += fmt::format("  SAs past a hard limit: {}\n", router.sasPastHardLimit);
  }
  return text;
}

}  // namespace

std::string routerTables(const Lab& lab) {
  std::string text;
  for (const std::unique_ptr<Router>& each : lab.routers()) {
    const RouterSummary router = summaryOf(lab, *each);
    text.append("\n").append(headline(router));
    if (router.up) {
      text += peersText(router) + pathsText(router) + sasText(router);
    }
    text += dropsText(router);
  }
  return text;
}

std::string trafficTable(const Lab& lab) {
  Table table({"flow", "path", "from", "sent", "received", "lost"});
  const std::vector<StreamCounts> streams = lab.traffic().streams();
  for (const StreamCounts& stream : streams) {
    table.row({stream.flow, stream.path, stream.from, std::to_string(stream.packets.sent),
               std::to_string(stream.packets.received), std::to_string(stream.packets.lost)});
  }
  return streams.empty() ? "" : "\ntraffic\n" + table.text("  ");
}

std::string verdictText(const Lab& lab) {
  std::string text;
  const auto isBroken = [](const Verdict& verdict) { return !verdict.held; };
  const auto broken = std::ranges::count_if(lab.verdicts(), isBroken);
  for (const Verdict& verdict : lab.verdicts()) {
    if (isBroken(verdict)) {
      text += "not held: " + stringValue(verdict) + "\n";
    }
  }
  const size_t all = lab.verdicts().size();
  if (all == 0) {
    return text + "OK: the scenario expects nothing\n";
  }
  return text + (broken == 0
                     ? fmt::format("OK: all {} expectations held\n", all)
                     : fmt::format("FAILED: {} of {} expectations did not hold\n", broken, all));
}

}  // namespace tessel::lab
