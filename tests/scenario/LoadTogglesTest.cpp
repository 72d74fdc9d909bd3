// The toggle file.
#include <filesystem>

#include "host/facility/Toggles.h"
#include "lab/toggles/LoadToggles.h"

namespace tessel::lab {
namespace {

class LoadToggles : public testing::Test {
 protected:
  ~LoadToggles() override { Toggles::reset(); }
  static bool isOn(const char* name) { return getToggleState(name, "Ipsec.json", true); }
};

TEST_F(LoadToggles, FileGoesIntoTheTableAndMayBeMissing) {
  EXPECT_FALSE(readToggles(R"({"PfConnectionLoss": false, "TrellisSnapshot": true})").has_value());
  EXPECT_FALSE(isOn("PfConnectionLoss"));
  EXPECT_TRUE(isOn("TrellisSnapshot"));
  EXPECT_TRUE(isOn("Another"));
  EXPECT_TRUE(getToggleState("PfConnectionLoss", "Other.json", true));
  EXPECT_FALSE(loadToggles("no/such/Ipsec.json").has_value());
  EXPECT_TRUE(loadToggles(std::filesystem::current_path()).has_value());
}

TEST_F(LoadToggles, AnyFaultIsReportedWithItsPositionAndLeavesTheDefaults) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "1:1: not JSON"},
      {"{\"PfConnectionLoss\": false", "1:27: not JSON"},
      {"{\"PfConnectionLoss\": false,\n \"TrellisSnapshot\": of}", "2:21: not JSON"},
      {"{\"PfConnectionLoss\": false}\n]", "2:1: not JSON"},
      {"[false]", "1:1: expected an object of toggles"},
      {"false", "1:5: expected an object of toggles"},
      {"{\n  \"PfConnectionLoss\": false,\n  \"TrellisSnapshot\": \"off\"}",
       "3:26: toggle \"TrellisSnapshot\" must be true or false"},
      {"{\"PfConnectionLoss\": {\"a\": false}}",
       "1:22: toggle \"PfConnectionLoss\" must be true or false"},
      {"{\"PfConnectionLoss\": false,\n\"PfConnectionLoss\": false}",
       "2:18: toggle \"PfConnectionLoss\" is repeated"}};
  for (const auto& [text, expected] : rows) {
    const auto error = readToggles(text);
    ASSERT_TRUE(error.has_value()) << text;
    EXPECT_EQ(stringValue(*error), expected) << text;
    EXPECT_TRUE(isOn("PfConnectionLoss")) << text;
  }
}

}  // namespace
}  // namespace tessel::lab
