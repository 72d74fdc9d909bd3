// ESP packets: every suite sealed and opened, its bytes against another implementation's, what must
// not open, and the anti-replay window.
#include <algorithm>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "host/agent/Esp.h"
#include "tests/agent/TestSuite.h"
#include "tests/crypto/Vectors.h"

namespace tessel {
namespace {

using test::fromHex;
using Failure = EspTransform::Failure;
using Use = EspTransform::Use;

struct SuiteRow {
  TestSuite suite;
  size_t ivSize;
  size_t icvSize;
  size_t blockSize;
};

std::vector<SuiteRow> allSuites() {
  std::vector<SuiteRow> rows;
  for (const auto& [keyLen, icvLen] :
       {std::pair<uint16_t, uint16_t>(160, 64), {160, 128}, {288, 128}}) {
    rows.push_back({{"rfc4106(gcm(aes))", keyLen, icvLen, "ignored", 8, 3}, 8, icvLen / 8U, 4});
  }
  for (const auto& [algo, keyLen, truncLen, icvSize] :
       {std::tuple<const char*, uint16_t, uint16_t, size_t>("md5", 128, 0, 12),
        {"sha1", 160, 0, 12},
        {"hmac(sha256)", 256, 128, 16},
        {"hmac(sha384)", 384, 192, 24},
        {"hmac(sha512)", 512, 256, 32}}) {
    for (const uint16_t cbcKeyLen : std::initializer_list<uint16_t>{128, 192, 256}) {
      rows.push_back({{"aes", cbcKeyLen, 0, algo, keyLen, truncLen}, 16, icvSize, 16});
    }
    rows.push_back({{"cipher_null", 0, 0, algo, keyLen, truncLen}, 0, icvSize, 4});
  }
  return rows;
}

Ptr<Ike::SecurityAssociation> saOf(const TestSuite& suite, uint8_t keyVariant = 1) {
  const auto sa = makePtr<Ike::SecurityAssociation>(SecurityAssociationKey());
  suiteIs(*sa, suite, keyVariant);
  return sa;
}

Bytes sealed(EspTransform& transform, const Bytes& inner) {
  Bytes esp(transform.sealedSize(inner.size()));
  transform.seal(0x0BADCAFE, 7, inner, {}, 4, esp);
  return esp;
}

TEST(Esp, EverySuiteOpensWhatItSealedAndNothingElse) {
  for (const SuiteRow& row : allSuites()) {
    SCOPED_TRACE(row.suite.cryptoAlgo + std::to_string(row.suite.cryptoKeyLen) +
                 row.suite.authAlgo);
    EspTransform seal(*saOf(row.suite), Use::seal);
    EspTransform open(*saOf(row.suite), Use::open);
    EspTransform openOther(*saOf(row.suite, 2), Use::open);
    EXPECT_EQ(seal.keyTag(), open.keyTag());
    EXPECT_NE(seal.keyTag(), openOther.keyTag());
    const size_t around = 8 + row.ivSize + row.icvSize;
    Bytes esp;
    for (size_t size = 20; size < 54; ++size) {  // Every length of padding.
      Bytes inner(size);
      std::iota(inner.begin(), inner.end(), uint8_t{3});
      esp = sealed(seal, inner);
      EXPECT_EQ((esp.size() - around) % row.blockSize, 0U);
      EXPECT_LT(esp.size() - around - size - 2, row.blockSize) << "more padding than it takes";
      Bytes opened = esp;
      const EspTransform::Opened result = open.open(opened);
      ASSERT_EQ(result.failure, Failure::none) << "inner size " << size;
      EXPECT_EQ(result.nextHeader, 4);
      EXPECT_TRUE(std::ranges::equal(result.payload, inner));
      Bytes wrongKey = esp;
      EXPECT_EQ(openOther.open(wrongKey).failure, Failure::badIcv);
    }
    for (size_t i = 0; i < esp.size(); ++i) {
      Bytes altered = esp;
      altered[i] ^= static_cast<uint8_t>(1U << (i % 8));
      EXPECT_EQ(open.open(altered).failure, Failure::badIcv) << "byte " << i;
      Bytes truncated(esp.begin(), esp.begin() + static_cast<std::ptrdiff_t>(i));
      const bool whole = i > around && (i - around) % row.blockSize == 0;
      EXPECT_EQ(open.open(truncated).failure, whole ? Failure::badIcv : Failure::malformed)
          << "size " << i;
    }
    EXPECT_EQ(open.open(esp).failure, Failure::none) << "a failure spoils the next one";
  }
}

// Packets computed with AES, GHASH and CBC written out in plain Python and its hmac module, under
// the keys of `testKey`.
TEST(Esp, BytesAreThoseOfAnotherImplementation) {
  const Bytes inner =
      fromHex("4500002200004000401126c70a0100010a02000103e807d0000e92d074657373656c");
  const std::tuple<TestSuite, std::optional<uint32_t>, const char*> rows[] = {
      {{"rfc4106(gcm(aes))", 160, 128, "", 0, 0},
       0x1ABCDEF1,
       "0badcafe0000000701020304050607085cbdd362915d5078972a6fcca9ac6e53116eb1d9638fb82fbeeb"
       "47ba72f6a60edd5cf5dbaf0c76d59e7cdc9e02a9d0931baf23fbbd0f006824c98d8d"},
      {{"aes", 192, 0, "hmac(sha384)", 384, 192},
       std::nullopt,
       "0badcafe00000007a0a1a2a3a4a5a6a7a8a9aaabacadaeaf549c4c83d539d404995ed932caaa990bc2bb"
       "81e5a78ffcb112169baf4c0ec4ad76ede7a09017a26a791c9449f32296b97c2bacaba478432ff5d1aa3c"
       "cfb083d98d3a2a66450e10ec"}};
  for (const auto& [suite, nonce, hex] : rows) {
    SCOPED_TRACE(suite.cryptoAlgo);
    Bytes esp = fromHex(hex);
    EXPECT_EQ(readEspHeader(esp).value().spi, 0x0BADCAFEU);
    EXPECT_EQ(readEspHeader(esp).value().sequence, 7U);
    const EspTransform::Opened opened = EspTransform(*saOf(suite), Use::open).open(esp);
    ASSERT_EQ(opened.failure, Failure::none);
    ASSERT_EQ(opened.payload.size(), inner.size() + (nonce ? kEspNonceSize : 0));
    EXPECT_TRUE(std::ranges::equal(opened.payload.first(inner.size()), inner));
    EXPECT_EQ(readEspNonce(opened.payload.subspan(inner.size())), nonce);
  }
}

TEST(Esp, RefusesWhatMakesNoUsableSa) {
  const auto expectRefused = [](const Ike::SecurityAssociation& sa, const std::string& why) {
    EXPECT_THAT([&] { EspTransform(sa, Use::seal); },
                ::testing::ThrowsMessage<std::invalid_argument>(why));
  };
  const std::string gcm = "rfc4106(gcm(aes))";
  const std::pair<std::string, TestSuite> rows[] = {
      {"cryptoAlgo \"\": no such algorithm", {"", 0, 0, "md5", 128, 0}},
      {"cryptoKeyLen 128 bits: does not fit " + gcm, {gcm, 128, 128}},
      {"cryptoKeyLen 0 bits: does not fit " + gcm, {gcm, 0, 128}},
      {"icvLen 0 bits: does not fit " + gcm, {gcm, 160, 0}},
      {"cryptoKeyLen 160 bits: does not fit aes", {"aes", 160, 0, "md5", 128, 0}},
      {"cryptoKeyLen 128 bits: does not fit cipher_null", {"cipher_null", 128, 0, "md5", 128, 0}},
      {"authAlgo \"\": no such algorithm", {"aes", 128, 0, "", 0, 0}},
      {"authKeyLen 128 bits: does not fit sha1", {"aes", 128, 0, "sha1", 128, 0}},
      {"authTruncLen 264 bits: does not fit hmac(sha256)",
       {"aes", 128, 0, "hmac(sha256)", 256, 264}},
      {"authTruncLen 100 bits: does not fit md5", {"cipher_null", 0, 0, "md5", 128, 100}}};
  for (const auto& [why, suite] : rows) {
    expectRefused(*saOf(suite), why);
  }
  // A key that is not as long as the SA says.
  const Ptr<Ike::SecurityAssociation> sa = saOf({"aes", 128, 0, "md5", 128, 0});
  sa->cryptoKeyIs(testKey(120, 1));
  expectRefused(*sa, "cryptoKey 120 bits: cryptoKeyLen is 128");
  sa->cryptoKeyIs(testKey(128, 1));
  sa->authKeyIs({});
  expectRefused(*sa, "authKey 0 bits: authKeyLen is 128");
}

TEST(Esp, InitializationVectorsNeverRepeatUnderOneKey) {
  for (const TestSuite& suite : {TestSuite{}, TestSuite{"aes", 128, 0, "md5", 128, 0}}) {
    std::set<Bytes> ivs;
    for (int instance = 0; instance < 50; ++instance) {
      EspTransform seal(*saOf(suite), Use::seal);
      for (int packet = 0; packet < 40; ++packet) {
        const Bytes esp = sealed(seal, Bytes(40));
        ivs.emplace(esp.begin() + 8, esp.begin() + 8 + static_cast<int>(seal.ivSize()));
      }
    }
    EXPECT_EQ(ivs.size(), 50U * 40U) << suite.cryptoAlgo;
  }
}

// Against the plain reading of the rule: a list of what came in.
TEST(ReplayWindow, TakesEachOfTheLast64NumbersOnce) {
  using Verdict = ReplayWindow::Verdict;
  ReplayWindow window;
  std::set<uint32_t> seen;
  const auto arrives = [&](uint32_t sequence) {
    const uint32_t highest = seen.empty() ? 0 : *seen.rbegin();
    Verdict expected = seen.contains(sequence) ? Verdict::replayed : Verdict::fresh;
    if (sequence == 0 || (highest >= 64 && sequence <= highest - 64)) {
      expected = Verdict::tooOld;
    }
    ASSERT_EQ(window.check(sequence), expected) << sequence << " behind " << highest;
    if (expected == Verdict::fresh) {
      window.accept(sequence);
      seen.insert(sequence);
      EXPECT_EQ(window.highest(), *seen.rbegin());
    }
  };
  std::mt19937 random(11);
  const auto draw = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  for (int i = 0; i < 20000; ++i) {
    const uint32_t ahead = draw(50) == 0 ? draw(200) : draw(3);
    arrives(window.highest() + ahead - std::min(draw(2) * draw(80), window.highest()));
  }
  for (const uint32_t behindTheLast : {10U, 0U, 0U, 63U, 64U, 63U}) {
    arrives(UINT32_MAX - behindTheLast);
  }
}

}  // namespace
}  // namespace tessel
