#!/usr/bin/env python3
"""export: other programs read what is written, and nobody else a key."""

import os
import subprocess

import pki
import support
from authority import Authority
from pki import openssl
from support import InitialisedTest
from terminal import Terminal

OUT = {"FSTORE_OUT_PASSWORD": "outside"}


class ExportTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        made = pki.files()
        run = support.fstore(
            "-D", folder, "import", made / "modern.p12", made / "rsa.key", made / "crl.pem",
            made / "request.pem", made / "middle.pem", made / "deep.pem", made / "ed25519.key",
            env=pki.IN_PASSWORD)
        assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.pki = pki.files()
        listed = self.run_tool("ls", "--json", password=None).document["records"]
        self.addresses = {record["sha256"]: record["address"] for record in listed}

    def address(self, name):
        """Of the object in the DER file `name`."""
        digest = subprocess.run(["sha256sum", self.pki / name], capture_output=True, check=True)
        return self.addresses[digest.stdout[:64].decode()]

    def export(self, name, *options, **more):
        more["env"] = {**OUT, **more.get("env", {})}
        return self.run_tool("export", self.address(name), *options, **more).out

    def text(self, name):
        return (self.pki / name).read_bytes()


class ForHostTest(ExportTest):
    """The record that serves a host, by name. Two certificates do; the CRL revokes the one of EC."""

    EC = ("--for", "a.example.org", "--alg", "EC")

    def test_certificate_and_key_are_a_pair(self):
        self.run_tool("rm", self.address("crl.der"))
        self.assertEqual(self.text("leaf.pem"), self.run_tool("export", *self.EC).out)
        key = self.run_tool("export", *self.EC, "--type", "key", "--plain").out
        self.assertEqual(openssl("pkey", "-in", self.pki / "p256.key", "-pubout"),
                         openssl("pkey", "-pubout", stdin=key))

    def test_show_names_the_record(self):
        for more, name in ((), "deep.der"), (("--type", "key"), "ed25519.key.der"):
            run = self.run_tool("show", "--json", "--for", "WWW.example.com", *more, password=None)
            self.assertEqual(self.address(name), run.document["records"][0]["address"])

    def test_show_compares_the_record_with_a_file(self):
        chain = self.folder / "chain.pem"
        chain.write_bytes(self.run_tool("export", "--for", "www.example.com", "--chain").out)
        same = ("show", "--for", "www.example.com", "--same-as")
        self.run_tool(*same, chain)
        message = self.fails(50, "missing", *same, self.pki / "leaf.pem")
        self.assertIn(self.address("deep.der"), message)
        self.assertIn("no certificate", self.fails(4, "invalid", *same, self.pki / "crl.der"))

    def test_chain_with_a_revoked_issuer_is_warned_about(self):
        (self.folder / "index").write_text(
            "R\t350101000000Z\t200101000000Z\t03\tunknown\t/CN=Middle\n")
        (self.folder / "ca.cnf").write_text(
            f"[ca]\ndefault_ca=c\n[c]\ndatabase={self.folder}/index\ndefault_md=sha256\n"
            "default_crl_days=9\n")
        self.run_tool("import", "-", stdin=openssl(
            "ca", "-gencrl", "-config", self.folder / "ca.cnf", "-cert", self.pki / "root.pem",
            "-keyfile", self.pki / "rsa.key"))
        run = self.run_tool("export", "--for", "www.example.com", "--chain")
        self.assertIn(f"{self.address('middle.der')} is in the chain and revoked by a CRL",
                      run.message)
        self.assertEqual(3, run.out.count(b"BEGIN CERTIFICATE"))

    def test_what_is_revoked_serves_nobody(self):
        message = self.fails(50, "missing", "show", *self.EC)
        self.assertIn("1 revoked by a CRL", message)

    def test_other_algorithm_is_none(self):
        self.fails(50, "missing", "show", "--for", "www.example.com", "--alg", "RSA")

    def test_it_is_one_of_two_ways(self):
        self.run_tool("show", code=2)
        self.run_tool("export", code=2)
        self.run_tool("show", "--for", "a.example.org", self.address("leaf.der"), code=2)
        self.run_tool("show", "--for", "no host", code=4)


