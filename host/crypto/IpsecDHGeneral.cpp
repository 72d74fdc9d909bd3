#include "host/crypto/IpsecDHGeneral.h"

#include <algorithm>
#include <utility>

#include "host/crypto/DhGroup.h"

namespace tessel {

IpsecDHGeneral::IpsecDHGeneral(DhGroupNum group) : groupNum_(group) {}

IpsecDHGeneral::~IpsecDHGeneral() = default;

bool IpsecDHGeneral::initIpsecDH() {
  group_ = DhGroup::find(groupNum_);
  computation_ = group_ != nullptr ? group_->computation() : nullptr;
  privateKey_ = SecretBytes();
  publicKey_.clear();
  peerKeySet_ = false;
  return computation_ != nullptr;
}

bool IpsecDHGeneral::getMyPublicKey(Bytes* key) {
  if (!ensurePublicKey()) {
    return false;
  }
  *key = publicKey_;
  return true;
}

bool IpsecDHGeneral::getMyPrivateKey(SecretBytes* key) {
  if (!ensurePrivateKey()) {
    return false;
  }
  *key = privateKey_;
  return true;
}

bool IpsecDHGeneral::setMyPrivateKey(const SecretBytes& key, BytesView publicKey) {
  if (!computation_ || (!publicKey.empty() && publicKey.size() != group_->publicKeyLen())) {
    return false;
  }
  const bool known = key.size() == privateKey_.size() &&
                     CRYPTO_memcmp(key.data(), privateKey_.data(), key.size()) == 0;
  if (!known || key.empty()) {
    if (!takePrivateKey(key)) {
      return false;
    }
    publicKey_.clear();
  }
  if (publicKey_.empty()) {
    publicKey_.assign(publicKey.begin(), publicKey.end());
  }
  peerKeySet_ = false;
  return true;
}

bool IpsecDHGeneral::setPeerPublicKey(BytesView key) {
  peerKeySet_ =
      computation_ && computation_->setPeerKey(key) && ensurePublicKey() && !isOwnKey(key);
  return peerKeySet_;
}

bool IpsecDHGeneral::getSharedSecret(SecretBytes* secret) {
  return peerKeySet_ && computation_->sharedSecret(secret);
}

bool IpsecDHGeneral::ensurePrivateKey() {
  return !privateKey_.empty() || (computation_ && takePrivateKey(group_->randomPrivateKey()));
}

bool IpsecDHGeneral::ensurePublicKey() {
  return !publicKey_.empty() || (ensurePrivateKey() && computation_->publicKey(&publicKey_));
}

/// False for what is no private key of the group; nothing changes then.
bool IpsecDHGeneral::takePrivateKey(const SecretBytes& key) {
  libcrypto::BigNum number = group_->privateNumber(key.view());
  if (!number) {
    return false;
  }
  computation_->privateNumberIs(std::move(number));
  privateKey_ = key;
  return true;
}

bool IpsecDHGeneral::isOwnKey(BytesView peerKey) const {
  const size_t decisive = group_->sharedSecretLen();
  return std::ranges::equal(peerKey.first(decisive), BytesView(publicKey_).first(decisive));
}

}  // namespace tessel
