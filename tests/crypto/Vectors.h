// Reads the vectors in tests/vectors: blocks of "Name = value" lines, and the JSON of the
// reference.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/model/Bytes.h"

namespace tessel::test {

/// One block; `[section]` lines are kept under "section".
using Vector = std::map<std::string, std::string>;

/// The blocks of a file; a name that comes again starts the next one.
std::vector<Vector> readVectors(const std::string& file);

/// tests/vectors/crypto_info.json; its layout stands in tests/reference/crypto_info.py.
const nlohmann::json& reference();

Bytes fromHex(const std::string& hex);
/// The bytes at `name`, which must be there.
Bytes bytesAt(const Vector& vector, const std::string& name);
Bytes bytesAt(const nlohmann::json& object, const std::string& name);
inline Bytes plain(const SecretBytes& secret) {
  return {secret.data(), secret.data() + secret.size()};
}

}  // namespace tessel::test
