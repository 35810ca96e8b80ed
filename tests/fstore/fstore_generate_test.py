#!/usr/bin/env python3
"""generate and request: keys that are made inside, and what other programs make of the rest."""

import signal
import subprocess
import time

import support
from pki import openssl
from support import InitialisedTest


class GenerateTest(InitialisedTest):
    def generate(self, *args, **more):
        return self.run_tool("generate", *args, **more)

    def request_text(self, pem):
        """What openssl says of a request, whose signature it verifies."""
        return openssl("req", "-verify", "-noout", "-text", "-nameopt", "RFC2253,-esc_msb",
                       stdin=pem).decode()

    def listed(self):
        document = self.run_tool("ls", "--json").document
        return {record["address"]: record for record in document["records"]}


class KeyTest(GenerateTest):
    def test_types(self):
        rows = [((), "EC-P-256"), (("--type", "rsa:2048"), "RSA-2048"),
                (("--type", "rsa"), "RSA-3072"), (("--type", "EC:p-384"), "EC-P-384"),
                (("--type", "ec:P-521"), "EC-P-521"),
                (("--type", "ec:brainpoolP256r1"), "EC-brainpoolP256r1"),
                (("--type", "ed25519"), "Ed25519"), (("--type", "Ed448"), "Ed448")]
        for number, (options, algorithm) in enumerate(rows):
            with self.subTest(algorithm):
                run = self.generate(f"k{number}", *options, "--json")
                (record,) = run.document["records"]
                self.assertEqual((f"keys/k{number}", algorithm, "key", True),
                                 (record["address"], record["keyAlgorithm"], record["kind"],
                                  record["body"]["encrypted"]))
                pem = self.run_tool("export", f"keys/k{number}", "--plain").out
                self.assertEqual(b"", openssl("pkey", "-noout", "-check", stdin=pem)
                                 .replace(b"Key is valid\n", b""))
        self.assert_sound()

    def test_key_is_nowhere_in_plain_form(self):
        self.generate("k", "--type", "ed25519", "--request", "--subject", "CN=k")
        der = self.run_tool("export", "keys/k", "--plain", "--format", "der").out
        secret = der[-32:]
        for name, contents in self.files().items():
            self.assertNotIn(secret, contents, name)
            self.assertNotIn(secret.hex().encode(), contents, name)

    def test_two_keys_are_never_the_same(self):
        self.generate("a")
        self.generate("b")
        listed = self.listed()
        self.assertNotEqual(listed["keys/a"]["keySha256"], listed["keys/b"]["keySha256"])

    def test_weak_and_unknown_types_are_refused(self):
        for text in ("rsa:1024", "rsa:2047", "rsa:16384", "rsa:", "rsa:3072x", "ec:P-192", "ec:",
                     "ed25519:1", "dsa", "", "x25519", "rsa:99999999999999999999"):
            with self.subTest(text):
                message = self.fails(4, "invalid", "generate", "k", "--type", text)
                self.assertIn(f'"{text}" is not a type of key', message)
        self.assertEqual([], self.records())

    def test_taken_name_is_refused_and_nothing_is_made(self):
        for folder in ("keys", "crm", "certificates/local"):
            with self.subTest(folder):
                self.put(f"{folder}/k", b"mine")
                before = self.files()
                self.assertIn(f"{folder}/k already exists",
                              self.fails(4, "invalid", "generate", "k", "--request",
                                         "--subject", "CN=k"))
                self.assertEqual(before, self.files())
                self.run_tool("rm", "--force", f"{folder}/k")

    def test_names_that_cannot_be(self):
        for name in ("a/b", "keys/a", "", "..", "a\nb", "x" * 300):
            with self.subTest(name):
                self.fails(4, "invalid", "generate", name)

    def test_interrupt_while_a_key_is_made_leaves_nothing(self):
        process = support.start("generate", "k", "--type", "rsa:8192", cwd=self.folder)
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        run = support.finish(process)
        # A key that was found at once was stored.
        self.assertIn((run.code, self.records()), [(130, []), (0, ["keys/k"])])


