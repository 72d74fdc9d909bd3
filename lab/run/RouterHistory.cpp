#include "lab/run/RouterHistory.h"

namespace tessel::lab {
namespace {

template <class Counts, class Key>
uint64_t countOf(const Counts& counts, const Key& key) {
  const auto found = counts.find(key);
  return found == counts.end() ? 0 : found->second;
}

/// Whether a completed rekey that finds its path in this state was one of SAs.
bool isSaRekeyCompletion(DynamicPathState state) {
  return state == DynamicPathState::saInitiatorOutSaInstalled ||
         state == DynamicPathState::saResponderOutSaInstalled;
}

}  // namespace

void RouterHistory::handleStart() {
  events_.clear();
  pathEvents_.clear();
}

uint64_t RouterHistory::events(std::string_view name) const {
  return countOf(events_, name);
}

uint64_t RouterHistory::events(std::string_view name, const ConnectionKey& path) const {
  const auto found = pathEvents_.find(path);
  return found == pathEvents_.end() ? 0 : countOf(found->second, name);
}

uint64_t RouterHistory::saRekeys(const ConnectionKey& path) const {
  return countOf(saRekeys_, path);
}

uint64_t RouterHistory::logged(std::string_view identifier) const {
  return countOf(logged_, identifier);
}

void RouterHistory::handleEvent(const LocalEvent& event) {
  count(event.eventName);
  if (event.eventName.string() == "dhRekeyNotRekeying") {
    ++dhRekeys_;
  }
  observer_.handleEvent(router_, event);
}

void RouterHistory::handleEvent(const PeerEvent& event) {
  count(event.eventName);
  observer_.handleEvent(router_, event);
}

void RouterHistory::handleEvent(const PathEvent& event) {
  count(event.eventName, event.connectionKey);
  if (event.eventName.string() == "markRekeyComplete" && isSaRekeyCompletion(event.pathState)) {
    ++saRekeys_[event.connectionKey];
  }
  observer_.handleEvent(router_, event);
}

void RouterHistory::handleEvent(const SecurityAssociationKey& key, const ConnectionKey& path,
                                const SaEvent& event) {
  count(event.eventName, path);
  observer_.handleEvent(router_, key, path, event);
}

void RouterHistory::handleHardLimit(const HardLimitFinding& finding) {
  sasPastHardLimit_.insert(finding.key);
}

void RouterHistory::count(const EventName& name, const ConnectionKey& path) {
  count(name);
  ++pathEvents_[path][name.string()];
}

}  // namespace tessel::lab
