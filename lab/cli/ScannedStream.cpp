#include "lab/cli/ScannedStream.h"

#include <algorithm>
#include <string_view>

#include "lab/check/Invariants.h"

namespace tessel::lab {
namespace {

constexpr size_t kPiece = 1U << 16U;
// More than the hexadecimal form of what a secret is recognised by.
constexpr size_t kOverlap = 64;

}  // namespace

ScannedBuffer::int_type ScannedBuffer::overflow(int_type character) {
  if (!traits_type::eq_int_type(character, traits_type::eof())) {
    piece_.push_back(traits_type::to_char_type(character));
  }
  return traits_type::not_eof(character);
}

std::streamsize ScannedBuffer::xsputn(const char* text, std::streamsize size) {
  piece_ += std::string_view(text, static_cast<size_t>(size));
  if (piece_.size() - seen_ >= kPiece) {
    pass();
  }
  return size;
}

int ScannedBuffer::sync() {
  pass();
  return target_.flush() ? 0 : -1;
}

void ScannedBuffer::pass() {
  invariants_.scan(piece_);
  target_.write(piece_.data() + seen_, static_cast<std::streamsize>(piece_.size() - seen_));
  piece_.erase(0, piece_.size() - std::min(piece_.size(), kOverlap));
  seen_ = piece_.size();
}

}  // namespace tessel::lab