class ContradictedTest(ExportTest):
    """A record whose attributes are not those of its object."""

    def descriptor(self, name):
        return self.folder / "db" / f"{self.address(name)}.dsc"

    def expiry_line(self, name):
        return next(line for line in self.descriptor(name).read_text().splitlines()
                    if line.startswith("00000004 00000107 "))

    def prolong(self, name):
        """Moves the end of a certificate by a century; the two times."""
        line = self.expiry_line(name)
        end = line.split(" ")[2]
        later = str(int(end[:4]) + 100) + end[4:]
        text = self.descriptor(name).read_text()
        self.descriptor(name).write_text(text.replace(line, line.replace(end, later)))
        return end, later

    def test_certificate_that_was_prolonged_is_found(self):
        within = ("ls", "--expires-within", "20y", "--fail", "--subject", "*CN=deep")
        self.run_tool(*within, code=3)
        end, later = self.prolong("deep.der")
        self.run_tool(*within)
        document = self.run_tool("check", "--deep", "--json", code=3).document
        self.assertFalse(document["sound"])
        (finding,) = document["findings"]
        self.assertEqual("contradicted", finding["kind"])
        self.assertEqual(f"./db/{self.address('deep.der')}.dsc", finding["path"])
        self.assertIn(f"has the not-after {later}, but the certificate in its body says {end}",
                      finding["message"])
        self.assertIn("contradicted: ./db/", self.run_tool("check", "--deep", code=3).text)
        self.run_tool("check", "--deep", "--repair", code=3)
        self.run_tool("import", "--replace", self.pki / "deep.pem")
        self.assert_sound()
        self.run_tool(*within, code=3)

    def test_certificate_without_its_end_rings(self):
        line = self.expiry_line("deep.der")
        text = self.descriptor("deep.der").read_text()
        self.descriptor("deep.der").write_text(text.replace(line + "\n", ""))
        self.assert_sound()
        run = self.run_tool("ls", "--expires-within", "1d", "--fail", "--json", code=3)
        self.assertEqual([self.address("deep.der")], run.document["undated"])

    def test_is_not_exported(self):
        self.prolong("deep.der")
        for form in ("pem", "der", "p12"):
            message = self.fails(59, "malformed", "export", self.address("deep.der"), "--format",
                                 form, "-o", self.folder / "out", env=OUT)
            self.assertIn(f"{self.address('deep.der')} has the not-after", message)
        self.assertFalse((self.folder / "out").exists())
        # What is to be done about it needs the body.
        self.assertEqual(self.text("deep.der"), self.body(self.address("deep.der")))

    def test_neither_with_another(self):
        self.prolong("middle.der")
        run = self.run_tool("export", self.address("deep.der"), "--chain")
        self.assertEqual(1, run.out.count(b"BEGIN CERTIFICATE"))
        self.assertIn(f"left out: {self.address('middle.der')} has the not-after", run.message)


class FormTest(ExportTest):
    def test_public_objects_are_as_openssl_writes_them(self):
        for name in ("leaf", "crl", "request"):
            with self.subTest(name):
                self.assertEqual(self.text(f"{name}.pem"),
                                 self.export(f"{name}.der", password=None))
                self.assertEqual(self.text(f"{name}.der"),
                                 self.export(f"{name}.der", "--format", "der", password=None))

    def test_key_leaves_encrypted(self):
        for form in ("pem", "der"):
            sealed = self.export("p256.key.der", "--format", form)
            self.assertNotIn(pki.secret_of(self.text("p256.key.der")), sealed)
            again = openssl("pkey", "-inform", form.upper(), "-passin", "pass:outside",
                            stdin=sealed)
            self.assertEqual(self.text("p256.key"), again)
        self.assertIn(b"BEGIN ENCRYPTED PRIVATE KEY", self.export("rsa.key.der"))

    def test_key_leaves_plain_when_asked(self):
        self.assertEqual(self.text("rsa.key"),
                         self.export("rsa.key.der", "--plain", env={"FSTORE_OUT_PASSWORD": ""}))
        self.assertEqual(self.text("rsa.key.der"),
                         self.export("rsa.key.der", "--plain", "--format", "der"))

    def test_pkcs12_of_either_half(self):
        for name in ("leaf.der", "p256.key.der"):
            with self.subTest(name):
                file = self.export(name, "--format", "p12")
                read = openssl("pkcs12", "-passin", "pass:outside", "-noenc", stdin=file)
                self.assertIn(self.text("leaf.pem"), read)
                self.assertIn(self.text("p256.key"), read)
                self.assertIn("friendlyName: Café Server".encode("latin-1"), read)
                self.assertNotIn(self.text("root.pem"), read)

    def test_pkcs12_without_a_key_or_certificate(self):
        read = openssl("pkcs12", "-passin", "pass:outside", "-noenc",
                       stdin=self.export("middle.der", "--format", "p12"))
        self.assertIn(self.text("middle.pem"), read)
        self.assertNotIn(b"PRIVATE KEY", read)
        self.run_tool("rm", "-f", self.address("root.der"))
        read = openssl("pkcs12", "-passin", "pass:outside", "-noenc",
                       stdin=self.export("rsa.key.der", "--format", "p12"))
        self.assertIn(self.text("rsa.key"), read)
        self.assertNotIn(b"CERTIFICATE", read)

    def test_plain_pkcs12(self):
        file = self.export("leaf.der", "--format", "p12", "--plain")
        self.assertIn(pki.secret_of(self.text("p256.key.der")), file)

    def test_what_was_exported_is_the_same_object_again(self):
        for name, options in [("leaf.der", ("--format", "p12", "--chain")), ("rsa.key.der", ()),
                              ("crl.der", ()), ("deep.der", ("--chain",))]:
            path = self.folder / "out"
            self.export(name, *options, "-o", path, "--force")
            document = self.run_tool("import", path, "--json",
                                     env={"FSTORE_IN_PASSWORD": "outside"}).document
            self.assertEqual({"present"}, {r["outcome"] for r in document["records"]})

    def test_encrypted_certificate(self):
        self.run_tool("import", self.pki / "nameless.pem", "--encrypt", "--name", "secret")
        self.assertEqual(self.text("nameless.pem"), self.run_tool("export", "secret").out)
        self.fails(2, "usage", "export", "secret", password=None)


