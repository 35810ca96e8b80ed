#!/usr/bin/env python3
"""verify: which certificates hold, and the reason why one does not."""

import time

import support
from authority import Authority, day
from pki import openssl
from support import InitialisedTest


class VerifyTest(InitialisedTest):
    """A root, an authority below it, and a server's certificate, "www"."""

    def setUp(self):
        super().setUp()
        self.root = Authority(self.folder, "Root")
        self.sub = Authority(self.folder, "Sub", self.root, end=200)
        self.request = self.run_tool("generate", "www", "--request", "--san", "www.example.com",
                                     "--key-usage", "serverAuth").out

    def add(self, contents, *options):
        """Imports it; its address."""
        run = self.run_tool("import", "-", "--json", *options, stdin=contents)
        return run.document["records"][0]["address"]

    def add_chain(self, leaf=None):
        self.add(self.root.certificate.read_bytes(), "--name", "root")
        self.add(self.sub.certificate.read_bytes(), "--name", "sub")
        return self.add(leaf or self.sub.sign(self.request), "--name", "www")

    def reason(self, *options, code=3):
        """What is said of www."""
        run = self.run_tool("verify", "www", *options, code=code)
        name, _, reason = run.text.rstrip("\n").partition(": ")
        self.assertEqual("certificates/local/www", name)
        (record,) = self.run_tool("verify", "www", *options, "--json",
                                  code=code).document["records"]
        self.assertEqual((code == 0, None if code == 0 else reason),
                         (record["good"], record.get("reason")))
        return reason


class GoodTest(VerifyTest):
    def test_says_until_when_and_by_whom(self):
        self.add_chain()
        self.assertRegex(self.reason(code=0), rf"good until {day(90)}T[0-9:]+Z, by CN=Root\Z")
        (record,) = self.run_tool("verify", "www", "--json").document["records"]
        self.assertEqual(["certificates/remote/sub", "certificates/remote/root"],
                         record["issuers"])

    def test_until_is_the_end_of_the_first_of_the_chain(self):
        self.add_chain(self.sub.sign(self.request, end=300))
        self.assertIn(f"good until {day(200)}", self.reason(code=0))

    def test_all(self):
        self.add_chain()
        self.add(self.sub.sign(self.request, -20, -5), "--name", "old")
        run = self.run_tool("verify", "--all", "--json", code=3)
        self.assertEqual({"certificates/local/www": True, "certificates/local/old": False,
                          "certificates/remote/root": True, "certificates/remote/sub": True},
                         {record["address"]: record["good"] for record in run.document["records"]})
        self.run_tool("rm", "old")
        self.assertEqual(3, len(self.run_tool("verify", "--all").text.splitlines()))

    def verified(self, *texts, code=0):
        run = self.run_tool("verify", "--json", *texts, code=code)
        return [record["address"] for record in run.document["records"]]

    def test_patterns(self):
        self.add_chain()
        self.add(self.sub.sign(self.request), "--name", "www2")
        both = ["certificates/local/www", "certificates/local/www2"]
        for pattern in "ww*", "certificates/local/*", "certificates/l*/www*":
            self.assertEqual(both, self.verified(pattern))  # and not the key and request of that name
        self.assertEqual(both, self.verified("www", "www*"))
        for pattern in "none*", "settings/*", "keys/*":
            self.assertIn("there is no record", self.fails(50, "missing", "verify", pattern))

    def test_less_than_an_address(self):
        self.add_chain()
        self.add(self.sub.sign(self.request), "--name", "other", "--label", "My label")
        for text, address in ("oth", "certificates/local/other"), ("My label", "certificates/local/other"):
            run = self.run_tool("verify", text)
            self.assertIn(f"warning: {text} is taken to mean {address}", run.message)
            self.assertIn(f"{address}: good", run.text)
        self.add(self.sub.sign(self.request), "--name", "others")
        self.assertIn("oth is ambiguous; it may be certificates/local/other, certificates/local/others",
                      self.fails(4, "invalid", "verify", "oth"))

    def test_authorities_that_have_all_issued_each_other(self):
        authorities = [Authority(self.folder, f"M{number}") for number in range(12)]
        pem = [authorities[-1].certificate.read_bytes()]  # the one root
        for subject in authorities:
            request = openssl("req", "-new", "-key", subject.folder / "ca.key", "-subj",
                              f"/CN={subject.folder.name}")
            pem += [issuer.sign(request, kind="issuer") for issuer in authorities if issuer != subject]
        self.run_tool("import", "-", "--json", stdin=b"".join(pem))
        self.add(authorities[0].sign(self.request), "--name", "www")
        self.assertIn("by CN=M11", self.reason(code=0))
        (record,) = self.run_tool("verify", "www", "--json").document["records"]
        self.assertEqual(2, len(record["issuers"]))
        begin = time.monotonic()
        self.assertEqual(134, len(self.verified("--all")))
        self.assertLess(time.monotonic() - begin, 30)

    def test_needs_no_password_and_changes_nothing(self):
        self.add_chain()
        before = self.files()
        self.run_tool("verify", "--all", password=None)
        self.assertEqual(before, self.files())

    def test_purpose(self):
        self.add_chain()
        self.reason("--purpose", "server", code=0)
        self.assertEqual("it is not for this purpose", self.reason("--purpose", "client"))

    def test_time(self):
        self.add_chain()
        self.reason("--at", day(80), code=0)
        self.assertIn("it expired on " + day(90), self.reason("--at", day(95)))
        self.assertIn("it begins on " + day(-10), self.reason("--at", day(-15)))
        self.reason("--at", day(80, "%Y-%m-%dT%H:%M:%SZ"), code=0)
        self.assertIn("not a time", self.fails(2, "usage", "verify", "www", "--at", "tomorrow"))