class RequestTest(GenerateTest):
    def test_request_is_what_was_asked_for(self):
        run = self.generate("www", "--type", "ed25519", "--request",
                            "--subject", "CN=www.example.com,L=Köln + OU=a\\, b, O=Example",
                            "--san", "www.example.com", "--san", "*.EXAMPLE.com",
                            "--san", "2001:DB8::1", "--san", "email:me@example.com",
                            "--san", "URI:https://example.com/x",
                            "--key-usage", "digitalSignature,serverAuth",
                            "--key-usage", "clientAuth")
        text = self.request_text(run.out)
        for line in ("Subject: CN=www.example.com,L=Köln+OU=a\\, b,O=Example",
                     "Digital Signature",
                     "TLS Web Server Authentication, TLS Web Client Authentication",
                     "DNS:www.example.com, DNS:*.example.com, "
                     "IP Address:2001:DB8:0:0:0:0:0:1, email:me@example.com, "
                     "URI:https://example.com/x"):
            self.assertIn(line, text)
        stored = self.listed()["crm/www"]
        self.assertEqual("CN=www.example.com,L=Köln+OU=a\\, b,O=Example", stored["subject"])
        self.assertEqual(openssl("req", "-outform", "DER", stdin=run.out), self.body("crm/www"))
        self.assert_sound()

    def test_a_subject_that_was_printed_is_taken_again(self):
        written = ("1.2.3.4=#0C0378C3B6,CN=a\\, b,jurisdictionC=DE,organizationIdentifier=X-1,"
                   "businessCategory=Private,UID=u,emailAddress=me@example.com")
        self.generate("first", "--request", "--subject", written)
        printed = self.listed()["crm/first"]["subject"]
        self.assertEqual(written, printed)
        request = self.run_tool("request", "first", "--subject", printed).out
        self.assertEqual(printed, self.listed()["crm/first"]["subject"])
        self.assertIn("1.2.3.4", self.request_text(request))
        # As text the value is the same, but for its type in the request of who asks for it so.
        for value in ("x\u00f6", "#0C0378C3B6"):
            self.run_tool("request", "first", "--subject", f"1.2.3.4={value}")
            self.assertEqual("1.2.3.4=#0C0378C3B6", self.listed()["crm/first"]["subject"])
        for kind in "#130161", "#160161", "#1E020061":
            self.run_tool("request", "first", "--subject", f"1.2.3.4={kind}")
            self.assertEqual(f"1.2.3.4={kind}", self.listed()["crm/first"]["subject"])

    def test_a_name_is_asked_for_once(self):
        pem = self.generate("k", "--request", "--san", "a.com", "--san", "A.COM", "--san", "b.com",
                            "--san", "a.com").out
        self.assertIn("DNS:a.com, DNS:b.com\n", self.request_text(pem))

    def test_an_address_with_a_typing_error_is_no_name(self):
        for name in ["999.1.1.1", "DNS:192.0.2", "10"]:
            self.assertIn("neither", self.fails(4, "invalid", "generate", "k", "--request", "--san",
                                                name))
        self.assertEqual([], self.records())

    def test_signatures_fit_their_keys(self):
        for number, (kind, signature) in enumerate([
                ("rsa:2048", "sha256WithRSAEncryption"), ("ec:P-256", "ecdsa-with-SHA256"),
                ("ec:P-384", "ecdsa-with-SHA384"), ("ec:P-521", "ecdsa-with-SHA512"),
                ("ed25519", "ED25519"), ("ed448", "ED448")]):
            with self.subTest(kind):
                run = self.generate(f"k{number}", "--type", kind, "--request", "--san", "a.example")
                self.assertIn(f"Signature Algorithm: {signature}\n", self.request_text(run.out))

    def test_of_a_ca(self):
        run = self.generate("ca", "--request", "--subject", "CN=Root", "--ca")
        self.assertNotIn("warning", run.message)
        text = self.request_text(run.out)
        self.assertIn("CA:TRUE", text)
        self.assertIn("Certificate Sign, CRL Sign", text)

    def test_goes_to_a_file_that_all_may_read(self):
        self.generate("www", "--request", "--san", "www.example.com", "-o", "www.csr")
        path = self.folder / "www.csr"
        self.assertIn("DNS:www.example.com", self.request_text(path.read_bytes()))
        self.assertEqual(0o644, path.stat().st_mode & 0o777)
        # What stands in the way is found before a key is made.
        self.fails(4, "invalid", "generate", "b", "--request", "--san", "b.example",
                   "-o", "www.csr")
        self.assertNotIn("keys/b", self.records())

    def test_document_has_the_request(self):
        document = self.generate("www", "--request", "--subject", "CN=x", "--json").document
        self.request_text(document["request"].encode())
        self.assertEqual([("keys/www", "added"), ("crm/www", "added")],
                         [(record["address"], record["outcome"])
                          for record in document["records"]])
        self.assertEqual(1, len(document["warnings"]))
        self.assertIn("names no host", document["warnings"][0])

    def test_self_signed_certificate(self):
        self.generate("root", "--self-signed", 10, "--subject", "CN=Root", "--ca")
        pem = self.run_tool("export", "certificates/local/root").out
        (self.folder / "root.pem").write_bytes(pem)
        self.assertIn(b"OK", openssl("verify", "-CAfile", self.folder / "root.pem",
                                     self.folder / "root.pem"))
        text = openssl("x509", "-noout", "-text", stdin=pem).decode()
        self.assertIn("CA:TRUE", text)
        openssl("x509", "-noout", "-checkend", 9 * 86400, stdin=pem)
        run = subprocess.run(["openssl", "x509", "-noout", "-checkend", str(10 * 86400)],
                             input=pem, capture_output=True, check=False)
        self.assertEqual(1, run.returncode)

    def test_what_cannot_be_asked_for_is_refused_before_a_key_is_made(self):
        rows = [(("--subject", "CN=a\nb"), "control character"),
                (("--subject", "CN=a\\0Ab"), "control character"),
                (("--subject", "CN=" + "a" * 65), "string too long"),
                (("--subject", "C=DEU"), "string too long"),
                (("--subject", "www.example.com"), 'no "="'),
                (("--subject", "CN=a,"), 'no "="'),
                (("--subject", "CN="), "no value for CN"),
                (("--subject", "XYZ=a"), "not a part of names"),
                (("--subject", "CN=#0500"), "not a string in DER"),
                (("--subject", "CN=#0C0261"), "not a string in DER"),
                (("--subject", "CN=#0C0161FF"), "not a string in DER"),
                (("--subject", "CN=#0C00"), "no value for CN"),
                (("--subject", "CN=#0C010A"), "control character"),
                (("--subject", "CN=#1E02000A"), "control character"),
                (("--subject", "CN=#0C41" + 65 * "61"), "string too long"),
                (("--subject", "CN=#1E8182" + 65 * "0061"), "string too long"),
                (("--subject", "C=#1303444555"), "string too long"),
                (("--subject", "C=#130144"), "string too short"),
                (("--subject", "C=#0C024445"), "of another kind than it can have"),
                (("--subject", "emailAddress=#0C0161"), "of another kind than it can have"),
                (("--subject", "CN=#1302C3B6"), "of another kind than it can have"),
                (("--subject", "CN=#1E0161"), "not a string in DER"),
                (("--subject", "CN=#05xx"), "backslash before it"),
                (("--subject", "sha256=x"), "not a part of names"),
                (("--subject", "CN=a\\zb"), "backslash before what needs none"),
                (("--subject", b"CN=\xff"), "not UTF-8"),
                (("--san", "bücher.example"), "xn--"),
                (("--san", "a b"), "not the name of a host"),
                (("--san", "IP:www.example.com"), "no IP address"),
                (("--san", "email:a b"), "not an e-mail address"),
                (("--san", "email:a"), "not an e-mail address"),
                (("--san", "email:@example.com"), "not an e-mail address"),
                (("--san", "email:a@b c"), "not an e-mail address"),
                (("--san", "email:a@b/c"), "not the name of a host"),
                (("--san", "URI:"), "not a URI"),
                (("--san", "URI:example.com/x"), "not a URI"),
                (("--san", "URI:1http://x"), "not a URI"),
                (("--san", "URI:http:"), "not a URI"),
                (("--san", "a.example", "--key-usage", "digitalSignature,all"),
                 '"all" is not a usage'),
                (("--san", "a.example", "--key-usage", ""), '"" is not a usage')]
        for options, reason in rows:
            with self.subTest(options):
                self.assertIn(reason, self.fails(4, "invalid", "generate", "k", "--request",
                                                 *options) if isinstance(options[1], str)
                              else self.refusal_of_bytes(options))
        many = [word for i in range(1001) for word in ("--san", f"h{i}.example")]
        self.assertIn("1000 is the limit",
                      self.fails(4, "invalid", "generate", "k", "--request", *many))
        self.assertEqual([], self.records())

    def refusal_of_bytes(self, options):
        run = subprocess.run([support.PROGRAM, "generate", "k", "--request", *options],
                             cwd=self.folder, capture_output=True, check=False,
                             env=support.environment(FSTORE_PASSWORD=support.PASSWORD))
        self.assertEqual(4, run.returncode)
        return run.stderr.decode()

    def test_options_that_do_not_go_together(self):
        for options in (("--subject", "CN=x"), ("--ca",), ("-o", "x"), ("--request",),
                        ("--self-signed", "0"), ("--self-signed", "40000"),
                        ("--request", "--key-usage", "serverAuth")):
            with self.subTest(options):
                self.fails(2, "usage", "generate", "k", *options)


