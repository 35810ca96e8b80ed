#!/usr/bin/env python3
"""import and export of the forms in which other programs bring and take keys and certificates."""

import base64
import subprocess

import pki
import support
from pki import openssl
from support import InitialisedTest

WORD = {"FSTORE_IN_PASSWORD": "abc"}


class FormatTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        cls.pems, cls.keys = [], []
        for name in "first", "second":
            openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", f"/CN={name}",
                    "-keyout", folder / f"{name}.key", "-out", folder / f"{name}.pem")
            cls.pems.append((folder / f"{name}.pem").read_bytes())
            cls.keys.append((folder / f"{name}.key").read_bytes())

    def der(self, pem):
        return openssl("x509", "-outform", "DER", stdin=pem)

    def import_bytes(self, contents, code=0, **more):
        return self.run_tool("import", "-", "--json", "--no-input", code=code, stdin=contents,
                             **more).document

    def names(self, contents, **more):
        """What is imported of it."""
        return sorted(record["address"].rsplit("-", 1)[0]
                      for record in self.import_bytes(contents, **more)["records"])


class Pkcs7Test(FormatTest):
    BOTH = ["certificates/remote/first", "certificates/remote/second"]

    def test_certificates_of_der_and_pem(self):
        for form in "DER", "PEM":
            with self.subTest(form):
                file = openssl("crl2pkcs7", "-nocrl", "-outform", form, "-certfile",
                               self.write("all.pem", b"".join(self.pems)))
                self.assertEqual(self.BOTH, self.names(file))
                for address in self.records():
                    self.run_tool("rm", address)

    def test_crls_come_too(self):
        file = openssl("crl2pkcs7", "-certfile", pki.files() / "root.pem",
                       stdin=(pki.files() / "crl.pem").read_bytes())
        self.assertEqual(["certificates/remote/Example-Root", "crls/Example-Root"],
                         self.names(file))

    def test_signature_around_it_does_not_matter(self):
        file = openssl("smime", "-sign", "-outform", "DER", "-nodetach", "-signer",
                       pki.files() / "leaf.pem", "-inkey", pki.files() / "p256.key",
                       stdin=b"text")
        self.assertEqual(["certificates/remote/www"], self.names(file))

    def test_nothing_in_it(self):
        self.write("x", bytes.fromhex("300b06092a864886f70d010701"))  # data, and nothing else
        self.assertIn("no certificates and no CRLs", self.fails(59, "malformed", "import", "x"))

    def test_damage_is_told(self):
        file = openssl("crl2pkcs7", "-nocrl", "-outform", "DER", "-certfile",
                       self.write("all.pem", b"".join(self.pems)))
        for end in (10, 60, len(file) - 1):
            self.write("x", file[:end])
            self.fails(59, "malformed", "import", "x")

    def test_export(self):
        self.import_bytes(b"".join(self.pems))
        self.import_bytes((pki.files() / "crl.pem").read_bytes())
        for address in self.records():
            file = self.run_tool("export", address, "--format", "p7").out
            text = openssl("pkcs7", "-inform", "DER", "-print_certs", stdin=file)
            if address.startswith("crls/"):
                self.assertIn(b"BEGIN X509 CRL", text)
            else:
                self.assertEqual(self.body(address), self.der(text))
        self.import_bytes(self.keys[0])
        key = [address for address in self.records() if address.startswith("keys/")][0]
        self.assertIn("certificates and CRLs only",
                      self.fails(4, "invalid", "export", key, "--format", "p7"))

    def test_export_of_a_chain(self):
        files = pki.files()
        self.run_tool("import", files / "leaf.pem", "--name", "leaf")
        self.run_tool("import", files / "root.pem", "--name", "root")
        file = self.run_tool("export", "leaf", "--chain", "--format", "p7").out
        text = openssl("pkcs7", "-inform", "DER", "-print_certs", stdin=file)
        self.assertEqual(2, text.count(b"BEGIN CERTIFICATE"))


class KeyTest(FormatTest):
    def encrypted(self, key, *options, password="abc"):
        return openssl("pkcs8", "-topk8", "-passout", f"pass:{password}", *options, stdin=key)

    def test_empty_password_is_not_asked_for(self):
        for options in ((), ("-v1", "PBE-SHA1-3DES")):
            with self.subTest(options):
                file = self.encrypted(self.keys[0], *options, password="")
                (record,) = self.import_bytes(file)["records"]
                self.run_tool("rm", "--force", record["address"])

    def test_keys_with_and_without_a_password_in_one_file(self):
        file = self.encrypted(self.keys[0], password="") + self.encrypted(self.keys[1])
        self.assertEqual(2, len(self.import_bytes(file, env=WORD)["records"]))

    def test_old_algorithms(self):
        legacy = ("-provider", "legacy", "-provider", "default")
        for name in ("PBE-SHA1-RC2-40", "PBE-SHA1-RC2-128", "PBE-MD5-DES", "PBE-SHA1-RC4-128"):
            with self.subTest(name):
                file = self.encrypted(self.keys[0], "-v1", name, *legacy)
                (record,) = self.import_bytes(file, env=WORD)["records"]
                self.run_tool("rm", "--force", record["address"])
                self.write("x", file)
                self.fails(6, "wrong-password", "import", "x",
                           env={"FSTORE_IN_PASSWORD": "wrong"})

    def test_old_algorithms_without_the_provider(self):
        self.write("x", self.encrypted(self.keys[0], "-v1", "PBE-SHA1-RC2-40", "-provider",
                                       "legacy", "-provider", "default"))
        message = self.fails(59, "malformed", "import", "x",
                             env={**WORD, "OPENSSL_MODULES": str(self.folder)})
        self.assertIn("RC2-40-CBC, which this OpenSSL does not have", message)


