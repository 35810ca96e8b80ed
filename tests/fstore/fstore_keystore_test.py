#!/usr/bin/env python3
"""import of Java's own keystores, which keytool converts; here a stand-in for it, which says what it was given."""

import json
import os
import pathlib
import shlex
import sys

import support
from pki import openssl
from support import InitialisedTest

JKS, JCEKS = (magic + b"\0\0\0\2\0\0\0\1" for magic in (b"\xfe\xed\xfe\xed", b"\xce\xce\xce\xce"))
WORD = "gehéim€"
# What the stand-in notes down before it does what a test wants of it.
STAND_IN = """#!{python}
import json, os, pathlib, sys
arguments = sys.argv[1:]
given = dict(zip(arguments, arguments[1:]))
source = given["-srckeystore"]
word = given["-srcstorepass:file"]
folder = os.path.dirname(word)
pathlib.Path({notes!r}).write_text(json.dumps({{
    "arguments": arguments, "environment": dict(os.environ), "folder": folder,
    "modes": [os.stat(name).st_mode & 0o777 for name in (folder, source, word,
                                                          given["-deststorepass:file"])],
    "keystore": pathlib.Path(source).read_bytes().hex(),
    "password": pathlib.Path(word).read_text(encoding="utf-8"),
    "new": pathlib.Path(given["-deststorepass:file"]).read_text(),
    "input": sys.stdin.read()}}))
{rest}
"""
CONVERTS = """
import subprocess
print("Importing keystore")
sys.exit(subprocess.run(["openssl", "pkcs12", "-export", "-name", "alias", "-inkey", {key!r}, "-in", {pem!r},
                         "-passout", "file:" + given["-deststorepass:file"], "-out", given["-destkeystore"]]
                        ).returncode)
"""


class KeystoreTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=www", "-keyout",
                folder / "www.key", "-out", folder / "www.pem")

    def setUp(self):
        super().setUp()
        self.write("x.jks", JKS)
        self.notes = self.folder / "notes"

    def stand_in(self, rest):
        """A keytool, and the environment in which it is the only one."""
        programs = self.folder / "programs"
        programs.mkdir(exist_ok=True)
        keytool = programs / "keytool"
        keytool.write_text(STAND_IN.format(python=sys.executable, notes=str(self.notes), rest=rest))
        keytool.chmod(0o755)
        return {"PATH": f"{programs}:{os.environ['PATH']}", "FSTORE_IN_PASSWORD": WORD}

    def says(self, text, code=1):
        return self.stand_in(f"print({text!r})\nsys.exit({code})")

    def converting(self):
        return self.stand_in(CONVERTS.format(key=str(self.folder / "www.key"),
                                             pem=str(self.folder / "www.pem")))

    def noted(self):
        return json.loads(self.notes.read_text())

    def test_what_keytool_makes_is_imported(self):
        for contents, kind in (JKS, "JKS"), (JCEKS, "JCEKS"):
            with self.subTest(kind):
                self.write("x.jks", contents)
                run = self.run_tool("--json", "import", "x.jks", env=self.converting())
                self.assertEqual(["certificates/local/alias", "keys/alias"], sorted(
                    record["address"].rsplit("-", 1)[0] for record in run.document["records"]))
                arguments = self.noted()["arguments"]
                self.assertEqual(kind, arguments[arguments.index("-srcstoretype") + 1])
                self.assertEqual(contents.hex(), self.noted()["keystore"])

    def test_passwords_go_through_memory_alone(self):
        self.run_tool("import", "x.jks", env=self.converting())
        noted = self.noted()
        self.assertEqual(WORD, noted["password"])
        self.assertGreaterEqual(len(noted["new"]), 32)
        rest = shlex.join(noted["arguments"]) + json.dumps(noted["environment"])
        for secret in WORD, noted["new"], support.PASSWORD:
            self.assertNotIn(secret, rest)
            self.assertNotIn(json.dumps(secret)[1:-1], rest)
        self.assertEqual([], [name for name in noted["environment"] if name.startswith("FSTORE_")])
        self.assertEqual([0o700, 0o600, 0o600, 0o600], noted["modes"])
        self.assertEqual("", noted["input"])
        self.assertRegex(noted["folder"], "^(/dev/shm|/run/user)/")
        self.assertFalse(pathlib.Path(noted["folder"]).exists())

    def test_keystore_may_come_from_the_standard_input(self):
        self.run_tool("import", "-", stdin=JKS, env=self.converting())
        self.assertEqual(2, len(self.records()))

    def test_password_is_wrong(self):
        said = "keytool error: java.io.IOException: Keystore was tampered with, or password was incorrect"
        message = self.fails(6, "wrong-password", "import", "x.jks", env=self.says(said))
        self.assertEqual("x.jks: wrong password for this Java keystore, or it is damaged", message)

    def test_password_of_a_key_is_another(self):
        said = "Enter key password for <two>keytool error: java.lang.Exception: Too many failures - try later"
        message = self.fails(6, "wrong-password", "import", "x.jks", env=self.says(said))
        self.assertIn("`keytool -keypasswd` gives it the same one", message)

    def test_reason_of_keytool_is_given_short(self):
        said = "Picked up JAVA_TOOL_OPTIONS: -Dx\nkeytool error: java.io.IOException: Invalid \x1bformat\nat x.y"
        message = self.fails(59, "malformed", "import", "x.jks", env=self.says(said))
        self.assertEqual("x.jks: keytool did not convert this Java keystore: Invalid \\x1bformat", message)
        message = self.fails(59, "malformed", "import", "x.jks", env=self.says("", code=3))
        self.assertEqual("x.jks: keytool failed with 3, and gave no reason", message)
        message = self.fails(59, "malformed", "import", "x.jks",
                             env=self.stand_in("os.kill(os.getpid(), 9)"))
        self.assertEqual("x.jks: keytool was ended by signal 9", message)

    def test_of_much_that_keytool_says_the_end_counts(self):
        env = self.stand_in("for _ in range(40): print('x' * 99_999)\n"
                            "print('keytool error: java.io.IOException: the end')\nsys.exit(1)")
        message = self.fails(59, "malformed", "import", "x.jks", env=env)
        self.assertEqual("x.jks: keytool did not convert this Java keystore: the end", message)
        env = self.stand_in("print('keytool error: ' + 'y' * 30_000_000)\nsys.exit(1)")
        message = self.fails(59, "malformed", "import", "x.jks", env=env)
        self.assertLess(len(message), 400)
        env = self.stand_in("for i in range(5000): print(f'Problem importing entry for alias {i}: no')\n"
                            + CONVERTS.format(key=str(self.folder / "www.key"),
                                              pem=str(self.folder / "www.pem")))
        run = self.run_tool("--json", "import", "x.jks", code=5, env=env)
        messages = [failure["error"]["message"] for failure in run.document["failures"]]
        self.assertEqual(1001, len(messages))
        self.assertEqual("keytool did not convert further entries", messages[-1])

    def test_where_the_files_are_is_not_told(self):
        for name in ("-srckeystore", "-srcstorepass:file"):
            env = self.stand_in(f"print('keytool error: java.io.IOException: no ' + given[{name!r}])\n"
                                "print('\\x1b[1m\\x07')\nsys.exit(1)")
            message = self.fails(59, "malformed", "import", "x.jks", env=env)
            self.assertRegex(message, r"\Ax.jks: keytool did not convert this Java keystore: no "
                                      r"(keystore|password)\Z")
        for rest, code, name in (("os.truncate(given['-destkeystore'], 1 << 29)", 4, "invalid"),
                                 ("os.chmod(given['-destkeystore'], 0)", 59, "malformed")):
            env = self.stand_in(f"open(given['-destkeystore'], 'w').close()\n{rest}")
            message = self.fails(code, name, "import", "x.jks", env=env, prefix=support.BOUND)
            self.assertNotIn("/dev/shm", message)
            self.assertIn("keytool", message)

    def test_no_password_is_repeated(self):
        for file in ("-srcstorepass:file", "-deststorepass:file"):
            rest = f"print('keytool error: no ' + pathlib.Path(given[{file!r}]).read_text())\nsys.exit(1)"
            message = self.fails(59, "malformed", "import", "x.jks", env=self.stand_in(rest))
            self.assertEqual("x.jks: keytool failed with 1, and gave no reason", message)

    def test_what_is_no_file_is_neither_waited_for_nor_followed(self):
        for rest in ("os.mkfifo(given['-destkeystore'])",
                     "os.symlink('/etc/passwd', given['-destkeystore'])", "pass"):
            message = self.fails(59, "malformed", "import", "x.jks", env=self.stand_in(rest))
            self.assertEqual("x.jks: keytool did not convert this Java keystore, and says it did",
                             message)

    def test_what_keytool_passes_over_is_told(self):
        env = self.stand_in("print('Problem importing entry for alias x: java.lang.Exception: no')\n" +
                            CONVERTS.format(key=str(self.folder / "www.key"),
                                            pem=str(self.folder / "www.pem")))
        run = self.run_tool("--json", "import", "x.jks", code=5, env=env)
        self.assertEqual(2, len(run.document["records"]))
        self.assertEqual(["keytool did not convert the entry x: java.lang.Exception: no"],
                         [failure["error"]["message"] for failure in run.document["failures"]])

    def test_without_keytool_the_command_is_named_and_nothing_asked(self):
        for contents in JKS, JCEKS:
            self.write("x.jks", contents)
            message = self.fails(59, "malformed", "import", "--no-input", "x.jks",
                                 env={"PATH": str(self.folder)})
            self.assertIn("`keytool -importkeystore -srckeystore FILE -destkeystore FILE.p12", message)


if __name__ == "__main__":
    support.main()
