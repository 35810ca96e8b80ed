"""The slots of a database, read by filestore(5) alone: nothing here is the tool's."""

import hashlib
import hmac
import re

import gcm

DIGITS = "0123456789ABCDEFGHJKMNPQRSTVWXYZ"


def lines_of(path):
    """The lines of slots in a descriptor."""
    found = re.findall(rb"^\s*0*4\s+0*4[bB]01\s+(.*)$", path.read_bytes(), re.MULTILINE)
    return [line.decode("ascii") for line in found]


class Slots:
    """What one copy of the record says."""

    @classmethod
    def of(cls, path):
        """The copy in this descriptor."""
        return cls(lines_of(path))

    def __init__(self, lines):
        self.lines = lines
        first = re.fullmatch(r"unlock v=1 db=([0-9a-f]{32}) seq=([1-9]\d*)", lines[0])
        last = re.fullmatch(r"end sha256=([0-9a-f]{64})", lines[-1])
        before = "".join(line + "\n" for line in lines[:-1]).encode()
        assert hashlib.sha256(before).hexdigest() == last[1]
        self.database, self.seq = first[1], int(first[2])
        self.slots = [Slot(self.database, line) for line in lines[1:-1]]

    def open(self, kind, secret):
        """P by the slots of this kind; none if the secret opens none of them."""
        for slot in self.slots:
            p = slot.open(secret) if slot.kind == kind else None
            if p is not None:
                return p
        return None


class Slot:
    def __init__(self, database, line):
        fields = dict(field.split("=", 1) for field in line.split(" ")[1:])
        assert line.startswith("slot n=") and fields["wrap"] == "aead"
        self.number, self.kind = int(fields["n"]), fields["kind"]
        self.made = fields["made"]
        self.label = re.sub(rb"\\([0-9a-f]{2})", lambda code: bytes([int(code[1], 16)]),
                            fields["label"].encode())
        self.cost = {name: int(fields[name]) for name in ("ln", "r", "p") if name in fields}
        self.salt, self.key, self.nonce, box = (
            bytes.fromhex(fields[name]) for name in ("salt", "key", "nonce", "box"))
        self.box, self.tag = box[:-16], box[-16:]
        self.associated = "\n".join(
            ("fstore-unlock-1", database, line[:line.index(" box=")])).encode()

    def raw(self, secret):
        if self.kind != "password":
            return secret
        return hashlib.scrypt(secret, salt=self.salt, n=1 << self.cost["ln"], r=self.cost["r"],
                              p=self.cost["p"], dklen=32, maxmem=(1 << 31) - 1)

    def open(self, secret):
        slot_key = hkdf(self.raw(secret), self.salt,
                        f"fstore-unlock-1 slot {self.number} {self.kind}".encode())
        opened = gcm.decrypt(slot_key, self.nonce, self.box, self.tag, self.associated)
        if opened is None:
            return None
        p = opened.hex().encode()
        assert hashlib.md5(p).digest() == self.key
        return p


def hkdf(key, salt, info):
    """RFC 5869 with SHA-256, 32 bytes."""
    prk = hmac.digest(salt, key, "sha256")
    return hmac.digest(prk, info + b"\1", "sha256")


def recovery_key(text):
    """The bytes of a recovery key as it is printed."""
    groups = text.split("-")
    assert [len(group) for group in groups] == [5] * 8
    bits = ""
    for number, group in enumerate(groups, 1):
        values = [DIGITS.index(digit) for digit in group]
        check = number
        for power, value in enumerate(values[:4], 1):
            check ^= times(value, power)
        assert check == values[4]
        bits += "".join(f"{value:05b}" for value in values[:4])
    return int(bits, 2).to_bytes(20, "big")


def times(value, power):
    """2 to this power times the value, in the field of 32 elements with x^5 + x^2 + 1."""
    for _ in range(power):
        value <<= 1
        value ^= 0x25 if value & 0x20 else 0
    return value


def key_file(text):
    """The bytes in a key file."""
    digits, check = re.fullmatch(r"fstore-key-1:([0-9a-f]{64}):([0-9a-f]{8})\n?", text).groups()
    key = bytes.fromhex(digits)
    assert hashlib.sha256(key).hexdigest()[:8] == check
    return key
