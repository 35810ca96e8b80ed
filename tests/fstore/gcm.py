"""AES-GCM, written down a second time: the openssl program gives only blocks and counters."""

import pki


def aes(mode, key, data, *options):
    return pki.openssl("enc", f"-aes-{8 * len(key)}-{mode}", "-K", key.hex(), *options, stdin=data)


def multiply(x, y):
    """In the field of GHASH."""
    product = 0
    for i in range(127, -1, -1):
        product ^= y * (x >> i & 1)
        y = y >> 1 ^ (0xE1 << 120) * (y & 1)
    return product


def decrypt(key, nonce, data, tag, associated):
    """What was encrypted; none if the tag is another."""
    subkey = int.from_bytes(aes("ecb", key, bytes(16), "-nopad"), "big")
    lengths = (8 * len(associated)).to_bytes(8, "big") + (8 * len(data)).to_bytes(8, "big")
    digest = 0
    for part in (associated, data, lengths):
        for at in range(0, len(part), 16):
            block = part[at:at + 16].ljust(16, b"\0")
            digest = multiply(digest ^ int.from_bytes(block, "big"), subkey)
    mask = aes("ecb", key, nonce + b"\0\0\0\1", "-nopad")
    if (digest ^ int.from_bytes(mask, "big")).to_bytes(16, "big") != tag:
        return None
    return aes("ctr", key, data, "-iv", (nonce + b"\0\0\0\2").hex())
