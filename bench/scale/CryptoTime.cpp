#include "bench/scale/CryptoTime.h"

#include <ctime>

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace tessel::bench {

namespace {

uint64_t spent = 0;

class Timer {
 public:
  Timer() : start_(ticks()) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer() { spent += ticks() - start_; }

 private:
  uint64_t start_;
};

}  // namespace

uint64_t ticks() {
#ifdef __x86_64__
  return __builtin_ia32_rdtsc();
#else
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000000U + static_cast<uint64_t>(time.tv_nsec);
#endif
}

uint64_t cryptoTicks() {
  return spent;
}

}  // namespace tessel::bench

// CMakeLists.txt lists the same functions for the linker.
#define TESSEL_TIMED(result, name, parameters, arguments) \
  extern "C" result __real_##name parameters;             \
  extern "C" result __wrap_##name parameters;             \
  extern "C" result __wrap_##name parameters {            \
    const tessel::bench::Timer timer;                     \
    return __real_##name arguments;                       \
  }                                                       \
  static_assert(true, "swallows the semicolon")

TESSEL_TIMED(int, EC_POINT_mul,
             (const EC_GROUP* group, EC_POINT* r, const BIGNUM* n, const EC_POINT* q,
              const BIGNUM* m, BN_CTX* context),
             (group, r, n, q, m, context));
TESSEL_TIMED(int, EC_POINT_set_affine_coordinates,
             (const EC_GROUP* group, EC_POINT* point, const BIGNUM* x, const BIGNUM* y,
              BN_CTX* context),
             (group, point, x, y, context));
TESSEL_TIMED(int, EC_POINT_get_affine_coordinates,
             (const EC_GROUP* group, const EC_POINT* point, BIGNUM* x, BIGNUM* y, BN_CTX* context),
             (group, point, x, y, context));
TESSEL_TIMED(int, BN_mod_exp_mont_consttime,
             (BIGNUM * r, const BIGNUM* base, const BIGNUM* exponent, const BIGNUM* modulus,
              BN_CTX* context, BN_MONT_CTX* montgomery),
             (r, base, exponent, modulus, context, montgomery));
TESSEL_TIMED(int, BN_mod_mul_montgomery,
             (BIGNUM * r, const BIGNUM* a, const BIGNUM* b, BN_MONT_CTX* montgomery,
              BN_CTX* context),
             (r, a, b, montgomery, context));
TESSEL_TIMED(int, EVP_MAC_init,
             (EVP_MAC_CTX * context, const unsigned char* key, size_t length,
              const OSSL_PARAM params[]),
             (context, key, length, params));
TESSEL_TIMED(int, EVP_MAC_update, (EVP_MAC_CTX * context, const unsigned char* data, size_t length),
             (context, data, length));
TESSEL_TIMED(int, EVP_MAC_final,
             (EVP_MAC_CTX * context, unsigned char* out, size_t* length, size_t size),
             (context, out, length, size));
TESSEL_TIMED(EVP_MAC_CTX*, EVP_MAC_CTX_dup, (const EVP_MAC_CTX* context), (context));
TESSEL_TIMED(void, EVP_MAC_CTX_free, (EVP_MAC_CTX * context), (context));
TESSEL_TIMED(int, RAND_bytes, (unsigned char* out, int size), (out, size));
