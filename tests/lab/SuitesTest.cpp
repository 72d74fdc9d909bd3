// Every suite that the algorithm tables allow, between two routers: what the one end encrypts the
// other end decrypts.
#include "lab/run/Lab.h"
#include "lab/run/Mesh.h"

namespace tessel::lab {
namespace {

TEST(Suites, EveryCombinationCarriesPacketsBothWays) {
  using enum IpsecEspAlgorithm;
  for (const IpsecEspAlgorithm encryption :
       {aes128Cbc, aes192Cbc, aes256Cbc, nullEncryption, aes128Gcm64, aes128Gcm128, aes256Gcm128}) {
    for (const IpsecHmacAlgorithm integrity :
         {IpsecHmacAlgorithm::md5, IpsecHmacAlgorithm::sha1, IpsecHmacAlgorithm::sha256,
          IpsecHmacAlgorithm::sha384, IpsecHmacAlgorithm::sha512, IpsecHmacAlgorithm::none}) {
      const bool isCombinedMode = stringValue(encryption).find("gcm") != std::string::npos;
      if (integrity == IpsecHmacAlgorithm::none && !isCombinedMode) {
        continue;  // Packets without any protection: no suite.
      }
      SCOPED_TRACE(stringValue(encryption) + " and " + stringValue(integrity));
      RouterSettings settings;
      settings.profile.sa.encryption = encryption;
      settings.profile.sa.integrity = integrity;
      Lab lab(meshScenario({.settings = settings}));
      ASSERT_NO_THROW(lab.establishPaths(seconds(2)));
      lab.run(seconds(10));
      for (const char* from : {"east", "west"}) {
        EXPECT_GE(lab.traffic().counts({}, {}, from).received, 80U) << from;
        EXPECT_EQ(lab.history(from).drops().total(), 0U) << from;
      }
      EXPECT_EQ(lab.traffic().lost(), 0U);
    }
  }
}

}  // namespace
}  // namespace tessel::lab
