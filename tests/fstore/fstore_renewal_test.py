#!/usr/bin/env python3
"""Renewals: what is superseded, what ls says of keys and alarms, what prune removes."""

import pathlib

import support
from authority import Authority, day, request_of_key
from pki import openssl
from support import InitialisedTest

HOST = "www.example.com"


class RenewalTest(InitialisedTest):
    """An authority, and two keys whose requests it has signed or will."""

    @classmethod
    def fill(cls, folder):
        cls.authority = Authority(folder, "Root")
        cls.requests = {}
        for name, sans in ("a", (HOST,)), ("b", (HOST, "b.example.com")):
            words = [word for san in sans for word in ("--san", san)]
            cls.requests[name] = request_of_key(folder, name, *words)

    def add(self, contents, name):
        """Imports it under this name; its address."""
        run = self.run_tool("import", "-", "--name", name, "--json", stdin=contents)
        return run.document["records"][0]["address"]

    def certify(self, key, begin, end, name):
        return self.add(self.authority.sign(self.requests[key], begin, end), name)

    def alarm(self, *options, code=0):
        """What rings within 30 days, and how many others do not."""
        run = self.run_tool("ls", "--expires-within", "30d", "--json", *options, code=code)
        return ([record["address"] for record in run.document["records"]],
                run.document["superseded"])


class ModelTest(RenewalTest):
    def test_a_request_is_like_a_certificate_that_is_in_force(self):
        self.certify("a", -10, 80, "in-force")
        other = openssl("req", "-new", "-subj", "/CN=later", "-key", "/dev/stdin",
                        stdin=self.run_tool("export", "keys/a", "--plain").out)
        self.add(self.authority.sign(other, 10, 90), "later")
        run = self.run_tool("request", "a")
        text = openssl("req", "-noout", "-text", stdin=run.out).decode()
        self.assertIn(HOST, text)
        self.assertNotIn("later", text)

    def test_a_certificate_that_was_there_before_answers_no_request(self):
        # Whatever the seconds: of the last three pairs one began within a second without fail.
        for number in range(3):
            certificate = self.certify("a", -1, 80 + number, f"www{number}")
            self.run_tool("request", "a")
            listed = {record["address"]: record for record in
                      self.run_tool("ls", "--json").document["records"]}
            self.assertTrue(listed["crm/a"]["open"], number)
            self.assertLess(self.imported(certificate), self.imported("crm/a"))
        request = self.run_tool("get", "crm/a").out
        self.add(self.authority.sign(openssl("req", "-inform", "DER", stdin=request), -1, 89), "answer")
        listed = {record["address"]: record for record in
                  self.run_tool("ls", "--json").document["records"]}
        self.assertFalse(listed["crm/a"]["open"])

    def imported(self, address):
        (record,) = self.run_tool("show", address, "--json").document["records"]
        return next(one["value"] for one in record["attributes"] if one.get("name") == "imported")

    def test_a_request_of_a_ca_has_its_constraints(self):
        self.run_tool("generate", "ca", "--request", "--ca", "--subject", "CN=Sub")
        key = self.run_tool("export", "keys/ca", "--plain").out
        certificate = openssl("req", "-x509", "-key", "/dev/stdin", "-subj", "/CN=Sub", "-addext",
                              "nameConstraints=critical,permitted;DNS:example.com", "-addext",
                              "policyConstraints=requireExplicitPolicy:0", "-addext",
                              "inhibitAnyPolicy=0", stdin=key)
        self.add(certificate, "ca")
        text = openssl("req", "-noout", "-text", stdin=self.run_tool("request", "ca").out).decode()
        for constraint in ("CA:TRUE", "Name Constraints: critical", "DNS:example.com",
                           "Policy Constraints", "Inhibit Any Policy"):
            self.assertIn(constraint, text)


