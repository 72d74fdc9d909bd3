// ReadFile: a whole file as text.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

namespace tessel::lab {

/// The file's bytes; nothing when it cannot be read.
inline std::optional<std::string> readFile(const std::filesystem::path& file) {
  std::error_code ignored;
  std::ifstream stream(file, std::ios::binary);
  if (!stream || std::filesystem::is_directory(file, ignored)) {
    return std::nullopt;
  }
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (stream.bad()) {
    return std::nullopt;
  }
  return text;
}

}  // namespace tessel::lab