class ChainTest(ExportTest):
    def test_ends_at_the_root(self):
        self.assertEqual(b"".join(map(self.text, ("deep.pem", "middle.pem", "root.pem"))),
                         self.export("deep.der", "--chain", password=None))
        self.assertEqual(self.text("root.pem"), self.export("root.der", "--chain"))

    def test_of_a_key_begins_with_its_certificate(self):
        self.assertEqual(b"".join(map(self.text, ("p256.key", "leaf.pem", "root.pem"))),
                         self.export("p256.key.der", "--chain", "--plain"))

    def test_goes_into_pkcs12(self):
        read = openssl("pkcs12", "-passin", "pass:outside", "-nokeys",
                       stdin=self.export("deep.der", "--chain", "--format", "p12"))
        for name in ("deep.pem", "middle.pem", "root.pem"):
            self.assertIn(self.text(name), read)

    def test_end_before_the_root_is_told(self):
        self.run_tool("rm", "-f", self.address("middle.der"))
        run = self.run_tool("export", self.address("deep.der"), "--chain")
        self.assertEqual(self.text("deep.pem"), run.out)
        self.assertIn("warning: the chain ends before a root", run.message)
        run = self.run_tool("export", self.address("deep.der"), "--chain", "--json")
        self.assertEqual(1, len(run.document["warnings"]))

    def test_is_not_for_everything(self):
        self.assertIn("DER is one object", self.fails(
            2, "usage", "export", self.address("deep.der"), "--chain", "--format", "der"))
        for options in (("--chain",), ("--format", "p12")):
            self.fails(4, "invalid", "export", self.address("crl.der"), *options)
            self.fails(4, "invalid", "export", self.address("request.der"), *options)


class CrossedTest(InitialisedTest):
    """Two authorities that have issued each other, and the certificate of a server by one of them."""

    def setUp(self):
        super().setUp()
        self.pem = {}
        ca = {name: Authority(self.folder, name) for name in ("A", "B")}
        for name, other in ("A", "B"), ("B", "A"):
            request = openssl("req", "-new", "-key", ca[name].folder / "ca.key", "-subj", f"/CN={name}")
            self.add(f"root-{name}", ca[name].certificate.read_bytes())
            self.add(f"crossed-{name}", ca[other].sign(request, kind="issuer"))
        request = self.run_tool("generate", "www", "--request", "--san", "www.example.com").out
        self.add("www", ca["A"].sign(request))

    def add(self, name, pem):
        self.pem[name] = pem
        self.run_tool("import", "-", "--name", name, stdin=pem)

    def assert_chain(self, *names):
        """Of www, for all who give one."""
        text = b"".join(self.pem[name] for name in names)
        run = self.run_tool("export", "certificates/local/www", "--chain", password=None)
        self.assertEqual(text, run.out)
        self.run_tool("deploy", "www.example.com", "--chain", self.folder / "www.pem",
                      "--ref", self.folder / "www.pem", password=None)
        deployed = (self.folder / "www.pem").read_bytes()
        self.assertTrue(deployed.startswith(text))
        self.assertEqual(len(names), deployed.count(b"BEGIN CERTIFICATE"))
        return run

    def test_shortest_way_to_a_root_is_the_chain(self):
        run = self.assert_chain("www", "root-A")
        self.assertEqual("", run.message)
        (record,) = self.run_tool("verify", "www", "--json").document["records"]
        self.assertEqual(["certificates/remote/root-A"], record["issuers"])
        self.run_tool("rm", "-f", "root-A")
        self.assertEqual("", self.assert_chain("www", "crossed-A", "root-B").message)

    def test_no_certificate_is_in_it_twice(self):
        self.run_tool("rm", "-f", "root-A", "root-B")
        self.run_tool("cp", "certificates/remote/crossed-A", "certificates/remote/again")
        run = self.assert_chain("www", "crossed-A", "crossed-B")
        self.assertIn("those that issued it have only issued each other", run.message)
        self.assertNotIn("not in the database", run.message)
        run = self.run_tool("export", "crossed-A", "--chain")
        self.assertEqual(self.pem["crossed-A"] + self.pem["crossed-B"], run.out)


