#include "lab/scenario/Form.h"

#include <algorithm>

namespace tessel::lab {

void Form::requireAnOptional() const {
  if (source_ == nullptr || std::ranges::any_of(optionalKeys_, [this](const std::string& key) {
        return source_->has(key);
      })) {
    return;
  }
  std::string list;
  for (const std::string& key : optionalKeys_) {
    list += (list.empty() ? "" : ", ") + key;
  }
  source_->field().refuse("changes nothing: give one of " + list);
}

}  // namespace tessel::lab