class SupersededTest(RenewalTest):
    def test_alarm_leaves_out_what_was_renewed(self):
        old = self.certify("a", -80, 10.5, "old")
        self.assertEqual(([old], 0), self.alarm("--fail", code=3))
        self.certify("b", -1, 89, "new")
        self.assertEqual(([], 1), self.alarm("--fail"))
        self.assertEqual(([old], 0), self.alarm("--all", "--fail", code=3))
        run = self.run_tool("ls", "--expires-within", "30d")
        self.assertEqual("fstore: superseded by newer ones and left out: 1; --all lists them\n",
                         run.message)
        self.assertNotIn("old", run.text)

    def test_marks_and_days(self):
        self.certify("a", -80, 10.5, "old")
        new = self.certify("a", -1, 89.5, "new")
        self.assertRegex(self.run_tool("ls").text,
                         rf"certificates/local/old .*{day(10.5)} superseded")
        listed = {record["address"]: record for record in
                  self.run_tool("ls", "--json", "--expires-within", "1y", "--all").document["records"]}
        self.assertEqual((new, 10), (listed["certificates/local/old"]["supersededBy"],
                                    listed["certificates/local/old"]["daysLeft"]))
        self.assertNotIn("supersededBy", listed[new])
        self.assertRegex(self.run_tool("ls", "--expires-within", "1y").text,
                         rf"{day(89.5)} in 89 d")

    def test_what_does_not_supersede(self):
        old = self.certify("b", -80, 10.5, "old")
        rows = [("has fewer names", "a", -1, 89), ("is not in force yet", "b", 1, 89),
                ("has expired", "b", -20, -1), ("began before", "b", -90, 89)]
        for number, (reason, key, begin, end) in enumerate(rows):
            with self.subTest(reason):
                address = self.certify(key, begin, end, f"other{number}")
                self.assertIn(old, self.alarm()[0])
                self.run_tool("rm", address)
        with self.subTest("has no key here"):
            request = openssl("req", "-new", "-newkey", "ed25519", "-nodes", "-keyout", "/dev/null",
                              "-subj", "/CN=x", "-addext",
                              f"subjectAltName=DNS:{HOST},DNS:b.example.com")
            self.add(self.authority.sign(request, -1, 89), "foreign")
            self.assertIn(old, self.alarm()[0])
        self.certify("b", -1, 89, "new")
        self.assertEqual(([], 1), self.alarm())

    def test_issuer_plays_no_part(self):
        self.certify("a", -80, 10.5, "old")
        (self.folder / "other").mkdir()
        self.add(Authority(self.folder / "other", "Other").sign(self.requests["a"], -1, 89), "new")
        self.assertEqual(([], 1), self.alarm())

    def request(self, name, *options):
        """That of a new key."""
        request = self.run_tool("generate", name, "--request", *options).out
        self.run_tool("rm", f"crm/{name}")
        return request

    def test_other_use_or_name(self):
        host = ("--san", HOST)
        rows = [("has fewer purposes", (*host, "--key-usage", "serverAuth"),
                 (*host, "--key-usage", "clientAuth")),
                ("has purposes", host, (*host, "--key-usage", "serverAuth")),
                ("has another path", ("--san", "URI:https://a.example/A"),
                 ("--san", "URI:https://a.example/a")),
                ("has another user", ("--san", "URI:https://U@a.example/"),
                 ("--san", "URI:https://u@a.example/")),
                ("has another mailbox", ("--san", "email:A@a.example"),
                 ("--san", "email:a@a.example"))]
        for number, (reason, before, after) in enumerate(rows):
            with self.subTest(reason):
                old = self.add(self.authority.sign(self.request(f"old{number}", *before), -80, 10.5),
                               f"old{number}")
                request = self.request(f"new{number}", *after)
                new = self.add(self.authority.sign(request, -1, 89), f"new{number}")
                self.assertEqual(([old], 0), self.alarm())
                self.run_tool("rm", old, new)

    def test_hosts_know_no_capitals(self):
        for number, (before, after) in enumerate((
                ("DNS:A.example", "DNS:a.example"), ("email:u@A.example", "email:u@a.example"),
                ("URI:https://U@A.example/P", "URI:https://U@a.example/P"))):
            request = self.request(f"old{number}", "--san", before)
            self.add(self.authority.sign(request, -80, 10.5), f"old{number}")
            request = self.request(f"new{number}", "--san", after)
            self.add(self.authority.sign(request, -1, 89), f"new{number}")
            self.assertEqual(([], number + 1), self.alarm())

    def test_revoked_one_supersedes_nothing(self):
        self.add(self.authority.certificate.read_bytes(), "root")
        old = self.certify("a", -80, 10.5, "old")
        new = self.authority.sign(self.requests["b"], -1, 89)
        self.add(new, "new")
        self.assertEqual(([], 1), self.alarm())
        self.authority.revoke(new)
        crl = self.add(self.authority.crl(-1, 60), "revoked")
        self.assertEqual(([old], 0), self.alarm())
        body = next(path for path in pathlib.Path(self.folder / "db/crls").iterdir()
                    if path.suffix != ".dsc")
        body.write_bytes(b"damaged")
        self.assertEqual(([old], 0), self.alarm())
        self.run_tool("rm", crl)
        self.assertEqual(([], 1), self.alarm())

    def test_authority_with_another_key_does_not_supersede(self):
        first = self.request("ca1", "--subject", "CN=Sub")
        second = self.request("ca2", "--subject", "CN=Sub")
        old = self.add(self.authority.sign(first, -80, 10.5, "issuer"), "old")
        self.add(self.authority.sign(second, -1, 89, "issuer"), "other")
        self.assertEqual(([old], 0), self.alarm())
        self.add(self.authority.sign(first, -1, 89, "issuer"), "new")
        self.assertEqual(([], 1), self.alarm())

    def test_unreadable_names(self):
        for name in ("old", "new"):
            request = openssl("req", "-new", "-newkey", "ed25519", "-nodes", "-keyout",
                              self.folder / f"{name}.key", "-subj", "/CN=x", "-addext",
                              "2.5.29.17=DER:0500")
            self.run_tool("import", f"{name}.key")
            begin, end = {"old": (-80, 10.5), "new": (-1, 89)}[name]
            self.add(self.authority.sign(request, begin, end), name)
        self.assertEqual((["certificates/local/old"], 0), self.alarm())

    def test_crl(self):
        self.add(self.authority.certificate.read_bytes(), "root")
        old = self.add(self.authority.crl(-20, 10), "old")
        self.assertEqual(([old], 0), self.alarm())
        (self.folder / "other").mkdir()
        self.add(Authority(self.folder / "other", "Other").crl(-1, 60), "foreign")
        self.assertEqual(([old], 0), self.alarm())
        self.add(self.authority.crl(-1, 60), "new")
        self.assertEqual(([], 1), self.alarm())

    def test_encrypted_ones_are_seen_when_unlocked(self):
        old = self.certify("a", -80, 10.5, "old")
        self.run_tool("import", "-", "--name", "new", "--encrypt",
                      stdin=self.authority.sign(self.requests["a"], -1, 89))
        self.assertEqual([old], self.alarm()[0])
        self.assertEqual(([], 1), self.alarm("--unlock"))


