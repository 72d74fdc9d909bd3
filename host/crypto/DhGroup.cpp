#include "host/crypto/DhGroup.h"

#include <map>
#include <mutex>
#include <utility>

#include "host/crypto/RandomSource.h"

namespace tessel {

const DhGroup* DhGroup::find(DhGroupNum number) {
  static std::mutex mutex;
  static auto& groups = *new std::map<DhGroupNum, std::unique_ptr<DhGroup>>;
  const std::lock_guard lock(mutex);
  if (const auto found = groups.find(number); found != groups.end()) {
    return found->second.get();
  }
  std::unique_ptr<DhGroup> group = makeModpGroup(number);
  if (!group) {
    group = makeEcpGroup(number);
  }
  if (!group || !group->order_) {
    return nullptr;  // Not remembered: the number can be anything that a peer makes up.
  }
  return (groups[number] = std::move(group)).get();
}

SecretBytes DhGroup::randomPrivateKey() const {
  // A draw of the order's length is in range with a chance of a half or better, so a sound source
  // fails this often with a chance below 2^-128.
  constexpr int maxDraws = 128;
  const auto topMask =
      static_cast<uint8_t>(0xFF >> (8 * privateKeyLen() - size_t(privateKeyBits_)));
  const Ptr<RandomSource> source = RandomSource::current();
  SecretBytes key(privateKeyLen());
  for (int draw = 0; draw < maxDraws && source->fill(key.span()); ++draw) {
    *key.data() &= topMask;
    if (privateNumber(key.view())) {
      return key;
    }
  }
  return SecretBytes();
}

libcrypto::BigNum DhGroup::privateNumber(BytesView key) const {
  libcrypto::BigNum number(BN_bin2bn(key.data(), static_cast<int>(key.size()), nullptr));
  if (!number || BN_is_zero(number.get()) || BN_cmp(number.get(), order_.get()) >= 0) {
    return nullptr;
  }
  BN_set_flags(number.get(), BN_FLG_CONSTTIME);
  return number;
}

void DhGroup::sizesAre(size_t publicKeyLen, size_t sharedSecretLen, int privateKeyBits,
                       libcrypto::BigNum order) {
  publicKeyLen_ = publicKeyLen;
  sharedSecretLen_ = sharedSecretLen;
  privateKeyBits_ = privateKeyBits;
  order_ = std::move(order);
}

}  // namespace tessel
