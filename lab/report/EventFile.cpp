#include "lab/report/EventFile.h"

#include <ostream>

#include <nlohmann/json.hpp>

#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

using OrderedJson = nlohmann::ordered_json;

void put(OrderedJson& line, const KeyFacts& key) {
  line["generation"] = key.generation;
  line["group"] = plainName(key.group);
  line["encryption"] = plainName(key.encryption);
  line["integrity"] = plainName(key.integrity);
}

void put(OrderedJson& line, const DhKeyPair& pair) {
  line["generations"] = {{"local", pair.localRekeyCount}, {"peer", pair.peerRekeyCount}};
}

void put(OrderedJson& line, const SaFacts& sa) {
  line["spi"] = spiText(sa.spi);
  line["direction"] = sa.inbound ? "in" : "out";
  line["type"] = plainName(sa.type);
  put(line, sa.generations);
  line["hand_over"] = sa.handOver;
}

void putWhat(OrderedJson& line, const event::RouterUp& e) {
  line["router_id"] = e.routerId.stringValue();
  line["profile"] = e.profile;
  line["group"] = plainName(e.group);
}

void putWhat(OrderedJson&, const event::RouterDown&) {}

void putWhat(OrderedJson& line, const event::Published& e) {
  if (e.key) {
    put(line, *e.key);
  }
}

void putWhat(OrderedJson& line, const event::Received& e) {
  if (e.key) {
    put(line, *e.key);
  }
}

void putWhat(OrderedJson&, const event::Connection&) {}

void putWhat(OrderedJson& line, const event::PeerStatus& e) {
  if (e.status == PeerConnStatus::down) {
    line["reason"] = plainName(e.reason);
  }
}

void putWhat(OrderedJson&, const event::PeerGone&) {}

void putWhat(OrderedJson& line, const event::PathState& e) {
  line["from"] = plainName(e.from);
  line["to"] = plainName(e.to);
}

void putWhat(OrderedJson& line, const event::PathGone& e) {
  line["from"] = plainName(e.from);
}

void putWhat(OrderedJson&, const event::FirstPacket&) {}

void putWhat(OrderedJson& line, const event::SaStep& e) {
  put(line, e.sa);
  switch (e.step) {
    case event::SaStep::Step::handedOver:
    case event::SaStep::Step::installed:
      break;
    case event::SaStep::Step::notInstalled:
      line["installation"] = saInstallStateName(e.sa.state);
      line["why"] = e.why;
      break;
    case event::SaStep::Step::retyped:
      line["before"] = plainName(e.before);
      break;
    case event::SaStep::Step::removed:
      line["packets"] = e.sa.packets;
      line["bytes"] = e.sa.bytes;
      break;
  }
}

void putWhat(OrderedJson& line, const event::Nonce& e) {
  put(line, e.sa);
  line["of"] = e.kind;
}

void putWhat(OrderedJson& line, const event::HardLimit& e) {
  line["spi"] = spiText(e.spi);
  line["limit"] = hardLimitName(e.limit);
  line["allowed"] = e.allowed;
}

void putWhat(OrderedJson& line, const event::Drop& e) {
  line["reason"] = dropReasonName(e.reason);
  line["direction"] = e.sending ? "out" : "in";
  if (e.spi != 0) {
    line["spi"] = spiText(e.spi);
  }
  if (e.sequence != 0) {
    line["sequence"] = e.sequence;
  }
}

void putWhat(OrderedJson& line, const event::Machine& e) {
  static constexpr const char* logs[] = {"local", "peer", "path", "sa"};
  line["log"] = logs[static_cast<size_t>(e.log)];
  line["name"] = e.name;
  if (e.number) {
    line["number"] = *e.number;
  }
  if (e.spi) {
    line["spi"] = spiText(*e.spi);
  }
  if (e.pathState) {
    line["path_state"] = plainName(*e.pathState);
  }
  if (e.generations) {
    put(line, *e.generations);
  }
}

void putWhat(OrderedJson& line, const event::LogLine& e) {
  line["identifier"] = e.identifier;
  line["severity"] = e.severity;
  line["text"] = e.text;
}

void putWhat(OrderedJson& line, const event::TraceText& e) {
  line["text"] = e.text;
}

void putWhat(OrderedJson& line, const event::TimelineAction& e) {
  line["text"] = e.text;
  line["line"] = e.line;
}

void putWhat(OrderedJson& line, const event::Checked& e) {
  line["line"] = e.verdict.line;
  line["expected"] = e.verdict.expected;
  line["held"] = e.verdict.held;
  line["found"] = e.verdict.found;
}

}  // namespace

std::string eventLine(uint64_t number, const LabEvent& event) {
  OrderedJson line = {{"n", number}, {"at_seconds", event.at.seconds()}};
  if (!event.router.empty()) {
    line["router"] = event.router;
  }
  line["event"] = nameOf(event);
  if (!event.path.empty()) {
    line["path"] = event.path;
  }
  if (!event.peer.empty()) {
    line["peer"] = event.peer;
  }
  std::visit([&](const auto& what) { putWhat(line, what); }, event.what);
  return line.dump() + "\n";
}

std::string eventFields(const LabEvent& event) {
  OrderedJson fields = OrderedJson::object();
  std::visit([&](const auto& what) { putWhat(fields, what); }, event.what);
  return fields.dump();
}

void EventFile::handle(const LabEvent& event) {
  out_ << eventLine(++count_, event);
}

}  // namespace tessel::lab