class GluedTest(FormatTest):
    BOTH = Pkcs7Test.BOTH

    def test_der_behind_der(self):
        ders = b"".join(map(self.der, self.pems))
        self.assertEqual(self.BOTH, self.names(ders))

    def test_der_behind_der_and_pem(self):
        self.assertEqual(["certificates/local/first", "certificates/remote/second", "keys/key"],
                         self.names(self.der(self.pems[0]) + self.der(self.pems[1])
                                    + self.keys[0]))

    def test_pem_without_a_line_feed_between(self):
        self.assertEqual(self.BOTH, self.names(self.pems[0].rstrip() + self.pems[1].rstrip()))

    def test_what_follows_is_told(self):
        document = self.import_bytes(self.der(self.pems[0]) + b"rest", code=5)
        self.assertEqual(1, len(document["records"]))
        self.assertIn("4 bytes that follow", document["failures"][0]["error"]["message"])


class LabelTest(FormatTest):
    def test_names_of_all_letters(self):
        for name in ("東京", "ab語", "ߐ", "ࠀ", "é", "plain"):
            with self.subTest(name):
                file = openssl("pkcs12", "-export", "-passout", "pass:abc", "-name", name,
                               "-inkey", self.folder / "first.key",
                               "-in", self.folder / "first.pem")
                records = self.import_bytes(file, env=WORD)["records"]
                self.run_tool("rm", "--force", *[record["address"] for record in records])
                self.assertEqual([name, name], [record.get("label") for record in records])


class OpenSshTest(FormatTest):
    def make(self, *options, password=""):
        path = self.folder / "id"
        path.unlink(missing_ok=True)
        subprocess.run(["ssh-keygen", "-q", "-f", path, "-N", password, "-C", "me@host", *options],
                       check=True, capture_output=True, timeout=support.SECONDS)
        return path.read_bytes()

    def test_keys_come_with_their_comment(self):
        for options, algorithm in ((("-t", "ed25519"), "Ed25519"),
                                   (("-t", "ecdsa", "-b", "256"), "EC-P-256"),
                                   (("-t", "ecdsa", "-b", "384"), "EC-P-384"),
                                   (("-t", "ecdsa", "-b", "521"), "EC-P-521"),
                                   (("-t", "rsa", "-b", "2048"), "RSA-2048")):
            with self.subTest(algorithm):
                (record,) = self.import_bytes(self.make(*options))["records"]
                self.assertEqual((algorithm, "me@host"),
                                 (record["keyAlgorithm"], record["label"]))
                pem = self.run_tool("export", record["address"], "--plain").out
                openssl("pkey", "-check", "-noout", stdin=pem)
                # The same public key as OpenSSH says.
                said = (self.folder / "id.pub").read_bytes().split()[1]
                (self.folder / "key.pub").write_bytes(openssl("pkey", "-pubout", stdin=pem))
                if algorithm != "Ed25519":  # which ssh-keygen does not read in this form
                    run = subprocess.run(["ssh-keygen", "-i", "-m", "PKCS8", "-f",
                                          self.folder / "key.pub"], check=True, capture_output=True)
                    self.assertEqual(said, run.stdout.split()[1])
                else:
                    der = openssl("pkey", "-pubout", "-outform", "DER", stdin=pem)
                    self.assertEqual(der[-32:], base64.b64decode(said)[-32:])
                self.run_tool("rm", "--force", record["address"])

    def test_password_has_to_be_taken_off(self):
        self.make("-t", "ed25519", password="secret")
        self.assertIn("ssh-keygen -p -N ''", self.fails(59, "malformed", "import", "id"))

    def test_a_dsa_key_is_imported_as_the_message_says(self):
        self.make("-t", "dsa")
        message = self.fails(59, "malformed", "import", "id")
        command = message.split("`")[1].replace("COPY", "id")
        self.assertTrue(command.startswith("ssh-keygen "), message)
        subprocess.run(command, shell=True, cwd=self.folder, check=True, capture_output=True,
                       timeout=support.SECONDS)
        document = self.run_tool("import", "id", "--json").document
        self.assertEqual(["key"], [record["kind"] for record in document["records"]])

    def test_damage_is_told_and_never_a_key(self):
        lines = self.make("-t", "rsa", "-b", "2048").splitlines()
        body = base64.b64decode(b"".join(lines[1:-1]))
        for cut in (0, 5, 14, 15, 19, 40, 300, 500, 700, len(body) - 20, len(body) // 2):
            with self.subTest(cut):
                text = b"\n".join([lines[0], base64.b64encode(body[:cut]), lines[-1], b""])
                self.write("x", text)
                self.fails(59, "malformed", "import", "x")
        for place in range(0, 160, 3):
            changed = body[:place] + b"\xff" + body[place + 1:]
            self.write("x", b"\n".join([lines[0], base64.b64encode(changed), lines[-1], b""]))
            run = support.fstore("import", "x", cwd=self.folder)
            self.assertIn(run.code, (0, 59), run)


if __name__ == "__main__":
    support.main()
