// ScannedStream: output in which a run's secrets are looked for before it leaves the program.
#pragma once

#include <ostream>
#include <streambuf>
#include <string>

namespace tessel::lab {

class Invariants;

/// Passes on to `target` what is written, a piece at a time, when `invariants` have looked at it.
class ScannedBuffer final : public std::streambuf {
 public:
  ScannedBuffer(std::ostream& target, Invariants& invariants)
      : target_(target), invariants_(invariants) {}
  void pass();

 private:
  int_type overflow(int_type character) override;
  std::streamsize xsputn(const char* text, std::streamsize size) override;
  int sync() override;

  std::ostream& target_;
  Invariants& invariants_;
  std::string piece_;
  size_t seen_ = 0;  ///< Of the piece, passed on before: a secret could stand across two pieces.
};

/// What the invariants find is a violation there; the output goes on. The last piece goes with a
/// flush, or with the stream.
class ScannedStream final : public std::ostream {
 public:
  ScannedStream(std::ostream& target, Invariants& invariants)
      : std::ostream(nullptr), buffer_(target, invariants) {
    rdbuf(&buffer_);
  }
  ~ScannedStream() override { buffer_.pass(); }

 private:
  ScannedBuffer buffer_;
};

}  // namespace tessel::lab
