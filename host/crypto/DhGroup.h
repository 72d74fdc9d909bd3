// DhGroup: the parameters of one Diffie-Hellman group, and the arithmetic in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "host/crypto/IpsecDHGeneral.h"
#include "host/crypto/Libcrypto.h"
#include "host/model/Bytes.h"

namespace tessel {

/// Arithmetic in a group with one private key and the key of one peer at a time. It goes straight
/// to libcrypto's numbers and points instead of its key objects: that leaves the checks of a peer's
/// key to us (a key object repeats them with a second exponentiation for MODP) and is faster by a
/// tenth for ECP 19. What it computes with is allocated once and wiped when it is released. Every
/// operation on the private key takes constant time. Not for several threads at once.
class DhComputation {
 public:
  virtual ~DhComputation() = default;
  DhComputation(const DhComputation&) = delete;
  DhComputation& operator=(const DhComputation&) = delete;

  /// Our private key, as `DhGroup::privateNumber` makes it. The others need one.
  void privateNumberIs(libcrypto::BigNum number) { privateNumber_ = std::move(number); }

  /// The public key of our private one. False when libcrypto fails.
  virtual bool publicKey(Bytes* out) = 0;
  /// Takes a public key if it is one that a peer may send: exact length, and an element of the
  /// group that is safe to compute with.
  virtual bool setPeerKey(BytesView key) = 0;
  /// The secret shared with the peer whose key was taken last, padded to its full length; not to be
  /// asked for before one was, nor after one was refused. False when libcrypto fails.
  virtual bool sharedSecret(SecretBytes* out) = 0;

 protected:
  DhComputation() = default;
  const BIGNUM* privateNumber() const { return privateNumber_.get(); }

 private:
  libcrypto::BigNum privateNumber_;
};

/// A group, made once per process, immutable and shared by all key pairs and threads.
class DhGroup {
 public:
  virtual ~DhGroup() = default;
  DhGroup(const DhGroup&) = delete;
  DhGroup& operator=(const DhGroup&) = delete;

  /// The group of that IANA number, null when there is none that can be used. Valid until the
  /// process ends.
  static const DhGroup* find(DhGroupNum number);

  /// Bytes of a public key in the encoding of IKEv2.
  size_t publicKeyLen() const { return publicKeyLen_; }
  /// Bytes of a shared secret; a public key's first part, of this length, alone decides the secret.
  size_t sharedSecretLen() const { return sharedSecretLen_; }
  /// Bytes of a private key of our own making.
  size_t privateKeyLen() const { return (static_cast<size_t>(privateKeyBits_) + 7) / 8; }

  /// A fresh private key of `privateKeyLen()` bytes from the process's random source; empty when
  /// the source fails.
  SecretBytes randomPrivateKey() const;
  /// The number of a private key, null unless it lies in [1, order - 1].
  libcrypto::BigNum privateNumber(BytesView key) const;

  /// Null when memory is short.
  virtual std::unique_ptr<DhComputation> computation() const = 0;

 protected:
  DhGroup() = default;
  /// Declares the group usable; `order` is the order of the subgroup of the generator.
  void sizesAre(size_t publicKeyLen, size_t sharedSecretLen, int privateKeyBits,
                libcrypto::BigNum order);
  const BIGNUM* order() const { return order_.get(); }

 private:
  size_t publicKeyLen_ = 0;
  size_t sharedSecretLen_ = 0;
  int privateKeyBits_ = 0;
  libcrypto::BigNum order_;
};

/// The group of that kind with that IANA number; null when there is none that can be used.
std::unique_ptr<DhGroup> makeModpGroup(DhGroupNum number);
std::unique_ptr<DhGroup> makeEcpGroup(DhGroupNum number);

}  // namespace tessel
