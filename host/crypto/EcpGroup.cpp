// The ECP groups: multiplication of points of the NIST curves.
#include <memory>
#include <utility>

#include <openssl/err.h>
#include <openssl/obj_mac.h>

#include "host/crypto/DhGroup.h"

namespace tessel {
namespace {

using libcrypto::BigNum;
using libcrypto::BigNumContext;
using libcrypto::Curve;
using libcrypto::CurvePoint;

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

class EcpComputation final : public DhComputation {
 public:
  EcpComputation(const EC_GROUP* curve, const BIGNUM* prime)
      : curve_(curve),
        prime_(prime),
        scratch_(BN_CTX_new()),
        peer_(EC_POINT_new(curve)),
        product_(EC_POINT_new(curve)),
        x_(BN_new()),
        y_(BN_new()) {}

  bool isComplete() const { return scratch_ && peer_ && product_ && x_ && y_; }

  bool publicKey(Bytes* out) override {
    Bytes key(2 * coordinateLen());
    if (EC_POINT_mul(curve_, product_.get(), privateNumber(), nullptr, nullptr, scratch_.get()) !=
            1 ||
        EC_POINT_get_affine_coordinates(curve_, product_.get(), x_.get(), y_.get(),
                                        scratch_.get()) != 1 ||
        !putCoordinate(x_, key.data()) || !putCoordinate(y_, key.data() + coordinateLen())) {
      return false;
    }
    *out = std::move(key);
    return true;
  }

  bool setPeerKey(BytesView key) override {
    return key.size() == 2 * coordinateLen() && readCoordinate(key.first(coordinateLen()), x_) &&
           readCoordinate(key.last(coordinateLen()), y_) && setPeerPoint();
  }

  bool sharedSecret(SecretBytes* out) override {
    SecretBytes secret(coordinateLen());
    if (EC_POINT_mul(curve_, product_.get(), nullptr, peer_.get(), privateNumber(),
                     scratch_.get()) != 1 ||
        EC_POINT_get_affine_coordinates(curve_, product_.get(), x_.get(), nullptr,
                                        scratch_.get()) != 1 ||
        !putCoordinate(x_, secret.data())) {
      return false;
    }
    *out = std::move(secret);
    return true;
  }

 private:
  size_t coordinateLen() const { return static_cast<size_t>(BN_num_bytes(prime_)); }

  bool readCoordinate(BytesView bytes, const BigNum& out) const {
    return BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), out.get()) != nullptr &&
           BN_cmp(out.get(), prime_) < 0;
  }

  bool putCoordinate(const BigNum& number, uint8_t* out) const {
    return BN_bn2binpad(number.get(), out, static_cast<int>(coordinateLen())) > 0;
  }

  /// Sets the point at (x, y) if it lies on the curve. What a peer sends leaves no error behind for
  /// others who use libcrypto in this thread.
  bool setPeerPoint() {
    ERR_set_mark();
    const bool isOnCurve = EC_POINT_set_affine_coordinates(curve_, peer_.get(), x_.get(), y_.get(),
                                                           scratch_.get()) == 1;
    ERR_pop_to_mark();
    return isOnCurve;
  }

  const EC_GROUP* curve_;
  const BIGNUM* prime_;
  BigNumContext scratch_;
  CurvePoint peer_;
  CurvePoint product_;
  BigNum x_;
  BigNum y_;
};

/// A curve over a prime field with a cofactor of 1: every point but the point at infinity, which
/// has no encoding here, is as good as the generator.
class EcpGroup final : public DhGroup {
 public:
  explicit EcpGroup(int curve) : curve_(EC_GROUP_new_by_curve_name(curve)), prime_(BN_new()) {
    BigNum order(BN_new());
    if (!curve_ || !prime_ || !order ||
        EC_GROUP_get_curve(curve_.get(), prime_.get(), nullptr, nullptr, nullptr) != 1 ||
        EC_GROUP_get_order(curve_.get(), order.get(), nullptr) != 1) {
      return;
    }
    const int bits = BN_num_bits(order.get());
    const auto coordinateLen = static_cast<size_t>(BN_num_bytes(prime_.get()));
    sizesAre(2 * coordinateLen, coordinateLen, bits, std::move(order));
  }

  std::unique_ptr<DhComputation> computation() const override {
    auto made = std::make_unique<EcpComputation>(curve_.get(), prime_.get());
    return made->isComplete() ? std::move(made) : nullptr;
  }

 private:
  Curve curve_;
  BigNum prime_;
};

}  // namespace

std::unique_ptr<DhGroup> makeEcpGroup(DhGroupNum number) {
  const int curve = curveOf(number);
  return curve != NID_undef ? std::make_unique<EcpGroup>(curve) : nullptr;
}

}  // namespace tessel