class BadTest(VerifyTest):
    def test_missing_issuer(self):
        self.add(self.root.certificate.read_bytes())
        address = self.add(self.sub.sign(self.request), "--name", "www")
        self.assertEqual("certificates/local/www", address)
        self.assertEqual("its issuer CN=Sub is not in the database", self.reason())
        self.add(self.sub.certificate.read_bytes())
        self.reason(code=0)

    def test_missing_root(self):
        self.add(self.sub.certificate.read_bytes())
        self.add(self.sub.sign(self.request), "--name", "www")
        self.assertEqual("CN=Root, which issued its issuer CN=Sub, is not in the database",
                         self.reason())

    def test_expired_issuer(self):
        old = Authority(self.folder, "Old", self.root, -50, -1)
        self.add(self.root.certificate.read_bytes())
        self.add(old.certificate.read_bytes())
        self.add(old.sign(self.request), "--name", "www")
        self.assertIn(f"its issuer CN=Old expired on {day(-1)}", self.reason())

    def test_issuer_that_is_no_authority(self):
        (self.folder / "leaf").mkdir()
        leaf = Authority(self.folder / "leaf", "Leaf")
        request = openssl("req", "-new", "-key", leaf.folder / "ca.key", "-subj", "/CN=Leaf")
        leaf.certificate.write_bytes(self.root.sign(request))
        self.add(self.root.certificate.read_bytes())
        self.add(leaf.certificate.read_bytes())
        self.add(leaf.sign(self.request), "--name", "www")
        self.assertIn("CN=Leaf issued certificates and must not", self.reason())

    def test_other_root_of_the_name_is_not_the_issuer(self):
        (self.folder / "false").mkdir()
        self.add(Authority(self.folder / "false", "Root").certificate.read_bytes())
        self.add(self.sub.certificate.read_bytes())
        self.add(self.sub.sign(self.request), "--name", "www")
        self.assertIn("CN=Root, which issued its issuer CN=Sub, is not", self.reason())

    def test_the_issuer_is_whose_key_signed(self):
        self.sub.folder.joinpath("ca.cnf").write_text(
            (self.sub.folder / "ca.cnf").read_text().replace("KeyIdentifier = keyid", "KeyIdentifier = none"))
        for folder in "1", "2":
            (self.folder / folder).mkdir()
            twin = Authority(self.folder / folder, "Sub", self.root, -5 - int(folder), 400)
            self.add(twin.certificate.read_bytes(), "--name", f"first{folder}")
        self.add_chain()
        self.reason(code=0)
        (record,) = self.run_tool("verify", "www", "--json").document["records"]
        self.assertEqual(["certificates/remote/sub", "certificates/remote/root"],
                         record["issuers"])

    def test_damaged_record_is_not_good(self):
        self.add_chain()
        bodies = [path for path in (self.folder / "db/certificates/local").iterdir()
                  if path.suffix != ".dsc"]
        self.assertEqual(1, len(bodies))
        bodies[0].write_bytes(b"damaged")
        self.assertIn("damaged", self.reason())

    def test_wants_certificates(self):
        self.fails(2, "usage", "verify")
        self.fails(2, "usage", "verify", "www", "--all")
        self.fails(50, "missing", "verify", "none")
        self.assertIn("not a certificate", self.fails(4, "invalid", "verify", "keys/www"))


