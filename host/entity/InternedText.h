// InternedText: text of which there are many copies but few different ones.
#pragma once

#include <string>
#include <string_view>

#include "host/facility/Export.h"

namespace tessel {

/// A handle of one word to the one copy of a text that the process keeps, from then on for good:
/// for names of algorithms and the like, not for text that others may choose freely. May be used
/// from several threads.
class TESSEL_API InternedText {
 public:
  /// The empty text.
  InternedText();
  explicit InternedText(std::string_view text);

  const std::string& text() const { return *text_; }
  friend bool operator==(const InternedText&, const InternedText&) = default;

 private:
  const std::string* text_;
};

}  // namespace tessel
