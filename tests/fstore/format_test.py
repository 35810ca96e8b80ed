#!/usr/bin/env python3
"""filestore(5) is exact enough: a reader written from it alone reads what the tool wrote.

Nothing here is the tool's: the descriptors, the slots (slots.py), the derivation of the keys
and AES-GCM (gcm.py) are written down a second time, from the page.
"""

import hashlib
import re

import gcm
import pki
import slots
import support
from support import InitialisedTest

BODY, ENCRYPTED = 0x10000000, 0x01000000


def open_frame(key, frame):
    """The contents of what was encrypted."""
    assert frame[:1] == b"\1"
    opened = gcm.decrypt(key, frame[1:13], frame[13:-16], frame[-16:], frame[:1])
    assert opened is not None
    return opened


class Record:
    def __init__(self, database, address, key=None):
        path = database / f"{address}.dsc"
        self.attributes, self.body = {}, None
        for line in path.read_bytes().split(b"\n"):
            if not line.strip() or line.lstrip().startswith(b"!"):
                continue
            word, number, data = re.fullmatch(rb"(\S+)\s+(\S+)\s*(.*)", line).groups()
            word, number = int(word, 16), int(number, 16)
            if word & BODY and number == 0:
                self.body = (path.parent / data.decode()).read_bytes()
                if word & ENCRYPTED:
                    self.body = open_frame(key, self.body) if key else None
                continue
            value = {1: lambda d: int(d, 16), 2: lambda d: bytes.fromhex(d.decode()),
                     3: bytes.decode, 4: bytes.decode}[word & 15](data)
            if word & ENCRYPTED:
                value = open_frame(key, value) if key else None
            self.attributes.setdefault((number, word & 15), []).append(value)

    def one(self, number, kind):
        (value,) = self.attributes[number, kind]
        return value


def derive(database, password):
    """The key of the database, and what opens nothing is refused."""
    kdf, copy = (slots.Slots.of(database / f"{name}.dsc") for name in ("kdf", "kdf-copy"))
    assert kdf.lines == copy.lines
    p = kdf.open("password", password)
    assert p is not None
    assert hashlib.md5(p).digest() == Record(database, "key").attributes[1, 2][0]
    return hashlib.pbkdf2_hmac("sha256", p, b"", 1000, 16)


class FormatTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        made = pki.files()
        for args, stdin in [(("import", made / "leaf.pem", made / "p256.key"), b""),
                            (("import", made / "root.pem", "--encrypt", "--name", "sealed"), b""),
                            (("put", "settings/text", "-"), b"a body"),
                            (("set", "settings/text", "0x8001=plain", "0x8002:number=42",
                              "0x8003:binary=00ff01", "0x8004:string=string"), b""),
                            (("set", "settings/text", "0x8005:binary=0102", "--encrypt"), b"")]:
            run = support.fstore("-D", folder, *args, stdin=stdin)
            assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.database = self.folder / "db"
        self.key = derive(self.database, support.PASSWORD.encode())

    def record(self, address):
        return Record(self.database, address, self.key)

    def test_body_and_attributes_of_every_type(self):
        record = self.record("settings/text")
        self.assertEqual(b"a body", record.body)
        self.assertEqual(("plain", 42, b"\0\xff\1", "string", b"\1\2"),
                         tuple(record.one(*which) for which in ((0x8001, 4), (0x8002, 1),
                               (0x8003, 2), (0x8004, 3), (0x8005, 2))))

    def test_imported_objects(self):
        addresses = self.records()
        (leaf,) = [a for a in addresses if a.startswith("certificates/local/")]
        (key,) = [a for a in addresses if a.startswith("keys/")]
        der = (pki.files() / "leaf.der").read_bytes()
        certificate, private = self.record(leaf), self.record(key)
        self.assertEqual(der, certificate.body)
        self.assertEqual((pki.files() / "p256.key.der").read_bytes(), private.body)
        self.assertEqual((1, 1, hashlib.sha256(der).digest(), b"\1", 0),
                         tuple(certificate.one(*which) for which in ((0x100, 1), (0x101, 1),
                               (0x109, 2), (0x105, 2), (0x10F, 1))))
        self.assertEqual(certificate.one(0x10B, 2), private.one(0x10B, 2))
        self.assertIn("DNS:www.example.com", certificate.attributes[0x10E, 4])

    def test_encrypted_certificate(self):
        record = self.record("certificates/remote/sealed")
        self.assertEqual((pki.files() / "root.der").read_bytes(), record.body)
        self.assertEqual(b"CN=Example Root,O=Example,C=DE", record.one(0x103, 2))

    def test_wrong_password_opens_nothing(self):
        with self.assertRaises(AssertionError):
            derive(self.database, b"another")


if __name__ == "__main__":
    support.main()
