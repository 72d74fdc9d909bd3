#include "lab/report/LabEvent.h"

#include <array>

#include <fmt/format.h>

#include "lab/report/Summary.h"

namespace tessel::lab {
namespace {

using event::Machine;
using event::SaStep;

const char* stepName(SaStep::Step step) {
  switch (step) {
    case SaStep::Step::handedOver:
      return "sa-handed-over";
    case SaStep::Step::installed:
      return "sa-installed";
    case SaStep::Step::notInstalled:
      return "sa-not-installed";
    case SaStep::Step::retyped:
      return "sa-retyped";
    case SaStep::Step::removed:
      return "sa-removed";
  }
  return "";
}

std::string stepText(const LabEvent& event, const SaStep& what) {
  const std::string sa = textOf(what.sa);
  switch (what.step) {
    case SaStep::Step::handedOver:
      return fmt::format("{}: handed over for path {}, {}", sa, event.path,
                         plainName(what.sa.type));
    case SaStep::Step::installed:
      return sa + ": installed";
    case SaStep::Step::notInstalled:
      return fmt::format("{}: {}, {}", sa, saInstallStateName(what.sa.state), what.why);
    case SaStep::Step::retyped:
      return fmt::format("{}: {} -> {}", sa, plainName(what.before), plainName(what.sa.type));
    case SaStep::Step::removed:
      return sa + ": removed";
  }
  return "";
}

/// What the reader of a story wants to know of the machine's own events; empty for the others.
std::string_view wordsOf(Machine::Log log, std::string_view name) {
  struct Row {
    Machine::Log log;
    std::string_view name;
    std::string_view words;
  };
  static constexpr Row rows[] = {
      {Machine::Log::local, "dhRekeyInitiated", "DH rekey started"},
      {Machine::Log::local, "dhRekeyInSaInstalled", "DH rekey: every path has its new in-SA"},
      {Machine::Log::local, "dhRekeyNotRekeying", "DH rekey done"},
      {Machine::Log::local, "generateDhKey", "local key generated"},
      {Machine::Log::local, "destroyDhKey", "local key destroyed"},
      {Machine::Log::peer, "firstDhExchange", "first DH exchange done"},
      {Machine::Log::peer, "initiatorDhRekey", "DH rekey as initiator"},
      {Machine::Log::peer, "responderDhRekey", "DH rekey as responder"},
      {Machine::Log::path, "maybeRekeySa", "SA rekey started"},
      {Machine::Log::path, "markRekeyComplete", "rekey complete"}};
  for (const Row& row : rows) {
    if (row.log == log && row.name == name) {
      return row.words;
    }
  }
  return {};
}

std::string machineText(const LabEvent& event, const Machine& what) {
  const std::string_view words = wordsOf(what.log, what.name);
  if (words.empty()) {
    return "";
  }
  if (what.log == Machine::Log::local) {
    return fmt::format("{}, key {}", words, what.number.value_or(0));
  }
  return fmt::format("{}: {}, keys {}",
                     what.log == Machine::Log::peer ? "peer " + event.peer : "path " + event.path,
                     words, pairText(what.generations.value_or(DhKeyPair())));
}

std::string peerText(const LabEvent& event, const event::PeerStatus& what) {
  return fmt::format("peer {}: {}{}", event.peer, plainName(what.status),
                     what.status == PeerConnStatus::down ? ", " + plainName(what.reason) : "");
}

std::string limitText(const event::HardLimit& what) {
  return fmt::format(
      "SA {}: passed its hard limit of {} {}", spiText(what.spi), what.allowed,
      what.limit == HardLimitFinding::Limit::time ? "seconds" : hardLimitName(what.limit));
}

}  // namespace

std::string nameOf(const LabEvent& event) {
  static constexpr std::array names = {
      "router-up",  "router-down", "key-published", "key-received",   "controllers-connected",
      "peer-ready", "peer-gone",   "path-state",    "path-gone",      "first-packet",
      "sa",         "nonce-sent",  "hard-limit",    "packet-dropped", "machine",
      "log",        "trace",       "action",        "expectation"};
  static_assert(names.size() == std::variant_size_v<LabEvent::What>);
  const std::string usual = names[event.what.index()];
  return std::visit(
      Overloaded{
          [&](const event::Published& e) { return e.key ? usual : std::string("key-withdrawn"); },
          [&](const event::Received& e) { return e.key ? usual : std::string("key-gone"); },
          [&](const event::Connection& e) {
            return e.connected ? usual : std::string("controllers-lost");
          },
          [&](const event::PeerStatus& e) {
            return e.status == PeerConnStatus::ready ? usual : std::string("peer-down");
          },
          [&](const SaStep& e) { return std::string(stepName(e.step)); },
          [&](const event::Nonce& e) { return e.sent ? usual : std::string("nonce-received"); },
          [&](const auto&) { return std::string(usual); }},
      event.what);
}

bool hasWords(event::Machine::Log log, std::string_view name) {
  return !wordsOf(log, name).empty();
}

std::string textOf(const SaFacts& sa) {
  return fmt::format("SA {} {}", spiText(sa.spi), sa.inbound ? "in" : "out");
}

std::string textOf(const KeyFacts& key) {
  return fmt::format("key {}: {}, {} and {}", key.generation, plainName(key.group),
                     plainName(key.encryption), plainName(key.integrity));
}

std::string textOf(const LabEvent& event) {
  return std::visit(
      Overloaded{
          [](const event::RouterUp& e) {
            return fmt::format("up as {}, {}, group {}", e.routerId.stringValue(),
                               e.profile.empty() ? "no profile" : "profile " + e.profile,
                               plainName(e.group));
          },
          [](const event::RouterDown&) { return std::string("down"); },
          [](const event::Published& e) {
            return e.key ? "published " + textOf(*e.key) : "key withdrawn";
          },
          [&](const event::Received& e) {
            return e.key ? fmt::format("received {}'s {}", event.peer, textOf(*e.key))
                         : event.peer + "'s key is withdrawn";
          },
          [](const event::Connection& e) {
            return std::string(e.connected ? "controllers: connected"
                                           : "controllers: connection lost");
          },
          [&](const event::PeerStatus& e) { return peerText(event, e); },
          [&](const event::PeerGone&) { return fmt::format("peer {}: gone", event.peer); },
          [&](const event::PathState& e) {
            return fmt::format("path {}: {} -> {}", event.path, plainName(e.from), plainName(e.to));
          },
          [&](const event::PathGone&) { return fmt::format("path {}: gone", event.path); },
          [&](const event::FirstPacket&) {
            return fmt::format("path {}: first packet decrypted", event.path);
          },
          [&](const SaStep& e) { return stepText(event, e); },
          [](const event::Nonce& e) {
            return e.sent ? fmt::format("{}: first packet with a nonce of the {} sent",
                                        textOf(e.sa), e.kind)
                          : fmt::format("{}: nonce of the {} received", textOf(e.sa), e.kind);
          },
          [](const event::HardLimit& e) { return limitText(e); },
          [&](const event::Drop& e) {
            return fmt::format("dropped a packet {}{}: {}", e.sending ? "to send" : "received",
                               event.path.empty() ? "" : " on path " + event.path,
                               dropReasonName(e.reason));
          },
          [&](const Machine& e) { return machineText(event, e); },
          [](const event::LogLine& e) {
            return fmt::format("log: %{}-{}: {}", e.severity, e.identifier, e.text);
          },
          [](const event::TraceText& e) { return "| " + e.text; },
          [](const event::TimelineAction& e) {
            return e.text.empty() ? "timeline" : "timeline: " + e.text;
          },
          [](const event::Checked& e) {
            return (e.verdict.held ? "held: " : "not held: ") + stringValue(e.verdict);
          }},
      event.what);
}

}  // namespace tessel::lab
