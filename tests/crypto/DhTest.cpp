// Diffie-Hellman: as an object (what it draws, keeps, forgets and refuses), and against values that
// this project did not make and the Python reference.
#include <algorithm>
#include <deque>
#include <map>

#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/RandomSource.h"
#include "tests/crypto/Vectors.h"

namespace tessel::test {
namespace {

/// Fills each draw with the next byte value of a script; fails when the script is at its end.
class ScriptedSource final : public RandomSource {
 public:
  explicit ScriptedSource(std::deque<uint8_t> script) : script_(std::move(script)) {}
  bool fill(std::span<uint8_t> out) override {
    if (script_.empty()) {
      return false;
    }
    std::ranges::fill(out, script_.front());
    script_.pop_front();
    return true;
  }
  size_t left() const { return script_.size(); }

 private:
  std::deque<uint8_t> script_;
};

class Dh : public ::testing::Test {
 protected:
  ~Dh() override { RandomSource::currentIs(nullptr); }

  static Ptr<ScriptedSource> scripted(std::deque<uint8_t> script) {
    auto source = makePtr<ScriptedSource>(std::move(script));
    RandomSource::currentIs(source);
    return source;
  }
};

TEST_F(Dh, FreshKeysOfEveryGroupHaveTheirLengthAndBelongTogether) {
  RandomSource::currentIs(makePtr<SeededRandomSource>(11));
  const std::map<DhGroupNum, size_t> privateKeyLens = {{1, 24},  {2, 24},  {5, 24},  {14, 32},
                                                       {15, 40}, {16, 48}, {17, 48}, {19, 32},
                                                       {20, 48}, {21, 66}, {24, 32}};
  for (const auto& [group, privateKeyLen] : privateKeyLens) {
    SCOPED_TRACE(group);
    IpsecDHGeneral fresh(group);
    IpsecDHGeneral given(group);
    Bytes key;
    Bytes computed;
    SecretBytes privateKey;
    ASSERT_TRUE(fresh.initIpsecDH() && given.initIpsecDH());
    ASSERT_TRUE(fresh.getMyPublicKey(&key) && fresh.getMyPrivateKey(&privateKey));
    ASSERT_TRUE(given.setMyPrivateKey(privateKey) && given.getMyPublicKey(&computed));
    EXPECT_EQ(computed, key);
    EXPECT_EQ(privateKey.size(), privateKeyLen);
    EXPECT_FALSE(fresh.setPeerPublicKey(key));
  }
}

TEST_F(Dh, UnusableGroupsFailInEveryOperation) {
  for (const DhGroupNum group : {0U, 3U, 4U, 6U, 13U, 18U, 22U, 23U, 25U, 31U, 0xFFFFFFFFU}) {
    SCOPED_TRACE(group);
    IpsecDHGeneral dh(group);
    Bytes key;
    SecretBytes secret;
    EXPECT_FALSE(dh.initIpsecDH());
    EXPECT_FALSE(dh.getMyPublicKey(&key));
    EXPECT_FALSE(dh.getMyPrivateKey(&secret));
    EXPECT_FALSE(dh.setMyPrivateKey(SecretBytes(Bytes{7})));
    EXPECT_FALSE(dh.setPeerPublicKey(Bytes(64, 2)));
    EXPECT_FALSE(dh.getSharedSecret(&secret));
  }
}

TEST_F(Dh, PrivateKeysAreNumbersFromOneToTheOrderMinusOne) {
  const Bytes order = fromHex("FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551");
  const Bytes below = fromHex("FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632550");
  const Bytes padded = fromHex(std::string(70, '0') + "01");
  const std::vector<std::pair<Bytes, bool>> cases = {
      {{}, false},   {{0}, false},   {Bytes(32, 0), false},    {order, false},       {{1}, true},
      {below, true}, {padded, true}, {Bytes(32, 0xFF), false}, {Bytes(33, 1), false}};
  for (const auto& [key, valid] : cases) {
    IpsecDHGeneral dh(19);
    ASSERT_TRUE(dh.initIpsecDH());
    EXPECT_EQ(dh.setMyPrivateKey(SecretBytes(key)), valid) << key.size() << " bytes";
  }
}

TEST_F(Dh, FreshKeysAreDrawnWhenAskedForAndOnlyInRange) {
  IpsecDHGeneral dh(19);
  Bytes key;
  SecretBytes privateKey;
  scripted({});
  EXPECT_TRUE(dh.initIpsecDH());
  EXPECT_FALSE(dh.getMyPublicKey(&key));

  // All ones exceeds the curve's order and zero is no key; the third draw is taken, and kept.
  const Ptr<ScriptedSource> source = scripted({0xFF, 0, 0x55, 0x66});
  ASSERT_TRUE(dh.getMyPrivateKey(&privateKey));
  EXPECT_TRUE(dh.getMyPublicKey(&key));
  EXPECT_EQ(plain(privateKey), Bytes(32, 0x55));
  EXPECT_EQ(source->left(), 1U);

  ASSERT_TRUE(dh.initIpsecDH() && dh.getMyPrivateKey(&privateKey));
  EXPECT_EQ(plain(privateKey), Bytes(32, 0x66));

  // An order of 521 bits: the draw's spare bits are not used.
  IpsecDHGeneral wide(21);
  scripted({0x55});
  ASSERT_TRUE(wide.initIpsecDH() && wide.getMyPrivateKey(&privateKey));
  EXPECT_EQ(privateKey.data()[0], 0x01);

  // A source that never gives a usable number is given up.
  scripted(std::deque<uint8_t>(1000, 0));
  EXPECT_TRUE(dh.initIpsecDH());
  EXPECT_FALSE(dh.getMyPrivateKey(&privateKey));
}

TEST_F(Dh, AKeptObjectServesManyPeersAndNeverWithAStaleKey) {
  RandomSource::currentIs(makePtr<SeededRandomSource>(12));
  IpsecDHGeneral kept(19);
  Bytes ownKey;
  SecretBytes privateKey;
  ASSERT_TRUE(kept.initIpsecDH() && kept.getMyPublicKey(&ownKey));
  ASSERT_TRUE(kept.getMyPrivateKey(&privateKey));
  SecretBytes secret;
  EXPECT_FALSE(kept.getSharedSecret(&secret));

  IpsecDHGeneral other(19);
  Bytes peerKey;
  SecretBytes expected;
  for (int peer = 0; peer < 3; ++peer) {
    ASSERT_TRUE(other.initIpsecDH() && other.getMyPublicKey(&peerKey));
    ASSERT_TRUE(other.setPeerPublicKey(ownKey) && other.getSharedSecret(&expected));
    ASSERT_TRUE(kept.setPeerPublicKey(peerKey) && kept.getSharedSecret(&secret));
    EXPECT_TRUE(secret == expected);
  }

  // A refused peer, and the start of another exchange, leave nothing of the peer before.
  EXPECT_FALSE(kept.setPeerPublicKey({}) || kept.getSharedSecret(&secret));
  ASSERT_TRUE(kept.setPeerPublicKey(peerKey) && kept.setMyPrivateKey(privateKey));
  EXPECT_FALSE(kept.getSharedSecret(&secret));

  // Another private key has another public key.
  Bytes otherKey;
  ASSERT_TRUE(kept.setMyPrivateKey(SecretBytes(Bytes{7})) && kept.getMyPublicKey(&otherKey));
  EXPECT_NE(otherKey, ownKey);
}

TEST_F(Dh, GivenKeysDrawNothingAndAGivenPublicKeyIsTakenAsOurs) {
  scripted({});
  const auto& agreement = reference().at("agreements").at(0);
  const SecretBytes privateKey(bytesAt(agreement.at("east"), "privateKey"));
  const Bytes marker = bytesAt(agreement.at("west"), "publicKey");
  IpsecDHGeneral dh(agreement.at("group"));
  SecretBytes secret;
  Bytes key;
  ASSERT_TRUE(dh.initIpsecDH());
  ASSERT_TRUE(dh.setMyPrivateKey(privateKey) && dh.setPeerPublicKey(marker));
  ASSERT_TRUE(dh.getSharedSecret(&secret));
  EXPECT_EQ(plain(secret), bytesAt(agreement, "sharedSecret"));

  ASSERT_TRUE(dh.initIpsecDH());
  EXPECT_FALSE(dh.setMyPrivateKey(privateKey, Bytes(5, 1)));
  ASSERT_TRUE(dh.setMyPrivateKey(privateKey, marker));
  // The same private key again is the same pair.
  ASSERT_TRUE(dh.setMyPrivateKey(privateKey));
  ASSERT_TRUE(dh.getMyPublicKey(&key));
  EXPECT_EQ(key, marker);
  EXPECT_FALSE(dh.setPeerPublicKey(marker));
}

struct Outcome {
  Bytes publicKey;
  bool peerAccepted = false;
  Bytes secret;
};

/// What a router with that private key makes of that peer; no public key when it refuses its own.
Outcome agree(DhGroupNum group, BytesView privateKey, BytesView peerKey) {
  IpsecDHGeneral dh(group);
  Outcome outcome;
  SecretBytes secret;
  EXPECT_TRUE(dh.initIpsecDH());
  if (dh.setMyPrivateKey(SecretBytes(privateKey))) {
    EXPECT_TRUE(dh.getMyPublicKey(&outcome.publicKey));
  }
  outcome.peerAccepted = dh.setPeerPublicKey(peerKey);
  EXPECT_EQ(dh.getSharedSecret(&secret), outcome.peerAccepted);
  outcome.secret = plain(secret);
  return outcome;
}

/// x and y at that length: CAVP pads the numbers of P-521 to whole words.
Bytes pointOf(const Vector& vector, const std::string& name, size_t length) {
  Bytes point;
  for (const char* part : {"x", "y"}) {
    const Bytes number = bytesAt(vector, name + part);
    point.insert(point.end(), number.end() - static_cast<ptrdiff_t>(length), number.end());
  }
  return point;
}

/// x and y of an uncompressed point; anything else as it stands.
Bytes withoutForm(Bytes point) {
  if (!point.empty() && point.front() == 4) {
    point.erase(point.begin());
  }
  return point;
}

DhGroupNum groupOf(const std::string& curve) {
  static const std::map<std::string, DhGroupNum> groups = {
      {"P-256", 19},       {"P-384", 20},       {"P-521", 21},
      {"EC - SHA256", 19}, {"ED - SHA384", 20}, {"EE - SHA512", 21}};
  return groups.at(curve);
}

TEST(DhVectors, ReferenceAgreementsOfEveryGroupIncludingLeadingZeros) {
  ASSERT_EQ(reference().at("agreements").size(), 33U);
  for (const auto& agreement : reference().at("agreements")) {
    for (const auto& [self, other] : {std::pair{"east", "west"}, {"west", "east"}}) {
      SCOPED_TRACE(agreement.at("name").get<std::string>() + ", seen from " + self);
      const Outcome outcome =
          agree(agreement.at("group"), bytesAt(agreement.at(self), "privateKey"),
                bytesAt(agreement.at(other), "publicKey"));
      EXPECT_EQ(outcome.publicKey, bytesAt(agreement.at(self), "publicKey"));
      EXPECT_EQ(outcome.secret, bytesAt(agreement, "sharedSecret"));
    }
  }
}

TEST(DhVectors, PeerKeysAreAcceptedAndRefusedAsTheReferenceSays) {
  for (const auto& keys : reference().at("groups")) {
    const DhGroupNum group = keys.at("group");
    const auto own = std::ranges::find_if(reference().at("agreements"), [&](const auto& agreement) {
      return agreement.at("group") == group;
    });
    for (const bool accepted : {true, false}) {
      for (const auto& key : keys.at(accepted ? "acceptedKeys" : "refusedKeys")) {
        EXPECT_EQ(
            agree(group, bytesAt(own->at("east"), "privateKey"), bytesAt(key, "key")).peerAccepted,
            accepted)
            << "group " << group << ": " << key.at("what");
      }
    }
  }
}

// Both neighbours of p - 1 pin the prime itself.
TEST(DhVectors, Rfc3526Primes) {
  const std::vector<DhGroupNum> groups = {5, 14, 15, 16, 17};
  const std::vector<Vector> vectors = readVectors("rfc3526.txt");
  ASSERT_EQ(vectors.size(), groups.size());
  for (size_t i = 0; i < groups.size(); ++i) {
    Bytes key = bytesAt(vectors[i], "P");
    for (const auto& [subtracted, accepted] : {std::pair{0, false}, {1, false}, {2, true}}) {
      key.back() = static_cast<uint8_t>(0xFF - subtracted);
      EXPECT_EQ(agree(groups[i], Bytes{7}, key).peerAccepted, accepted)
          << "group " << groups[i] << ", p - " << subtracted;
    }
  }
}

TEST(DhVectors, Rfc5114Group24) {
  const std::vector<Vector> vectors = readVectors("rfc5114.txt");
  ASSERT_EQ(vectors.size(), 1U);
  const Vector& v = vectors.front();
  for (const auto& [self, other] : {std::pair{"IUT", "CAVS"}, {"CAVS", "IUT"}}) {
    const Outcome outcome = agree(24, bytesAt(v, std::string("Xstat") + self),
                                  bytesAt(v, std::string("Ystat") + other));
    EXPECT_EQ(outcome.publicKey, bytesAt(v, std::string("Ystat") + self));
    EXPECT_EQ(outcome.secret, bytesAt(v, "Z"));
  }
}

// NIST's validity test: a refused case has a bad point of the peer's (1, 2), or a value of our side
// that does not belong to the others (5 to 8).
TEST(DhVectors, CavpEcdhValidity) {
  std::map<char, int> seen;
  for (const Vector& v : readVectors("cavp_ecdh_validity.txt")) {
    SCOPED_TRACE(v.at("section") + ", COUNT = " + v.at("COUNT") + ": " + v.at("Result"));
    const std::string& result = v.at("Result");
    const Bytes secret = bytesAt(v, "Z");
    const Outcome outcome =
        agree(groupOf(v.at("section")), bytesAt(v, "dsIUT"), pointOf(v, "QsCAVS", secret.size()));
    const bool consistent =
        outcome.publicKey == pointOf(v, "QsIUT", secret.size()) && outcome.secret == secret;
    EXPECT_EQ(outcome.peerAccepted, !result.starts_with("F (1 ") && !result.starts_with("F (2 "));
    EXPECT_EQ(consistent, result.starts_with('P'));
    ++seen[result.front()];
  }
  EXPECT_EQ(seen, (std::map<char, int>{{'F', 36}, {'P', 54}}));
}

// RFC 5903, NIST's component test, malformed and misplaced points. There they have the form byte
// that IKEv2 leaves out, so the points that lack it there are well formed here.
TEST(DhVectors, AgreementsAndMalformedPoints) {
  std::map<bool, int> seen;
  for (const std::string file :
       {"rfc5903_521.txt", "ring_agreement_tests.txt", "ring_public_key_tests.txt"}) {
    for (const Vector& v : readVectors(file)) {
      const std::string verdict = v.contains("Result")  ? v.at("Result")
                                  : v.contains("Error") ? "F " + v.at("Error")
                                                        : "P";
      SCOPED_TRACE(file + ", " + v.at("Curve") + ": " + verdict);
      const bool valid = verdict.starts_with('P') ||
                         verdict.find("missing the encoding indicator") != std::string::npos;
      const Outcome outcome =
          agree(groupOf(v.at("Curve")), v.contains("D") ? bytesAt(v, "D") : Bytes{7},
                withoutForm(bytesAt(v, v.contains("Q") ? "Q" : "PeerQ")));
      EXPECT_EQ(outcome.peerAccepted, valid);
      if (v.contains("Output")) {
        EXPECT_EQ(outcome.publicKey, withoutForm(bytesAt(v, "MyQ")));
        EXPECT_EQ(outcome.secret, bytesAt(v, "Output"));
      }
      ++seen[valid];
    }
  }
  EXPECT_EQ(seen, (std::map<bool, int>{{false, 89}, {true, 65}}));
}

}  // namespace
}  // namespace tessel::test
