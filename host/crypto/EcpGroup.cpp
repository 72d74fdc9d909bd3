// The ECP groups: multiplication of points of the NIST curves.
#include <utility>

#include <openssl/obj_mac.h>

#include "host/crypto/DhGroup.h"

namespace tessel {
namespace {

using libcrypto::BigNum;
using libcrypto::BigNumContext;
using libcrypto::Curve;
using libcrypto::CurvePoint;
using libcrypto::MontgomeryContext;

int curveOf(DhGroupNum number) {
  switch (number) {
    case 19:
      return NID_X9_62_prime256v1;
    case 20:
      return NID_secp384r1;
    case 21:
      return NID_secp521r1;
    default:
      return NID_undef;
  }
}

/// y^2 = x^3 + ax + b over a prime field, with a cofactor of 1: every point but the point at
/// infinity, which has no encoding here, is as good as the generator.
class EcpGroup final : public DhGroup {
 public:
  explicit EcpGroup(int curve)
      : curve_(EC_GROUP_new_by_curve_name(curve)),
        prime_(BN_new()),
        a_(BN_new()),
        b_(BN_new()),
        montgomery_(BN_MONT_CTX_new()) {
    const BigNumContext scratch(BN_CTX_new());
    BigNum order(BN_new());
    if (!curve_ || !prime_ || !a_ || !b_ || !montgomery_ || !scratch || !order ||
        EC_GROUP_get_curve(curve_.get(), prime_.get(), a_.get(), b_.get(), scratch.get()) != 1 ||
        EC_GROUP_get_order(curve_.get(), order.get(), scratch.get()) != 1 ||
        BN_MONT_CTX_set(montgomery_.get(), prime_.get(), scratch.get()) != 1 ||
        !toMontgomery(a_, scratch) || !toMontgomery(b_, scratch)) {
      return;
    }
    const int bits = BN_num_bits(order.get());
    const auto coordinateLen = static_cast<size_t>(BN_num_bytes(prime_.get()));
    sizesAre(2 * coordinateLen, coordinateLen, bits, std::move(order));
  }

  bool isPublicKeyValid(BytesView key) const override {
    if (key.size() != publicKeyLen()) {
      return false;
    }
    const BigNum x = numberOf(key.first(sharedSecretLen()));
    const BigNum y = numberOf(key.last(sharedSecretLen()));
    return x && y && BN_cmp(x.get(), prime_.get()) < 0 && BN_cmp(y.get(), prime_.get()) < 0 &&
           isOnCurve(x, y);
  }

  bool publicKey(const BIGNUM* privateKey, Bytes* out) const override {
    const BigNumContext scratch(BN_CTX_new());
    const CurvePoint point(EC_POINT_new(curve_.get()));
    const BigNum x(BN_new());
    const BigNum y(BN_new());
    Bytes key(publicKeyLen());
    if (!scratch || !point || !x || !y ||
        EC_POINT_mul(curve_.get(), point.get(), privateKey, nullptr, nullptr, scratch.get()) != 1 ||
        EC_POINT_get_affine_coordinates(curve_.get(), point.get(), x.get(), y.get(),
                                        scratch.get()) != 1 ||
        !putCoordinate(x, key.data()) || !putCoordinate(y, key.data() + sharedSecretLen())) {
      return false;
    }
    *out = std::move(key);
    return true;
  }

  bool sharedSecret(const BIGNUM* privateKey, BytesView peerKey, SecretBytes* out) const override {
    const BigNumContext scratch(BN_CTX_new());
    const CurvePoint point(EC_POINT_new(curve_.get()));
    const CurvePoint product(EC_POINT_new(curve_.get()));
    const BigNum x = numberOf(peerKey.first(sharedSecretLen()));
    const BigNum y = numberOf(peerKey.last(sharedSecretLen()));
    SecretBytes secret(sharedSecretLen());
    if (!scratch || !point || !product || !x || !y ||
        EC_POINT_set_affine_coordinates(curve_.get(), point.get(), x.get(), y.get(),
                                        scratch.get()) != 1 ||
        EC_POINT_mul(curve_.get(), product.get(), nullptr, point.get(), privateKey,
                     scratch.get()) != 1 ||
        EC_POINT_get_affine_coordinates(curve_.get(), product.get(), x.get(), nullptr,
                                        scratch.get()) != 1 ||
        !putCoordinate(x, secret.data())) {
      return false;
    }
    *out = std::move(secret);
    return true;
  }

 private:
  bool toMontgomery(const BigNum& number, const BigNumContext& scratch) const {
    return BN_to_montgomery(number.get(), number.get(), montgomery_.get(), scratch.get()) == 1;
  }

  /// a = a * b in the field, in Montgomery form.
  bool multiply(const BigNum& a, const BigNum& b, const BigNumContext& scratch) const {
    return BN_mod_mul_montgomery(a.get(), a.get(), b.get(), montgomery_.get(), scratch.get()) == 1;
  }

  bool add(const BigNum& a, const BigNum& b) const {
    return BN_mod_add_quick(a.get(), a.get(), b.get(), prime_.get()) == 1;
  }

  /// Whether y^2 = (x^2 + a) * x + b. Overwrites `y`.
  bool isOnCurve(const BigNum& x, const BigNum& y) const {
    const BigNumContext scratch(BN_CTX_new());
    if (!scratch || !toMontgomery(x, scratch) || !toMontgomery(y, scratch)) {
      return false;
    }
    const BigNum right(BN_dup(x.get()));
    return right && multiply(right, x, scratch) && add(right, a_) && multiply(right, x, scratch) &&
           add(right, b_) && multiply(y, y, scratch) && BN_cmp(y.get(), right.get()) == 0;
  }

  bool putCoordinate(const BigNum& number, uint8_t* out) const {
    return BN_bn2binpad(number.get(), out, static_cast<int>(sharedSecretLen())) > 0;
  }

  Curve curve_;
  BigNum prime_;
  // The curve's coefficients in Montgomery form.
  BigNum a_;
  BigNum b_;
  MontgomeryContext montgomery_;
};

}  // namespace

std::unique_ptr<DhGroup> makeEcpGroup(DhGroupNum number) {
  const int curve = curveOf(number);
  return curve != NID_undef ? std::make_unique<EcpGroup>(curve) : nullptr;
}

}  // namespace tessel
