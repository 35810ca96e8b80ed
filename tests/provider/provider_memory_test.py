#!/usr/bin/env python3
"""The openssl program with the provider, while each access to memory is watched: by valgrind, which also
looks for leaks, or in a build with the address sanitizer by its runtime.
"""

import concurrent.futures
import os
import pathlib
import subprocess

from provider_case import PROVIDER, ProviderTest, plain, support

LOSES = os.environ["PROVIDER_LOSES"]
FOUND = 99  # the exit code when something is found
KEY = "fstore:///?for=rsa.example.com&type=key"
CERTIFICATE = "fstore:///?for=rsa.example.com&type=cert"


def valgrind():
    return ("valgrind", "--quiet", "--leak-check=full", "--errors-for-leak-kinds=definite,indirect",
            "--keep-debuginfo=yes", "--num-callers=40", f"--error-exitcode={FOUND}",
            f"--suppressions={pathlib.Path(__file__).parent / 'loader.supp'}"), {}


def sanitizer():
    """The program is not instrumented, so the runtimes have to come first. Their look for leaks reads
    the threads' storage of libraries that libcrypto has unloaded by then, and dies of it.
    """
    libraries = [subprocess.run(["g++", f"-print-file-name={name}"], capture_output=True, check=True,
                                text=True).stdout.strip() for name in ("libasan.so", "libubsan.so")]
    return (), {"LD_PRELOAD": ":".join(libraries),
                "ASAN_OPTIONS": f"detect_leaks=0:exitcode={FOUND}",
                "UBSAN_OPTIONS": f"halt_on_error=1:exitcode={FOUND}"}


class MemoryTest(ProviderTest):
    def setUp(self):
        super().setUp()
        self.prefix, self.variables = sanitizer() if support.SANITIZED else valgrind()

    def run_watched(self, *args, configuration="openssl.cnf", stdin=b""):
        env = {**os.environ, **self.variables, "OPENSSL_CONF": str(self.folder / configuration)}
        return subprocess.run([*self.prefix, *map(str, args)], input=stdin, capture_output=True,
                              cwd=self.folder, env=env, check=False, timeout=200)

    def test_what_watches_sees_what_is_wrong(self):
        key = self.made / "ec.key"
        self.assertEqual(0, self.run_watched(LOSES, "nothing", key).returncode)
        seen = {"read": "heap-use-after-free"} if support.SANITIZED else \
            {"read": "Invalid read", "leak": "definitely lost"}
        for what, said in seen.items():
            run = self.run_watched(LOSES, what, key)
            self.assertEqual(FOUND, run.returncode, run.stderr.decode())
            self.assertIn(said, run.stderr.decode())

    def test_commands(self):
        ref, cert = self.ref(KEY), self.made / "rsa.pem"
        message = self.write("message", "hello")
        secret = plain("cms", "-encrypt", "-outform", "PEM", cert, stdin=b"secret")
        self.write("wrong", "wrong").chmod(0o600)
        self.configure(f"password-file = {self.folder}/wrong")
        (self.folder / "openssl.cnf").rename(self.folder / "wrong.cnf")
        self.configure(f"key-file = {self.key_file}")
        missing = self.write("missing.pem", "-----BEGIN FSTORE URI-----\n" + plain(
            "base64", "-A", stdin=b"fstore:///keys/none").decode() + "\n-----END FSTORE URI-----\n")
        good = [("pkey", "-noout", "-in", KEY), ("pkey", "-noout", "-in", ref),
                ("pkey", "-pubin", "-noout", "-in", KEY),
                ("x509", "-noout", "-in", CERTIFICATE),
                ("crl", "-noout", "-in", "fstore:///" + self.only("crl")),
                ("storeutl", "-noout", "-certs", "-subject", "/CN=ed", "fstore:///"),
                ("cms", "-sign", "-in", message, "-signer", cert, "-inkey", ref, "-out", "/dev/null")]
        bad = [("pkey", "-noout", "-in", "fstore:///keys/none"), ("pkey", "-noout", "-in", missing)]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            runs = [(0, args, pool.submit(self.run_watched, "openssl", *args)) for args in good]
            runs += [(1, args, pool.submit(self.run_watched, "openssl", *args)) for args in bad]
            args = ("cms", "-decrypt", "-inform", "PEM", "-inkey", KEY, "-recip", cert)
            runs.append((0, args, pool.submit(self.run_watched, "openssl", *args, stdin=secret)))
            args = ("pkey", "-noout", "-in", ref)
            runs.append((1, args, pool.submit(self.run_watched, "openssl", *args,
                                              configuration="wrong.cnf")))
        for code, args, future in runs:
            run = future.result()
            with self.subTest(args):
                self.assertEqual(code, run.returncode, run.stderr.decode())
                self.assertNotIn(b"==ERROR", run.stderr)
                if code != 0:
                    self.assertRegex(run.stderr.decode(), "no such record|wrong password")


if __name__ == "__main__":
    assert pathlib.Path(PROVIDER).exists()
    support.main()