class FileTest(ExportTest):
    def test_is_the_owners_alone(self):
        path = self.folder / "out.pem"
        self.assertEqual(b"", self.export("leaf.der", "-o", path))
        self.assertEqual(self.text("leaf.pem"), path.read_bytes())
        self.assertEqual(0o600, path.stat().st_mode & 0o777)
        self.assertEqual(["db", "db.lock", "out.pem"], self.entries())

    def test_existing_one_is_kept_unless_forced(self):
        path = self.write("out.pem", "mine")
        self.assertIn("--force", self.fails(4, "invalid", "export", self.address("leaf.der"),
                                            "-o", path))
        self.assertEqual(b"mine", path.read_bytes())
        self.export("leaf.der", "-o", path, "--force")
        self.assertEqual(self.text("leaf.pem"), path.read_bytes())

    def test_failure_leaves_nothing(self):
        before = self.files()
        self.fails(50, "missing", "export", "nobody", "-o", "out.pem")
        self.fails(2, "usage", "export", self.address("rsa.key.der"), "-o", "out.pem")
        self.fails(6, "wrong-password", "export", self.address("rsa.key.der"), "-o", "out.pem",
                   password="wrong", env=OUT)
        self.assertEqual(before, self.files())

    def test_document_has_the_contents(self):
        document = self.run_tool("export", self.address("leaf.der"), "--json").document
        self.assertEqual(self.text("leaf.pem").decode(), document["text"])
        self.assertEqual(("pem", False, 1, False),
                         tuple(document[k] for k in ("format", "key", "certificates", "encrypted")))
        document = self.run_tool("export", self.address("leaf.der"), "--json", "--format",
                                 "der").document
        self.assertEqual(self.text("leaf.der").hex(), document["bytes"])
        document = self.run_tool("export", self.address("leaf.der"), "--json", "-o",
                                 "out").document
        self.assertNotIn("text", document)


class RefusalTest(ExportTest):
    def test_raw_record_has_no_such_form(self):
        self.put("settings/raw", b"bytes")
        self.assertIn("fstore get", self.fails(4, "invalid", "export", "raw"))

    def test_password_sources_are_named(self):
        message = self.fails(2, "usage", "export", self.address("rsa.key.der"))
        for way in ("--out-password-fd", "--out-password-file", "FSTORE_OUT_PASSWORD"):
            self.assertIn(way, message)

    def test_empty_password_is_refused(self):
        self.fails(4, "invalid", "export", self.address("rsa.key.der"),
                   env={"FSTORE_OUT_PASSWORD": ""})

    def test_standard_input_is_one_password(self):
        self.fails(2, "usage", "export", self.address("rsa.key.der"), "--password-file", "-",
                   "--out-password-file", "-", password=None)

    def test_damaged_body_is_not_exported(self):
        self.put("settings/raw", b"bytes")
        body = next(path for path in (self.folder / "db/crls").iterdir()
                    if path.suffix != ".dsc")
        body.write_bytes(b"damaged")
        self.fails(59, "malformed", "export", self.address("crl.der"))


class TerminalTest(ExportTest):
    def terminal(self, *args):
        terminal = Terminal(["export", *args], cwd=self.folder, password=support.PASSWORD)
        self.addCleanup(terminal.close)
        return terminal

    def test_password_is_typed_twice(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("typed\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        again = openssl("pkey", "-in", self.folder / "out.pem", "-passin", "pass:typed")
        self.assertEqual(self.text("p256.key"), again)

    def test_two_that_differ_are_refused(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("tyed\n")
        self.assertEqual(4, terminal.wait(), terminal.seen)
        self.assertFalse((self.folder / "out.pem").exists())

    def test_nobody_waits_while_it_is_typed(self):
        terminal = self.terminal(self.address("p256.key.der"), "-o", "out.pem")
        terminal.expect("Password for the exported file: ")
        self.put("settings/meanwhile", b"x", "--plain-body")
        terminal.type("typed\n")
        terminal.expect("again: ")
        terminal.type("typed\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)

    def test_bytes_do_not_garble_it(self):
        for form in ("der", "p12"):
            terminal = self.terminal(self.address("leaf.der"), "--format", form)
            self.assertEqual(2, terminal.wait(), terminal.seen)


if __name__ == "__main__":
    support.main()
