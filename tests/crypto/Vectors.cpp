#include "tests/crypto/Vectors.h"

#include <fstream>
#include <stdexcept>

namespace tessel::test {
namespace {

std::ifstream open(const std::string& file) {
  std::ifstream stream(TESSEL_SOURCE_DIR "/tests/vectors/" + file);
  if (!stream) {
    throw std::runtime_error("cannot read vectors " + file);
  }
  return stream;
}

}  // namespace

std::vector<Vector> readVectors(const std::string& file) {
  std::ifstream stream = open(file);
  std::vector<Vector> vectors;
  std::string section;
  for (std::string line; std::getline(stream, line);) {
    const size_t equals = line.find(" = ");
    if (line.starts_with('[')) {
      section = line.substr(1, line.find(']') - 1);
    } else if (!line.starts_with('#') && equals != std::string::npos) {
      const std::string name = line.substr(0, equals);
      if (vectors.empty() || vectors.back().contains(name)) {
        vectors.push_back({{"section", section}});
      }
      vectors.back()[name] = line.substr(equals + 3);
    }
  }
  return vectors;
}

const nlohmann::json& reference() {
  static const nlohmann::json document = [] {
    std::ifstream stream = open("crypto_info.json");
    return nlohmann::json::parse(stream);
  }();
  return document;
}

Bytes fromHex(const std::string& hex) {
  Bytes bytes;
  for (size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes bytesAt(const Vector& vector, const std::string& name) {
  const std::string& hex = vector.at(name);
  return hex == "\"\"" ? Bytes() : fromHex(hex);
}

Bytes bytesAt(const nlohmann::json& object, const std::string& name) {
  return fromHex(object.at(name).get<std::string>());
}

}  // namespace tessel::test
