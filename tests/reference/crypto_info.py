#!/usr/bin/env python3
# Independent calculation of the key derivation between two routers, "east" and "west".
#
#     crypto_info.py          prints the JSON document that is kept as tests/vectors/crypto_info.json
#     crypto_info.py --check  compares with the kept document; exit status 1 when they differ
#
# Everything is done with plain integers, hashlib and hmac, from the formulas of the RFCs: no group
# parameter and no code is shared with the program under test. All keys come from fixed labels.
#
# The document (byte strings are hex; lengths that end in Len are bits):
#
#   groups[]      group, acceptedKeys[] and refusedKeys[] of {what, key}: public keys as a peer might
#                 send them to east of the agreement "group <n>"
#   agreements[]  name, group, east and west {privateKey, publicKey}, sharedSecret; three per group: one
#                 ordinary, two with leading zeros, in the secret and in east's public key
#   cases[]       agreement (its name), eastNonce, westNonce, initiator, sas ("peer": the nonces are those
#                 of the key generations and decide the initiator; "path": those of an SA rekey, and the
#                 initiator is given), encryptAlgo and hashAlgo (codes), fullNonce, seedKey, stream (all
#                 that is read from prf+), and the CryptoInfo record of east and of west. A code that no
#                 table has leaves the algorithm name as it was; the records take that to be empty.
#   prfPlus[]     hashAlgorithm (code), key, seed, length in bytes of the whole stream (255 blocks), and
#                 mac: prf(key, the whole stream), which stands for the bytes themselves


import hashlib
import hmac
import io
import json
import os
import sys

VECTORS = os.path.join(os.path.dirname(__file__), "..", "vectors")
KEPT = os.path.join(VECTORS, "crypto_info.json")


def fixed_bytes(label, length):
    return hashlib.shake_256(label.encode()).digest(length)


# --- Groups -----------------------------------------------------------------------------------------


def pi_scaled(bits):
    """floor(2^bits * pi) by Machin's formula, with guard bits."""
    one = 1 << (bits + 64)

    def arctan_of_inverse(x):
        total, power, n = 0, one // x, 1
        while power:
            total += power // n if n % 4 == 1 else -(power // n)
            power //= x * x
            n += 2
        return total

    return (4 * (4 * arctan_of_inverse(5) - arctan_of_inverse(239))) >> 64


