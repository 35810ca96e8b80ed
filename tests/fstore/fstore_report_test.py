#!/usr/bin/env python3
"""report: one page that needs nothing else, and says what is there."""

import html.parser
import re
import stat

import support
from authority import Authority, request_of_key
from pki import openssl
from support import InitialisedTest

EMPTY = {"meta", "br"}
HOSTILE = "<script>alert(1)</script>\"&'"


class Page(html.parser.HTMLParser):
    """What a browser makes of it: elements that fit each other, and the texts of table cells."""

    def __init__(self, text):
        super().__init__()
        self.open, self.tags, self.rows, self.attributes, self.text = [], [], [], [], ""
        self.feed(text)
        self.close()
        assert self.open == [], self.open

    def handle_starttag(self, tag, attrs):
        self.tags.append(tag)
        self.attributes += attrs
        if tag not in EMPTY:
            self.open.append(tag)
        if tag == "tr":
            self.rows.append([])
        elif tag in ("td", "th"):
            self.rows[-1].append("")

    def handle_endtag(self, tag):
        assert self.open and self.open.pop() == tag, (tag, self.getpos())

    def handle_data(self, data):
        if "script" not in self.open and "style" not in self.open:
            self.text += data
        if "td" in self.open or "th" in self.open:
            self.rows[-1][-1] += data


class ReportTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        cls.key = {}
        for name, words in (
                ("good", ("-newkey", "ed25519", "-days", "90", "-addext",
                          "subjectAltName=DNS:good.example.com")),
                ("weak", ("-newkey", "rsa:1024", "-days", "700"))):
            out = openssl("req", "-x509", "-nodes", "-subj", f"/CN={name}", "-keyout",
                          folder / "key", "-addext", "basicConstraints=critical,CA:FALSE", *words)
            key = (folder / "key").read_bytes()
            (folder / "key").unlink()
            cls.key[name] = key
            run = support.fstore("-D", folder, "import", "-", "--name", name, stdin=key + out)
            assert run.code == 0, run.message
        run = support.fstore("-D", folder, "generate", "lonely", "--type", "ed25519")
        assert run.code == 0, run.message

    def page(self, **more):
        run = self.run_tool("report", **more)
        return run.text, Page(run.text)

    def oddities(self):
        _, page = self.page()
        begin = page.rows.index(["Record", "What", "Subject"])
        return {(row[0], row[1]) for row in page.rows[begin + 1:] if len(row) == 3}

    def test_it_says_what_is_there(self):
        _, page = self.page(password=None)
        for text in "certificates/local/good", "keys/good", "Ed25519", "RSA-1024":
            self.assertIn(text, page.text)
        self.assertRegex(page.text, "in (89|90) d")  # of 90, begun a moment or a second ago
        for title in "What ends when", "Weak or odd", "Chains", "Keys", "Certificates and CRLs":
            self.assertIn(title, page.text)

    def test_weak_and_odd(self):
        found = self.oddities()
        self.assertIn(("keys/lonely", "key without a certificate"), found)
        self.assertIn(("keys/weak", "RSA key of 1024 bits; less than 2048 can be broken"), found)
        self.assertIn(("certificates/local/weak", "is for 700 days; browsers accept 398"), found)
        self.assertIn(("certificates/local/weak",
                       "has no subject alternative name, so no browser takes it for a host"), found)
        self.assertFalse([row for row in found if row[0].endswith("/good")])

    def test_weak_key_for_pss(self):
        made = openssl("genpkey", "-algorithm", "RSA-PSS", "-pkeyopt", "rsa_keygen_bits:1024")
        self.run_tool("import", "-", "--name", "pss", stdin=made)
        self.assertIn(("keys/pss", "RSA key of 1024 bits; less than 2048 can be broken"),
                      self.oddities())

    def test_signature_that_can_be_forged(self):
        for name, words in (("root", ("-x509", "-newkey", "rsa:2048", "-sha1")),
                            ("host", ("-newkey", "rsa:2048"))):
            (self.folder / name).write_bytes(openssl("req", "-nodes", *words, "-subj", f"/CN={name}",
                                                     "-keyout", self.folder / f"{name}.key"))
        for digest in "-sha1", "-sha256":
            made = openssl("x509", "-req", "-in", self.folder / "host", "-CA", self.folder / "root",
                           "-CAkey", self.folder / "root.key", digest, "-days", "9")
            self.run_tool("import", "-", "--name", f"host{digest}", stdin=made)
        self.run_tool("import", "root", "--name", "root")
        forged = {row for row in self.oddities() if "can be forged" in row[1]}
        self.assertEqual({("certificates/remote/host-sha1", "is signed with SHA1, which can be forged")},
                         forged)

    def test_expired(self):
        authority = Authority(self.folder, "Root")
        request = request_of_key(self.folder, "old", "--san", "old.example.com")
        self.run_tool("import", "-", "--name", "old", stdin=authority.sign(request, -9, -1))
        self.assertIn(("certificates/local/old", "has expired, and nothing newer replaces it"),
                      self.oddities())

    def test_hostile_names_are_text(self):
        made = openssl("req", "-x509", "-nodes", "-newkey", "ed25519", "-keyout", "/dev/null",
                       "-subj", "/CN=" + HOSTILE.replace("/", "\\/"))
        self.run_tool("import", "-", "--name", "hostile", stdin=made)
        self.put("settings/<b>", b"x")
        before = self.page()[1].tags.count("script")
        text, page = self.page()
        self.assertEqual(1, before)
        self.assertNotIn("<script>alert", text)
        self.assertIn("CN=<script>alert(1)</script>", page.text.replace("\\", ""))
        self.assertFalse([name for name, _ in page.attributes if name.startswith("on")])

    def test_it_needs_nothing_else_and_has_no_secret(self):
        text, page = self.page()
        self.assertIn(("content", "default-src 'none'; style-src 'unsafe-inline'; "
                                  "script-src 'unsafe-inline'"), page.attributes)
        self.assertFalse([value for name, value in page.attributes if name in ("src", "href")])
        self.assertNotRegex(text, r"url\(|@import|https?://")
        self.assertNotIn("PRIVATE", text)
        for key in self.key.values():
            self.assertNotIn(key.splitlines()[1].decode(), text)

    def test_file_and_document(self):
        run = self.run_tool("report", "-o", "report.html", "--json")
        self.assertEqual((2, 3), (run.document["certificates"], run.document["keys"]))
        self.assertIn("keys/lonely", [odd["address"] for odd in run.document["oddities"]])
        self.assertEqual(0o600, stat.S_IMODE((self.folder / "report.html").stat().st_mode))
        self.fails(4, "invalid", "report", "-o", "report.html")
        self.run_tool("report", "-o", "report.html", "-f")
        Page((self.folder / "report.html").read_text())

    def test_an_empty_database(self):
        for folder in "keys", "certificates/local":
            for path in (self.folder / "db" / folder).iterdir():
                path.unlink()
        _, page = self.page()
        self.assertIn("Nothing that ends is here.", page.text)

    def test_chains_hang_below_their_issuers(self):
        authority = Authority(self.folder, "Root")
        request = request_of_key(self.folder, "host", "--san", "host.example.com")
        self.run_tool("import", "-", "--name", "host", stdin=authority.sign(request, -9, 9))
        self.run_tool("import", authority.certificate, "--name", "root")
        text, _ = self.page()
        chains = re.search(r'<ul class="tree">.*?</section>', text, re.DOTALL)[0]
        issuer = re.search(r'<li>CN=Root.*?</li>', chains, re.DOTALL)
        self.assertIn("<ul>", issuer[0])
        self.assertIn("certificates/local/host", issuer[0])


if __name__ == "__main__":
    support.main()
