// What keys are made with: full nonce, HMAC, prf+, and their source of randomness.
#include <set>

#include "host/crypto/HmacPRFunc.h"
#include "host/crypto/NonceGenerator.h"
#include "host/crypto/PRFuncPlus.h"
#include "host/crypto/RandomSource.h"
#include "tests/crypto/Vectors.h"

namespace tessel::test {
namespace {

HmacPRFunc keyed(HashAlgorithm algorithm, BytesView key) {
  HmacPRFunc prf;
  EXPECT_TRUE(prf.initHmacPRFunc(algorithm) && prf.setKey(key));
  return prf;
}

// RFC 2202 (MD5, SHA-1) and RFC 4231 (SHA-2), by the number of the hash.
TEST(KeyStream, HmacVectorsWithOneContextKeptPerHash) {
  const std::vector<Vector> vectors = readVectors("hmac.txt");
  ASSERT_EQ(vectors.size(), 32U);
  HmacPRFunc prf;
  std::string section;
  for (const Vector& v : vectors) {
    SCOPED_TRACE(v.at("section") + ": " + v.at("Msg"));
    if (v.at("section") != section) {
      section = v.at("section");
      ASSERT_TRUE(prf.initHmacPRFunc(HashAlgorithm(std::stoi(section))));
    }
    SecretBytes out;
    ASSERT_TRUE(prf.setKey(bytesAt(v, "Key")));
    for (int again = 0; again < 2; ++again) {
      ASSERT_TRUE(prf.generatePRStream(bytesAt(v, "Msg"), &out));
      EXPECT_EQ(plain(out), bytesAt(v, "MD"));
    }
  }
}

TEST(KeyStream, HmacNeedsAHashAndAKey) {
  HmacPRFunc prf;
  SecretBytes out;
  EXPECT_FALSE(prf.setKey(Bytes{1}));
  EXPECT_FALSE(prf.initHmacPRFunc(HashAlgorithm(5)));
  ASSERT_TRUE(prf.initHmacPRFunc(HashAlgorithm::sha512));
  EXPECT_FALSE(prf.generatePRStream(Bytes{1}, &out));
  ASSERT_TRUE(prf.setKey(Bytes{1}));
  EXPECT_FALSE(prf.setKey(Bytes{}));
  EXPECT_FALSE(prf.generatePRStream(Bytes{1}, &out));
  ASSERT_TRUE(prf.setKey(Bytes{1}) && prf.initHmacPRFunc(HashAlgorithm::sha512));
  EXPECT_FALSE(prf.generatePRStream(Bytes{1}, &out));
}

TEST(KeyStream, PrfPlusEndsAfter255Blocks) {
  ASSERT_EQ(reference().at("prfPlus").size(), 5U);
  for (const auto& limit : reference().at("prfPlus")) {
    SCOPED_TRACE("hash " + limit.at("hashAlgorithm").dump());
    const HmacPRFunc prf =
        keyed(HashAlgorithm(limit.at("hashAlgorithm").get<uint8_t>()), bytesAt(limit, "key"));
    const size_t length = limit.at("length");
    PRFuncPlus plus(prf, true);
    ASSERT_TRUE(plus.initPRFuncPlus(bytesAt(limit, "seed")));

    // An odd first read, the exact rest, then nothing more but nothing itself.
    SecretBytes whole;
    SecretBytes rest;
    ASSERT_TRUE(plus.generatePRStream(1001, &whole));
    EXPECT_FALSE(plus.generatePRStream(length - 1000, &rest));
    EXPECT_TRUE(rest.empty());
    ASSERT_TRUE(plus.generatePRStream(length - 1001, &rest));
    EXPECT_FALSE(plus.generatePRStream(1, &rest));
    whole.append(rest.view());
    EXPECT_TRUE(plus.generatePRStream(0, &rest));
    EXPECT_TRUE(rest.empty());

    SecretBytes mac;
    ASSERT_TRUE(prf.generatePRStream(whole, &mac));
    EXPECT_EQ(plain(mac), bytesAt(limit, "mac"));
  }
}

TEST(KeyStream, PrfPlusStartsOverWhenNotContinuousAndWhenInitialized) {
  const HmacPRFunc prf = keyed(HashAlgorithm::sha512, Bytes(64, 3));
  PRFuncPlus restarting(prf, false);
  PRFuncPlus continuous(prf, true);
  SecretBytes first;
  SecretBytes second;
  EXPECT_FALSE(continuous.generatePRStream(0, &first));
  EXPECT_FALSE(continuous.initPRFuncPlus(Bytes{}));
  EXPECT_FALSE(continuous.generatePRStream(1, &first));
  ASSERT_TRUE(restarting.initPRFuncPlus(Bytes(64, 4)) && continuous.initPRFuncPlus(Bytes(64, 4)));

  ASSERT_TRUE(continuous.generatePRStream(100, &first));
  ASSERT_TRUE(continuous.generatePRStream(100, &second));
  EXPECT_FALSE(first == second);
  ASSERT_TRUE(continuous.initPRFuncPlus(Bytes(64, 4)) && continuous.generatePRStream(100, &second));
  EXPECT_TRUE(first == second);
  for (int read = 0; read < 300; ++read) {
    ASSERT_TRUE(restarting.generatePRStream(100, &second));
    ASSERT_TRUE(first == second);
  }
  EXPECT_FALSE(PRFuncPlus(HmacPRFunc(), true).initPRFuncPlus(Bytes{1}));
}

TEST(KeyStream, NoncesAreFreshAndFullNoncesNeedBoth) {
  const NonceGenerator generator;
  Bytes first;
  Bytes second;
  SecretBytes full;
  ASSERT_TRUE(generator.generateNonce(&first) && generator.generateNonce(&second));
  EXPECT_EQ(first.size(), 32U);
  EXPECT_NE(first, second);
  EXPECT_FALSE(generator.generateFullNonce(&full, first, {}));
  EXPECT_FALSE(generator.generateFullNonce(&full, {}, second));
  EXPECT_TRUE(full.empty());
}

TEST(KeyStream, ASeedGivesOneStreamHoweverItIsCut) {
  SeededRandomSource zero(0);
  Bytes bytes(16, 0xEE);
  ASSERT_TRUE(zero.fill(bytes));
  // RFC 8439 appendix A.1, vector 1.
  EXPECT_EQ(bytes, fromHex("76b8e0ada0f13d90405d6ae55386bd28"));

  SeededRandomSource whole(7);
  SeededRandomSource cut(7);
  Bytes expected(300);
  Bytes pieces(300);
  const std::span<uint8_t> span(pieces);
  ASSERT_TRUE(whole.fill(expected) && cut.fill(span.first(1)) && cut.fill(span.subspan(1, 70)) &&
              cut.fill(span.subspan(71)));
  EXPECT_EQ(pieces, expected);

  // Every byte of the seed counts.
  std::set<Bytes> streams;
  for (int byte = 0; byte < 8; ++byte) {
    SeededRandomSource source((uint64_t{1} << (8 * byte)) | 2);
    ASSERT_TRUE(source.fill(bytes));
    streams.insert(bytes);
  }
  EXPECT_EQ(streams.size(), 8U);
}

}  // namespace
}  // namespace tessel::test
