#include "host/model/Path.h"

namespace tessel::Path {

std::string stringValue(UnderlayState state) {
  static constexpr const char* names[] = {"down", "connecting", "connected", "established"};
  const auto number = static_cast<size_t>(state);
  const char* name = number < std::size(names) ? names[number] : "unknown";
  return std::string(name) + "(" + std::to_string(number) + ")";
}

}  // namespace tessel::Path

namespace tessel {

template class KeyedCollection<ConnectionKey, Path::PathConfig>;
template class KeyedCollection<ConnectionKey, Ptr<Path::PathStatus>>;
template class KeyedCollection<ConnectionKey, MergedConnection>;
template class KeyedCollection<MergeResolutionKey, Ptr<MergeConnectionInfo>>;

}  // namespace tessel