class RevokedTest(VerifyTest):
    def revoked(self):
        leaf = self.sub.sign(self.request)
        self.sub.revoke(leaf)
        self.add_chain(leaf)

    def test_what_a_crl_lists_is_revoked_with_and_without_option(self):
        self.revoked()
        self.reason(code=0)
        self.add(self.sub.crl())
        self.assertEqual("it is revoked by a CRL of CN=Sub", self.reason())
        self.add(self.root.crl())
        self.assertEqual("it is revoked by a CRL of CN=Sub", self.reason("--crl"))
        good = {record["address"]: "until" in record for record in
                self.run_tool("verify", "--all", "--json", code=3).document["records"]}
        self.assertEqual({"certificates/local/www": False, "certificates/remote/root": True,
                          "certificates/remote/sub": True}, good)

    def test_old_crl_revokes_still(self):
        self.revoked()
        self.add(self.sub.crl(-20, -10))
        self.assertEqual("it is revoked by a CRL of CN=Sub", self.reason())

    def test_revoked_issuer(self):
        self.add_chain()
        self.root.revoke(self.sub.certificate.read_bytes())
        self.add(self.root.crl())
        self.assertEqual("its issuer CN=Sub is revoked by a CRL of CN=Root", self.reason())

    def test_crl_is_asked_for(self):
        self.add_chain()
        self.assertEqual("there is no CRL of CN=Sub for it in the database", self.reason("--crl"))
        self.add(self.sub.crl(-20, -10))
        self.add(self.root.crl())
        self.reason(code=0)
        self.assertEqual("the CRL of CN=Sub for it is out of date: import a newer one",
                         self.reason("--crl"))
        self.add(self.sub.crl())
        self.reason("--crl", code=0)

    def test_revocation_comes_before_the_age_of_its_list(self):
        self.revoked()
        self.add(self.root.crl())
        self.add(self.sub.crl(-20, -10))
        self.assertEqual("it is revoked by a CRL of CN=Sub", self.reason("--crl"))

    def test_root_needs_no_list_of_its_own(self):
        (self.folder / "part").mkdir()
        other = Authority(self.folder / "part", "Other")
        root = self.add(other.certificate.read_bytes(), "--name", "other")
        self.add(other.crl(-1, 30, ("-crlexts", "partition")))
        self.run_tool("verify", root, "--crl")

    def test_unreadable_list_leaves_a_doubt(self):
        self.revoked()
        address = self.add(self.sub.crl(), "--name", "sub")
        self.assertEqual("crls/sub", address)
        files = list((self.folder / "db/crls").iterdir())
        self.assertEqual(2, len(files))
        for path in files:
            with self.subTest(path.suffix):
                contents = path.read_bytes()
                path.write_bytes(b"damaged")
                run = self.run_tool("verify", "www", code=5)
                self.assertIn("it is not known whether it is revoked: crls/sub cannot be read",
                              run.text)
                (record,) = self.run_tool("verify", "www", "--json", code=5).document["records"]
                self.assertIsNone(record["good"])
                path.write_bytes(contents)
        self.assertEqual("it is revoked by a CRL of CN=Sub", self.reason())

    def test_lost_record_that_was_no_list_leaves_no_doubt(self):
        self.add_chain()
        self.run_tool("put", "settings/note", "-", stdin=b"note")
        (body,) = (path for path in (self.folder / "db/settings").iterdir() if path.suffix != ".dsc")
        body.unlink()
        run = self.run_tool("verify", "--all", code=5)
        self.assertEqual(3, run.text.count(": good until "))
        self.assertEqual(1, run.message.count("settings/note"), run.message)
        self.assertEqual(1, len(self.run_tool("verify", "www", "--json", code=5).document["unread"]))

    def test_lost_list_leaves_a_doubt_about_its_issuers_certificates_alone(self):
        self.add_chain()
        self.assertEqual("crls/sub", self.add(self.sub.crl(), "--name", "sub"))
        (body,) = (path for path in (self.folder / "db/crls").iterdir() if path.suffix != ".dsc")
        body.unlink()
        lines = self.run_tool("verify", "--all", code=5).text.splitlines()
        self.assertEqual(3, len(lines))
        for line in lines:
            self.assertIn("crls/sub cannot be read" if "/www: " in line else ": good until", line)

    def test_forged_crl_revokes_nothing(self):
        leaf = self.sub.sign(self.request)
        self.add_chain(leaf)
        (self.folder / "false").mkdir()
        forger = Authority(self.folder / "false", "Sub")
        (forger.folder / "index.txt").write_text("")  # its own number is that of the leaf
        forger.revoke(leaf)
        self.add(forger.crl())
        self.reason(code=0)


class SelfSignedTest(InitialisedTest):
    def test_is_its_own_root(self):
        self.run_tool("generate", "own", "--self-signed", 5, "--san", "own.example")
        run = self.run_tool("verify", "own")
        self.assertRegex(run.text, r"\Acertificates/local/own: good until .*, by itself\n\Z")
        self.run_tool("verify", "own", "--crl")
        self.run_tool("verify", "own", "--at", day(6), code=3)


class HostileTest(InitialisedTest):
    def test_subject_with_control_characters_is_shown_escaped(self):
        pem = openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-keyout", "/dev/null",
                      "-days", 1, "-subj", "/CN=a\x1b[31m\nb", "-out", self.folder / "x.pem")
        self.assertEqual(b"", pem)
        self.run_tool("import", "x.pem", "--name", "x")
        run = self.run_tool("verify", "x", "--at", day(3), code=3)
        self.assertNotIn("\x1b", run.text)

    def test_encrypted_certificates_need_the_password(self):
        openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-keyout", "/dev/null",
                "-days", 1, "-subj", "/CN=secret", "-out", self.folder / "x.pem")
        self.run_tool("import", "x.pem", "--name", "x", "--encrypt")
        self.run_tool("verify", "x")
        self.fails(2, "usage", "verify", "x", "--no-input", password=None)


if __name__ == "__main__":
    support.main()
