// LoadToggles: the toggle file, "Ipsec.json", into the host's table of toggles.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tessel::lab {

/// The name under which the agent asks for its toggles.
inline constexpr std::string_view toggleFileName = "Ipsec.json";

/// What is wrong in a toggle file, and where. Lines and columns count from 1, columns in bytes.
struct ToggleFileError {
  int line = 0;
  int column = 0;
  std::string problem{};
};
/// "3:12: ...".
std::string stringValue(const ToggleFileError& error);

/// Reads one JSON object of names and booleans, such as {"PfConnectionLoss": false}, into the table
/// under `toggleFileName`. A text with any fault changes nothing: every toggle keeps its default.
std::optional<ToggleFileError> readToggles(std::string_view text);
/// As `readToggles`, from a file. A file that does not exist is no fault, and changes nothing.
std::optional<ToggleFileError> loadToggles(const std::filesystem::path& file);

}  // namespace tessel::lab
