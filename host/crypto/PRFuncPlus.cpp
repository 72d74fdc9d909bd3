#include "host/crypto/PRFuncPlus.h"

#include <algorithm>
#include <utility>

namespace tessel {

bool PRFuncPlus::initPRFuncPlus(BytesView seed) {
  seed_ = SecretBytes(prf_.hasKey() ? seed : BytesView());
  block_ = SecretBytes(prf_.outputLen());
  rewind();
  return !seed_.empty();
}

bool PRFuncPlus::generatePRStream(size_t length, SecretBytes* out) {
  if (!continuous_) {
    rewind();
  }
  if (seed_.empty() || length > bytesLeft()) {
    return false;
  }
  SecretBytes result(length);
  for (size_t filled = 0; filled < length;) {
    if (used_ == block_.size() && !nextBlock()) {
      return false;
    }
    const size_t size = std::min(length - filled, block_.size() - used_);
    std::ranges::copy(block_.view().subspan(used_, size), result.data() + filled);
    used_ += size;
    filled += size;
  }
  *out = std::move(result);
  return true;
}

void PRFuncPlus::rewind() {
  blocks_ = 0;
  used_ = block_.size();
}

bool PRFuncPlus::nextBlock() {
  const auto number = static_cast<uint8_t>(blocks_ + 1);
  // T1 has no block before it.
  const BytesView previous = blocks_ > 0 ? block_.view() : BytesView();
  if (!prf_.compute({previous, seed_.view(), {&number, 1}}, block_.span())) {
    seed_ = SecretBytes();  // The block before it is gone: the stream cannot go on.
    return false;
  }
  ++blocks_;
  used_ = 0;
  return true;
}

size_t PRFuncPlus::bytesLeft() const {
  return (maxBlocks - blocks_) * block_.size() + (block_.size() - used_);
}

}  // namespace tessel
