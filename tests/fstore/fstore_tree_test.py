#!/usr/bin/env python3
"""tree: certificates under their issuers, and what is missing."""

import re

import support
from authority import Authority, day, request_of_key
from pki import openssl
from support import InitialisedTest
from terminal import Terminal


class TreeTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        cls.root = Authority(folder, "Root")
        cls.sub = Authority(folder, "Sub", cls.root, end=500.5)
        cls.requests = {}
        for name in "a", "b":
            cls.requests[name] = request_of_key(folder, name, "--subject", f"CN={name}", "--san",
                                                f"{name}.example.com")

    def add(self, contents, name):
        self.run_tool("import", "-", "--name", name, stdin=contents)

    def add_all(self):
        self.add(self.root.certificate.read_bytes(), "root")
        self.add(self.sub.certificate.read_bytes(), "sub")
        self.add(self.sub.sign(self.requests["a"], -5, 50.5), "old")
        self.add(self.sub.sign(self.requests["a"], -1, 90.5), "new")
        self.add(self.root.sign(self.requests["b"], -5, 70.5), "b")

    def lines(self, *options):
        return self.run_tool("tree", *options).text.splitlines()

    def test_draws_what_issued_what(self):
        self.add_all()
        root = [f"CN=Root  certificates/remote/root  until {day(1000)}"]
        leaf = [f"└─ CN=b  certificates/local/b  until {day(70.5)}, key keys/b"]

        def below(line, bar):
            return [f"{line} CN=Sub  certificates/remote/sub  until {day(500.5)}",
                    f"{bar}  ├─ CN=a  certificates/local/old  until {day(50.5)}, superseded, "
                    "key keys/a",
                    f"{bar}  └─ CN=a  certificates/local/new  until {day(90.5)}, key keys/a"]

        self.assertEqual(root + below("├─", "│") + leaf, self.lines())
        self.assertEqual("fstore: the first to end is certificates/local/b, in 70 days\n",
                         self.run_tool("tree").message)
        self.assertEqual(root + below("└─", " "), self.lines("--for", "a.example.com"))

    def test_names_what_is_missing(self):
        self.add(self.sub.certificate.read_bytes(), "sub")
        self.add(self.sub.sign(self.requests["a"], -1, 90.5), "a")
        self.assertEqual([
            "CN=Root (not in the database)",
            f"└─ CN=Sub  certificates/remote/sub  until {day(500.5)}",
            f"   └─ CN=a  certificates/local/a  until {day(90.5)}, key keys/a"], self.lines())
        records = self.run_tool("tree", "--json").document["records"]
        self.assertEqual(["CN=Root", None], [record.get("missing") for record in records])
        self.assertEqual("certificates/remote/sub", records[1]["issuerAddress"])

    def test_other_certificate_of_the_issuers_name_is_not_above(self):
        (self.folder / "false").mkdir()
        self.add(Authority(self.folder / "false", "Root").certificate.read_bytes(), "false")
        self.add(self.root.sign(self.requests["b"], -5, 70.5), "b")
        self.assertIn("CN=Root (not in the database)", self.lines())
        records = self.run_tool("tree", "--json").document["records"]
        self.assertEqual({0}, {record["depth"] for record in records})

    def test_issuer_of_a_circle_is_not_missing(self):
        authorities = {name: Authority(self.folder, name) for name in ("One", "Two")}
        for name, other in ("One", "Two"), ("Two", "One"):
            request = openssl("req", "-new", "-key", authorities[name].folder / "ca.key",
                              "-subj", f"/CN={name}")
            self.add(authorities[other].sign(request, -1, 90.5, "issuer"), name.lower())
        self.assertEqual([
            "CN=Two (certificates/remote/two, shown below)",
            f"└─ CN=One  certificates/remote/one  until {day(90.5)}",
            f"   └─ CN=Two  certificates/remote/two  until {day(90.5)}"], self.lines())
        records = self.run_tool("tree", "--json").document["records"]
        self.assertEqual(["certificates/remote/two", "certificates/remote/one"],
                         [record["issuerAddress"] for record in records])
        self.assertFalse(any("missing" in record for record in records))

    def test_says_last_what_ends_first(self):
        """On a terminal below the tree, for whoever reads it; it is no part of the data."""
        self.add_all()
        for columns in (20, 40, 80, 200):
            for command, told in (("tree", "the first to end is certificates/local/b, in"),
                                  ("ls --expires-within 100d", "superseded by newer ones and left out: 1"),
                                  ("prune", "nothing to remove: nothing has expired"),
                                  ("check", "no damage found; --deep")):
                with self.subTest(command=command, columns=columns):
                    terminal = Terminal(command.split(), cwd=self.folder, columns=columns,
                                        password=support.PASSWORD)
                    self.addCleanup(terminal.close)
                    self.assertEqual(0, terminal.wait())
                    last = terminal.seen.split("fstore:")[-1]  # in several lines where narrow
                    self.assertIn("".join(told.split()), "".join(last.split()))
                    self.assertIn("fstore:", terminal.seen)
        self.assertNotIn("first to end", self.run_tool("tree").text)
        self.assertNotIn("first to end", self.run_tool("-q", "tree").message)

    def test_a_narrow_terminal_shortens_names_and_no_date(self):
        self.add_all()
        dates = {day(n) for n in (1000, 500.5, 50.5, 90.5, 70.5)}
        for command in "tree", "ls":
            for columns in range(10, 90):
                terminal = Terminal([command, "--color", "never"], cwd=self.folder, columns=columns,
                                    password=support.PASSWORD)
                self.addCleanup(terminal.close)
                self.assertEqual(0, terminal.wait(), terminal.seen)
                rows = terminal.seen.split("fstore:")[0]
                shown = set(re.findall(r"\d{4}-[-\d]*…?", rows))
                with self.subTest(command=command, columns=columns):
                    self.assertLessEqual({date.rstrip("…") for date in shown}, dates, rows)
                    self.assertTrue(columns < 40 or len(shown) >= 4, rows)

    def test_document(self):
        self.add_all()
        document = self.run_tool("tree", "--json").document
        self.assertEqual("certificates/local/b", document["first"])
        self.assertEqual({"root": (0, True, None), "b": (1, False, "keys/b"), "sub": (1, False, None),
                          "old": (2, False, "keys/a"), "new": (2, False, "keys/a")},
                         {record["address"].rsplit("/", 1)[1]:
                          (record["depth"], record["root"], record.get("keyAddress"))
                          for record in document["records"]})

    def test_host_without_a_certificate(self):
        self.add_all()
        self.assertIn("no certificate for c.example.com",
                      self.fails(50, "missing", "tree", "--for", "c.example.com"))
        self.fails(4, "invalid", "tree", "--for", "a b")
        self.assertEqual(b"", self.run_tool("tree", "-D", self.empty()).out)

    def empty(self):
        """A database without certificates."""
        folder = self.folder / "empty"
        self.run_tool("-D", folder, "init", *support.CHEAP)
        return folder

    def test_needs_no_password(self):
        self.add_all()
        self.run_tool("tree", password=None)


if __name__ == "__main__":
    support.main()