class Modp:
    """Powers of a generator modulo a prime; group elements are integers."""

    def __init__(self, prime, generator, order, private_len):
        self.prime, self.generator, self.order = prime, generator, order
        self.private_len = private_len
        self.part_len = (prime.bit_length() + 7) // 8

    @classmethod
    def safe(cls, bits, offset, private_len):
        # RFC 2409 section 6, RFC 3526: p = 2^n - 2^(n - 64) - 1 + 2^64 * (floor(2^(n - 130) pi) + k)
        prime = 2**bits - 2 ** (bits - 64) - 1 + 2**64 * (pi_scaled(bits - 130) + offset)
        return cls(prime, 2, (prime - 1) // 2, private_len)

    def multiply(self, element, scalar):
        return pow(element, scalar, self.prime)

    def add(self, a, b):
        return a * b % self.prime

    def encode(self, element):
        return element.to_bytes(self.part_len, "big")

    def secret(self, element):
        return self.encode(element)

    def peer_keys(self, own):
        p, n = self.prime, self.part_len
        number = lambda value: value.to_bytes(n, "big")
        refused = {
            "zero": number(0),
            "one": number(1),
            "p - 1": number(p - 1),
            "p": number(p),
            "p + 2": number(p + 2),
            "all ones": b"\xff" * n,
            "one byte short": number(4)[1:],
            "one zero byte more": b"\0" + number(4),
            "empty": b"",
            "own key": self.encode(own),
        }
        if self.order.bit_length() < self.prime.bit_length() - 1:
            accepted = {"generator squared": number(self.generator**2 % p)}
            # Elements whose order is a multiple of q, or has nothing to do with it.
            refused["two"] = number(2)
            refused["p - 2"] = number(p - 2)
            refused["minus generator"] = number(p - self.generator)
            refused["order 2q"] = number(p - pow(self.generator, 12345, p))
        else:
            accepted = {"two": number(2), "p - 2": number(p - 2)}
        return accepted, refused


class Ecp:
    """y^2 = x^3 - 3x + b over a prime field; group elements are affine points."""

    def __init__(self, prime, *hex_parameters):
        self.prime = prime
        self.b, self.order, gx, gy = (int(text, 16) for text in hex_parameters)
        self.generator = (gx, gy)
        self.part_len = (prime.bit_length() + 7) // 8
        self.private_len = self.part_len
        assert self.is_on_curve(self.generator) and self.multiply(self.generator, self.order) is None

    def is_on_curve(self, point):
        x, y = point
        return (y * y - x * x * x + 3 * x - self.b) % self.prime == 0

    def add(self, a, b):
        p = self.prime
        if a is None:
            return b
        if b is None:
            return a
        if a[0] == b[0] and (a[1] + b[1]) % p == 0:
            return None
        if a == b:
            slope = (3 * a[0] * a[0] - 3) * pow(2 * a[1], -1, p) % p
        else:
            slope = (b[1] - a[1]) * pow(b[0] - a[0], -1, p) % p
        x = (slope * slope - a[0] - b[0]) % p
        return x, (slope * (a[0] - x) - a[1]) % p

    def multiply(self, element, scalar):
        result = None
        for bit in bin(scalar)[2:]:
            result = self.add(result, result)
            if bit == "1":
                result = self.add(result, element)
        return result

    def encode(self, element):
        return b"".join(part.to_bytes(self.part_len, "big") for part in element)

    def secret(self, element):
        return element[0].to_bytes(self.part_len, "big")

    def point_at(self, x):
        """The point with that x and an even y; None when the curve has none."""
        p = self.prime
        square = (x * x * x - 3 * x + self.b) % p
        y = pow(square, (p + 1) // 4, p)
        if y * y % p != square:
            return None
        return x, (y if y % 2 == 0 else p - y)

    def peer_keys(self, own):
        p, n = self.prime, self.part_len
        pair = lambda x, y: x.to_bytes(n, "big") + y.to_bytes(n, "big")
        gx, gy = self.generator
        twist_x = next(x for x in range(1, 99) if self.point_at(x) is None)
        small_x = next(x for x in range(0, 99) if self.point_at(x) is not None)
        small = self.point_at(small_x)
        accepted = {
            "generator": pair(gx, gy),
            "minus generator": pair(gx, p - gy),
            "smallest x on the curve": pair(*small),
        }
        refused = {
            "zeros": pair(0, 0),
            "y off by one": pair(gx, gy ^ 1),
            "x off by one": pair(gx ^ 1, gy),
            "x and y swapped": pair(gy, gx),
            "x of the twist": pair(twist_x, 1),
            "x + p": pair(small_x + p, small[1]),
            "x is p": pair(p, gy),
            "y is p": pair(gx, p),
            # Only P-521 has room for both; the others' generators are too large.
            **({"y + p": pair(gx, gy + p)} if gy + p < 256**n else {}),
            "all ones": b"\xff" * (2 * n),
            "form byte": b"\x04" + pair(gx, gy),
            "compressed": bytes([2 + gy % 2]) + gx.to_bytes(n, "big"),
            "x only": gx.to_bytes(n, "big"),
            "one byte short": pair(gx, gy)[:-1],
            "point at infinity": b"\0",
            "empty": b"",
            "own key": self.encode(own),
            "own key mirrored": pair(own[0], p - own[1]),
        }
        return accepted, refused


def group24():
    # RFC 5114 section 2.3
    with open(os.path.join(VECTORS, "rfc5114.txt"), encoding="ascii") as rfc:
        values = dict(line.split(" = ") for line in rfc if " = " in line)
    prime, generator, order = (int(values[name], 16) for name in "PGQ")
    assert (prime - 1) % order == 0 and pow(generator, order, prime) == 1
    return Modp(prime, generator, order, 32)


# FIPS 186-4 appendix D.1.2
P256 = 2**256 - 2**224 + 2**192 + 2**96 - 1
P384 = 2**384 - 2**128 - 2**96 + 2**32 - 1
P521 = 2**521 - 1

GROUPS = {
    1: Modp.safe(768, 149686, 24),
    2: Modp.safe(1024, 129093, 24),
    5: Modp.safe(1536, 741804, 24),
    14: Modp.safe(2048, 124476, 32),
    15: Modp.safe(3072, 1690314, 40),
    16: Modp.safe(4096, 240904, 48),
    17: Modp.safe(6144, 929484, 48),
    19: Ecp(
        P256,
        "5AC635D8AA3A93E7B3EBBD55769886BC651D06B0CC53B0F63BCE3C3E27D2604B",
        "FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551",
        "6B17D1F2E12C4247F8BCE6E563A440F277037D812DEB33A0F4A13945D898C296",
        "4FE342E2FE1A7F9B8EE7EB4A7C0F9E162BCE33576B315ECECBB6406837BF51F5",
    ),
    20: Ecp(
        P384,
        "B3312FA7E23EE7E4988E056BE3F82D19181D9C6EFE8141120314088F5013875AC656398D8A2ED19D2A85C8EDD3EC2AEF",
        "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFC7634D81F4372DDF581A0DB248B0A77AECEC196ACCC52973",
        "AA87CA22BE8B05378EB1C71EF320AD746E1D3B628BA79B9859F741E082542A385502F25DBF55296C3A545E3872760AB7",
        "3617DE4A96262C6F5D9E98BF9292DC29F8F41DBD289A147CE9DA3113B5F0B8C00A60B1CE1D7E819D7A431D7C90EA0E5F",
    ),
    21: Ecp(
        P521,
        "0051953EB9618E1C9A1F929A21A0B68540EEA2DA725B99B315F3B8B489918EF109E156193951EC7E937B1652C0BD"
        "3BB1BF073573DF883D2C34F1EF451FD46B503F00",
        "01FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFA51868783BF2F966B7FCC0148"
        "F709A5D03BB5C9B8899C47AEBB6FB71E91386409",
        "00C6858E06B70404E9CD9E3ECB662395B4429C648139053FB521F828AF606B4D3DBAA14B5E77EFE75928FE1DC127"
        "A2FFA8DE3348B3C1856A429BF97E7E31C2E5BD66",
        "011839296A789A3BC0045C8A5FB42C7D1BD998F54449579B446817AFBD17273E662C97EE72995EF42640C550B901"
        "3FAD0761353C7086A272C24088BE94769FD16650",
    ),
    24: group24(),
}


def private_number(label, group):
    value = int.from_bytes(fixed_bytes(label, group.private_len), "big")
    return value % (group.order - 1) + 1


def agreement(name, number, wanted):
    """East takes the first private key, counting up from its label's, whose public key and secret
    please `wanted`."""
    group = GROUPS[number]
    west_private = private_number(f"{name} west", group)
    west = group.multiply(group.generator, west_private)
    east_private = private_number(f"{name} east", group)
    east = group.multiply(group.generator, east_private)
    secret = group.multiply(west, east_private)
    while not wanted(group.encode(east), group.secret(secret)):
        east_private += 1
        east = group.add(east, group.generator)
        secret = group.add(secret, west)
    assert group.multiply(east, west_private) == secret
    private_key = lambda value: value.to_bytes(group.private_len, "big").hex()
    return {
        "name": name,
        "group": number,
        "east": {"privateKey": private_key(east_private), "publicKey": group.encode(east).hex()},
        "west": {"privateKey": private_key(west_private), "publicKey": group.encode(west).hex()},
        "sharedSecret": group.secret(secret).hex(),
    }


def is_short(part, group):
    """Whether at least one byte of the encoding is zero that the prime has room to fill."""
    return int.from_bytes(part, "big") >> (group.prime.bit_length() // 8 * 8 - 8) == 0


def agreements():
    for number, group in GROUPS.items():
        # MODP has one part; of ECP it is x, and y in group 20.
        start = group.part_len if number == 20 else 0
        part = slice(start, start + group.part_len)
        for what, wanted in (
            ("", lambda public, secret: True),
            (", secret with leading zeros", lambda public, secret: is_short(secret, group)),
            (", public key with leading zeros", lambda public, secret: is_short(public[part], group)),
        ):
            yield agreement(f"group {number}{what}", number, wanted)


# --- Derivation -------------------------------------------------------------------------------------

HASHES = [hashlib.md5, hashlib.sha1, hashlib.sha256, hashlib.sha384, hashlib.sha512]

# Code: name, key length, truncation (bits)
INTEGRITY = {
    0: ("md5", 128, 0),
    1: ("sha1", 160, 0),
    2: ("hmac(sha256)", 256, 128),
    3: ("hmac(sha384)", 384, 192),
    4: ("hmac(sha512)", 512, 256),
}
# Code: name, key length with salt, ICV length (bits)
ENCRYPTION = {
    1: ("aes", 128, 0),
    2: ("rfc4106(gcm(aes))", 160, 64),
    3: ("rfc4106(gcm(aes))", 160, 128),
    4: ("rfc4106(gcm(aes))", 288, 128),
    5: ("aes", 256, 0),
    6: ("cipher_null", 0, 0),
    7: ("aes", 192, 0),
}


def prf(key, data, algorithm=4):
    return hmac.new(key, data, HASHES[algorithm]).digest()


def prf_plus(key, seed, algorithm=4):
    """The whole stream of RFC 7296 section 2.13."""
    blocks = [b""]
    for number in range(1, 256):
        blocks.append(prf(key, blocks[-1] + seed + bytes([number]), algorithm))
    return b"".join(blocks)


def case(agreed, east_nonce, west_nonce, encrypt_algo, hash_algo, initiator=None):
    sas = "path" if initiator else "peer"
    initiator = initiator or ("east" if east_nonce > west_nonce else "west")
    full = east_nonce + west_nonce if initiator == "east" else west_nonce + east_nonce
    seed_key = prf(full, bytes.fromhex(agreed["sharedSecret"]))

    auth_name, auth_len, trunc_len = INTEGRITY.get(hash_algo, ("", 0, 0))
    crypto_name, crypto_len, icv_len = ENCRYPTION.get(encrypt_algo, ("", 0, 0))
    lengths = [auth_len // 8, auth_len // 8, crypto_len // 8, crypto_len // 8, 4, 4]
    stream = prf_plus(seed_key, full)[: sum(lengths)]
    unread = io.BytesIO(stream)
    i1, i2, e1, e2, s1, s2 = (unread.read(length) for length in lengths)

    def record(is_initiator):
        ordered = lambda a, b: (a, b) if is_initiator else (b, a)
        integrity, encryption, spi = ordered(i1, i2), ordered(e1, e2), ordered(s1, s2)
        return {
            "firstEncryptionKey": encryption[0].hex(),
            "secondEncryptionKey": encryption[1].hex(),
            "cryptoKeyLen": crypto_len,
            "cryptoAlgoStr": crypto_name,
            "firstIntegrityKey": integrity[0].hex(),
            "secondIntegrityKey": integrity[1].hex(),
            "authKeyLen": auth_len,
            "authTruncLen": trunc_len,
            "authAlgoStr": auth_name,
            "icvLen": icv_len,
            "firstSpi": int.from_bytes(spi[0], "little"),
            "secondSpi": int.from_bytes(spi[1], "little"),
        }

    return {
        "agreement": agreed["name"],
        "eastNonce": east_nonce.hex(),
        "westNonce": west_nonce.hex(),
        "initiator": initiator,
        "sas": sas,
        "encryptAlgo": encrypt_algo,
        "hashAlgo": hash_algo,
        "fullNonce": full.hex(),
        "seedKey": seed_key.hex(),
        "stream": stream.hex(),
        "east": record(initiator == "east"),
        "west": record(initiator == "west"),
    }


def ordered_nonces(label, east_is_higher):
    low, high = sorted(fixed_bytes(f"{label} nonce {i}", 32) for i in range(2))
    return (high, low) if east_is_higher else (low, high)


def cases(agreed_all):
    for agreed in agreed_all:
        name, number = agreed["name"], agreed["group"]
        if "," in name:
            yield case(agreed, *ordered_nonces(name, True), 4, 2)
            continue
        # Every row of both tables with each side as the initiator.
        for row in range(8):
            nonces = ordered_nonces(f"{name} row {row}", (row + number) % 2 == 0)
            yield case(agreed, *nonces, row, (row + number) % 5)
        if number == 19:
            # All combinations, and codes that no row has.
            for encrypt_algo in range(9):
                for hash_algo in range(6):
                    yield case(agreed, *ordered_nonces(name, hash_algo % 2 == 0), encrypt_algo, hash_algo)
        if number in (14, 19):
            # The comparison of the nonces: only the last byte differs; a set top bit is the higher.
            common = fixed_bytes(f"{name} common", 31)
            yield case(agreed, common + b"\x01", common + b"\x02", 3, 0)
            yield case(agreed, b"\x80" + common, b"\x7f" + common, 3, 0)
            # The rekey of an SA: the initiator stays, whatever the order of the new nonces.
            for initiator in ("east", "west"):
                for east_is_higher in (True, False):
                    nonces = ordered_nonces(f"{name} path", east_is_higher)
                    yield case(agreed, *nonces, 1, 2, initiator)


def peer_keys(number, agreed):
    group = GROUPS[number]
    own = group.multiply(group.generator, int(agreed["east"]["privateKey"], 16))
    accepted, refused = group.peer_keys(own)
    listed = lambda keys: [{"what": what, "key": key.hex()} for what, key in keys.items()]
    return {"group": number, "acceptedKeys": listed(accepted), "refusedKeys": listed(refused)}


def prf_plus_limits():
    for algorithm in range(5):
        key, seed = fixed_bytes(f"prf+ {algorithm} key", 64), fixed_bytes(f"prf+ {algorithm} seed", 64)
        stream = prf_plus(key, seed, algorithm)
        yield {
            "hashAlgorithm": algorithm,
            "key": key.hex(),
            "seed": seed.hex(),
            "length": len(stream),
            "mac": prf(key, stream, algorithm).hex(),
        }


def document():
    agreed_all = list(agreements())
    by_name = {agreed["name"]: agreed for agreed in agreed_all}
    lists = {
        "groups": [peer_keys(number, by_name[f"group {number}"]) for number in GROUPS],
        "agreements": agreed_all,
        "cases": list(cases(agreed_all)),
        "prfPlus": list(prf_plus_limits()),
    }
    # One entry per line: short to read past, and a change shows the entry it is in.
    parts = []
    for name, entries in lists.items():
        lines = ",\n  ".join(json.dumps(entry) for entry in entries)
        parts.append(f' "{name}": [\n  {lines}\n ]')
    return "{\n" + ",\n".join(parts) + "\n}\n"


def main():
    text = document()
    if "--check" not in sys.argv[1:]:
        sys.stdout.write(text)
        return
    with open(KEPT, encoding="ascii") as kept:
        if kept.read() != text:
            sys.exit("crypto_info.json differs from the calculation")


if __name__ == "__main__":
    main()