class RequestAgainTest(GenerateTest):
    def test_is_like_the_certificate_then_the_request(self):
        first = self.generate("www", "--request", "--subject", "CN=first",
                              "--san", "www.example.com", "--key-usage", "serverAuth").out
        again = self.run_tool("request", "www").out
        self.assertNotEqual(first, again)
        for text in map(self.request_text, (first, again)):
            self.assertIn("Subject: CN=first", text)
            self.assertIn("DNS:www.example.com", text)
            self.assertIn("TLS Web Server Authentication", text)
        self.assertEqual(["crm/www", "keys/www"], self.records())
        self.sign(again, "CN=signer")
        self.run_tool("request", "www", "--subject", "CN=other", "--san", "b.example")
        text = self.request_text(self.run_tool("request", "keys/www").out)
        # The authority gave the subject of the request, and no names.
        self.assertIn("Subject: CN=first", text)
        self.assertNotIn("DNS", text)
        self.assert_sound()

    def sign(self, request, subject):
        """Imports the certificate that a new authority makes of the request."""
        ca = self.folder / "ca.pem"
        openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", f"/{subject}", "-days", 2,
                "-keyout", self.folder / "ca.key", "-out", ca)
        path = self.write("www.crt", openssl("x509", "-req", "-CA", ca, "-CAkey",
                                             self.folder / "ca.key", "-days", 1, stdin=request))
        document = self.run_tool("import", path, "--json").document
        self.assertTrue(document["records"][0]["address"].startswith("certificates/local/"))

    def test_needs_something_to_be_like(self):
        self.generate("bare")
        self.assertIn("--subject and --san say",
                      self.fails(50, "missing", "request", "bare"))
        self.run_tool("request", "bare", "--san", "a.example")
        self.assertIn("DNS:a.example", self.request_text(self.run_tool("request", "bare").out))

    def test_wants_a_key_that_signs(self):
        self.put("keys/mine", b"no key")
        self.fails(4, "invalid", "request", "keys/mine", "--san", "a.example")
        self.fails(50, "missing", "request", "keys/none", "--san", "a.example")
        self.fails(2, "usage", "request", "keys/mine", "--ca")
        exchange = self.write("x.pem", openssl("genpkey", "-algorithm", "x25519"))
        self.run_tool("import", exchange, "--name", "x")
        self.assertIn("cannot sign", self.fails(4, "invalid", "request", "x", "--san", "a.example"))
        self.assertEqual([], [address for address in self.records() if address.startswith("crm/")])

    def test_does_not_replace_what_is_not_its_own(self):
        self.generate("a")
        self.put("crm/a", b"mine")
        self.assertIn("not a request of this key",
                      self.fails(4, "invalid", "request", "a", "--san", "a.example"))
        self.assertEqual(b"mine", self.body("crm/a"))
        self.run_tool("rm", "crm/a")
        self.generate("b", "--request", "--san", "b.example")
        self.run_tool("mv", "crm/b", "crm/a")
        self.fails(4, "invalid", "request", "a", "--san", "a.example")

    def test_label_goes_with_the_records(self):
        self.generate("a", "--label", "front end", "--request", "--san", "a.example")
        self.run_tool("request", "a")
        self.assertEqual({"front end"}, {record["label"] for record in self.listed().values()})


if __name__ == "__main__":
    support.main()