class PruneTest(RenewalTest):
    def pruned(self, *options):
        return [record["address"] for record in
                self.run_tool("prune", *options, "--json").document["records"]]

    def test_lists_and_removes_what_expired_and_was_renewed(self):
        gone = [self.certify("a", -90, -2, "old"), self.add(self.authority.crl(-40, -2), "older")]
        kept = [self.add(self.authority.certificate.read_bytes(), "root"),
                self.certify("a", -80, 10.5, "last"),  # superseded, and in force still
                self.certify("b", -80, -2, "alone"),  # expired, and never renewed
                self.certify("a", -1, 89, "new"), self.add(self.authority.crl(-1, 30), "newer")]
        before = self.files()
        self.assertEqual(gone, self.pruned())
        self.assertRegex(self.run_tool("prune").message, "2 can be removed; --yes does it")
        self.assertEqual(before, self.files())
        run = self.run_tool("prune", "--yes")
        self.assertEqual("".join(f"fstore: removed {address}\n" for address in gone), run.message)
        self.assertEqual(sorted([*kept, "keys/a", "keys/b"]), self.records())
        self.assertEqual([], self.pruned("--yes"))
        self.assert_sound()

    def other_lists(self):
        """CRLs that take no place of the older one, and why."""
        (self.folder / "false").mkdir()
        forger = Authority(self.folder / "false", "Root")
        yield "has a lower number", self.low
        yield "is forged", forger.crl(-1, 30)
        yield "is not in force yet", self.authority.crl(1, 30)
        yield "is not in force any more", self.authority.crl(-20, -1)
        for reason, section in (("has only changes", "delta"), ("is of a part", "partition"),
                                ("is not understood", "odd")):
            yield reason, self.authority.crl(-1, 30, ("-crlexts", section))

    def test_list_that_replaces_nothing(self):
        root = self.add(self.authority.certificate.read_bytes(), "root")
        self.low = self.authority.crl(-1, 30)
        older = self.add(self.authority.crl(-40, -2), "older")
        for reason, contents in self.other_lists():
            with self.subTest(reason):
                other = self.add(contents, "other")
                self.assertEqual([], self.pruned())
                listed = self.run_tool("ls", "--expired", "--fail", "--json", code=3).document
                self.assertIn(older, [record["address"] for record in listed["records"]])
                self.assertNotRegex(self.run_tool("ls").text, "crls/older .*superseded")
                self.run_tool("rm", other)
        self.add(self.authority.crl(-3, 30), "newer")
        self.assertEqual([older], self.pruned())
        self.assertEqual([], self.run_tool("ls", "--expired", "--fail", "--json").document["records"])
        self.run_tool("rm", root)  # by whose key nobody can tell any more
        self.assertEqual([], self.pruned())
        self.run_tool("ls", "--expired", "--fail", code=3)

    def test_keeps_what_its_record_describes_otherwise(self):
        self.add(self.authority.certificate.read_bytes(), "root")
        older = self.add(self.authority.crl(-40, -2), "older")
        self.add(self.authority.crl(-1, 30), "newer")
        self.contradict(older)
        old = self.certify("a", -90, -2, "old")
        self.certify("b", -1, 89, "new")
        self.contradict(old)
        run = self.run_tool("prune", "--yes", code=5)
        for address in older, old:
            self.assertIn(f"left out: {address}", run.message)
            self.assertIn(address, self.records())

    def contradict(self, address):
        """Has the record say that it ended a day before."""
        path = pathlib.Path(self.folder / f"db/{address}.dsc")
        path.write_text(path.read_text().replace(f"{day(-2)}T", f"{day(-3)}T"))

    def test_needs_no_password_and_keeps_keys(self):
        self.certify("a", -90, -2, "old")
        self.certify("b", -1, 89, "new")
        self.run_tool("prune", "--yes", password=None)
        self.assertEqual(["certificates/local/new", "keys/a", "keys/b"], self.records())


