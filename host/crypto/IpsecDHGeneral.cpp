#include "host/crypto/IpsecDHGeneral.h"

#include <algorithm>

#include "host/crypto/DhGroup.h"

namespace tessel {

bool IpsecDHGeneral::initIpsecDH() {
  group_ = DhGroup::find(groupNum_);
  privateKey_ = SecretBytes();
  publicKey_.clear();
  peerPublicKey_.clear();
  return group_ != nullptr;
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
  if (group_ == nullptr || !group_->privateNumber(key.view()) ||
      (!publicKey.empty() && publicKey.size() != group_->publicKeyLen())) {
    return false;
  }
  const bool known = key.size() == privateKey_.size() &&
                     CRYPTO_memcmp(key.data(), privateKey_.data(), key.size()) == 0;
  if (!known) {
    privateKey_ = key;
    publicKey_.clear();
  }
  if (publicKey_.empty()) {
    publicKey_.assign(publicKey.begin(), publicKey.end());
  }
  peerPublicKey_.clear();
  return true;
}

bool IpsecDHGeneral::setPeerPublicKey(BytesView key) {
  peerPublicKey_.clear();
  if (group_ == nullptr || !group_->isPublicKeyValid(key) || !ensurePublicKey() || isOwnKey(key)) {
    return false;
  }
  peerPublicKey_.assign(key.begin(), key.end());
  return true;
}

bool IpsecDHGeneral::getSharedSecret(SecretBytes* secret) {
  if (peerPublicKey_.empty()) {
    return false;
  }
  const libcrypto::BigNum privateNumber = group_->privateNumber(privateKey_.view());
  return privateNumber && group_->sharedSecret(privateNumber.get(), peerPublicKey_, secret);
}

bool IpsecDHGeneral::ensurePrivateKey() {
  if (privateKey_.empty() && group_ != nullptr) {
    privateKey_ = group_->randomPrivateKey();
  }
  return !privateKey_.empty();
}

bool IpsecDHGeneral::ensurePublicKey() {
  if (!publicKey_.empty()) {
    return true;
  }
  if (!ensurePrivateKey()) {
    return false;
  }
  const libcrypto::BigNum privateNumber = group_->privateNumber(privateKey_.view());
  return privateNumber && group_->publicKey(privateNumber.get(), &publicKey_);
}

bool IpsecDHGeneral::isOwnKey(BytesView peerKey) const {
  const size_t decisive = group_->sharedSecretLen();
  return std::ranges::equal(peerKey.first(decisive), BytesView(publicKey_).first(decisive));
}

}  // namespace tessel
