#include "host/entity/InternedText.h"

#include <functional>
#include <mutex>
#include <set>

namespace tessel {

namespace {

const std::string* theCopyOf(std::string_view text) {
  static std::mutex mutex;
  // Never freed: texts in other static objects may outlive anything that ends here.
  static auto& copies = *new std::set<std::string, std::less<>>;
  const std::lock_guard lock(mutex);
  const auto found = copies.find(text);
  return found != copies.end() ? &*found : &*copies.emplace(text).first;
}

}  // namespace

InternedText::InternedText() {
  static const std::string* const empty = theCopyOf("");
  text_ = empty;
}

InternedText::InternedText(std::string_view text) : text_(theCopyOf(text)) {}

}  // namespace tessel