class CircleTest(RenewalTest):
    """generate, sign, import, deploy, renew, prune."""

    def expires(self, name):
        """What the list says of the expiry of the record."""
        for line in self.run_tool("ls").text.splitlines():
            if line.startswith(f"{name} "):
                columns = [column for column in line.split("  ") if column]
                return columns[2].strip()
        raise AssertionError(name)

    def test_key_request_and_certificate_are_one_thing(self):
        request = self.run_tool("generate", "www", "--request", "--san", HOST).out
        self.assertEqual(f"requested {day()}", self.expires("keys/www"))
        self.assertEqual(f"open since {day()}", self.expires("crm/www"))
        first = self.add(self.authority.sign(request, -80, 10.5), "www")
        self.assertEqual("certificates/local/www", first)
        self.assertRegex(self.expires("keys/www"), rf"\A{day(10.5)} in 10 d\Z")
        listed = {record["address"]: record for record in
                  self.run_tool("ls", "--json").document["records"]}
        self.assertEqual(first, listed["keys/www"]["certificate"])
        self.assertFalse(listed["crm/www"]["open"])
        self.run_tool("deploy", HOST, "--chain", "www.pem", "--ref", "www.pem")
        self.run_tool("verify", first, code=3)  # whose root is not here yet
        self.add(self.authority.certificate.read_bytes(), "root")
        self.run_tool("verify", first)
        # The renewal, with another key.
        request = self.run_tool("generate", "www2", "--request", "--san", HOST).out
        second = self.add(self.authority.sign(request, -1, 89), "www2")
        self.assertEqual(([], 1), self.alarm("--fail"))
        run = self.run_tool("deploy", HOST, "--chain", "www.pem", "--ref", "www.pem")
        self.assertIn(f"deployed {second}", run.message)
        self.assertEqual([], self.run_tool("prune", "--json").document["records"])
        self.assert_sound()

    def test_request_is_open_again_after_a_renewal_began(self):
        request = self.run_tool("generate", "www", "--request", "--san", HOST).out
        self.add(self.authority.sign(request, -80, 10.5), "www")
        # As if a day had gone by.
        descriptor = pathlib.Path(self.folder / "db/certificates/local/www.dsc")
        lines = [f"00000004 00000111 {day(-1)}T00:00:00Z" if " 00000111 " in line else line
                 for line in descriptor.read_text().splitlines()]
        descriptor.write_text("\n".join(lines) + "\n")
        self.run_tool("request", "www")
        self.assertEqual(f"{day(10.5)} in 10 d, requested {day()}", self.expires("keys/www"))

    def test_own_signature_is_no_answer(self):
        self.run_tool("generate", "own", "--request", "--self-signed", 40, "--san", HOST,
                      "-o", "own.csr")
        self.assertEqual(f"{day(40)}, requested {day()}", self.expires("keys/own"))


if __name__ == "__main__":
    support.main()
