#!/usr/bin/env python3
"""The OpenSSL provider, used by the machine's own openssl program and by one that loads keys as servers do."""

import os
import re
import shutil
import socket
import subprocess
import time

from provider_case import ALGORITHMS, CONFIGURATION, PROVIDER, ProviderTest, plain, support

LOADS = os.environ["PROVIDER_LOADS"]


class UriTest(ProviderTest):
    """Records by their URI."""

    def test_keys_of_each_algorithm(self):
        for name in ALGORITHMS:
            with self.subTest(name):
                uri = f"fstore:///?for={name}.example.com&type=key"
                self.assertEqual(plain("pkey", "-in", self.made / f"{name}.key"),
                                 self.openssl("pkey", "-in", uri))
                self.assertEqual(plain("pkey", "-in", self.made / f"{name}.key", "-pubout"),
                                 self.openssl("pkey", "-pubin", "-in", uri, "-pubout"))

    def test_certificates_and_their_public_keys(self):
        uri = "fstore:///?for=ec.example.com&type=cert"
        self.assertEqual(plain("x509", "-in", self.made / "ec.pem"), self.openssl("x509", "-in", uri))
        self.assertEqual(plain("x509", "-in", self.made / "ec.pem", "-noout", "-pubkey"),
                         self.openssl("pkey", "-pubin", "-in", uri, "-pubout"))

    def test_crl(self):
        self.assertEqual(plain("crl", "-in", self.made / "crl.pem"),
                         self.openssl("crl", "-in", "fstore:///" + self.only("crl")))

    def test_pair_is_a_certificate_to_who_wants_one(self):
        uri = "fstore:///?for=ed.example.com"
        self.assertEqual(b"subject=CN = ed\n", self.openssl("x509", "-in", uri, "-noout", "-subject"))
        for form in uri, uri.replace("fstore", "FSTORE"):
            self.openssl("pkey", "-in", form, "-noout")

    def test_chain_has_the_issuers(self):
        listed = self.openssl("storeutl", "-noout", "-certs",
                              "fstore:///?for=rsa.example.com&type=chain").decode()
        self.assertEqual(["Certificate", "Certificate"], re.findall(r"\d: (\w+)", listed))

    def test_folder_lists_its_records(self):
        listed = self.openssl("storeutl", "-noout", "fstore:///").decode()
        self.assertEqual(len(self.records()), listed.count("Name: fstore:///"))
        listed = self.openssl("storeutl", "-noout", "-crls", "fstore:///").decode()
        self.assertIn("Total found: 1", listed)
        (uri,) = re.findall(r"Name: (\S+)", listed)
        self.openssl("crl", "-in", uri, "-noout")

    def test_searches(self):
        run = self.command(LOADS, "search", "fstore:///certificates", self.made / "rsa.pem", "rsa")
        self.assertEqual((0, b""), (run.returncode, run.stdout))
        listed = self.openssl("storeutl", "-noout", "-certs", "-subject", "/CN=ed", "fstore:///")
        self.assertIn(b"0: Certificate", listed)
        self.assertIn(b"Total found: 1", listed)

    def test_a_newer_openssl_opens_with_what_it_expects(self):
        run = self.command(LOADS, "newer", "fstore:///?for=rsa.example.com")
        self.assertEqual((0, b""), (run.returncode, run.stdout))

    def test_certificates_need_no_password(self):
        self.configure()
        self.openssl("x509", "-in", "fstore:///?for=ec.example.com&type=cert", "-noout")
        self.openssl("pkey", "-pubin", "-in", "fstore:///?for=ec.example.com", "-noout")

    def test_trusted_certificates_of_a_folder(self):
        run = self.openssl("verify", "-CAstore", "fstore:///certificates/remote", self.made / "ec.pem")
        self.assertIn(b"OK", run)


class ReferenceTest(ProviderTest):
    """Files that stand for records."""

    def test_it_is_the_key(self):
        for name in ALGORITHMS:
            with self.subTest(name):
                ref = self.ref(f"fstore:///?for={name}.example.com&type=key")
                self.assertEqual(plain("pkey", "-in", self.made / f"{name}.key"),
                                 self.openssl("pkey", "-in", ref))

    def test_it_is_a_certificate_and_a_crl(self):
        ref = self.ref("fstore:///?for=ec.example.com&type=cert")
        self.assertEqual(plain("x509", "-in", self.made / "ec.pem"), self.openssl("x509", "-in", ref))
        ref = self.ref(self.only("crl"))
        self.assertEqual(plain("crl", "-in", self.made / "crl.pem"), self.openssl("crl", "-in", ref))

    def test_it_holds_no_secret_and_all_may_read_it(self):
        ref = self.ref("fstore:///?for=ec.example.com")
        self.assertEqual(0o644, ref.stat().st_mode & 0o777)
        self.run_tool("ref", "fstore:///?for=ec.example.com", "-o", "own.pem", "--private")
        self.assertEqual(0o600, (self.folder / "own.pem").stat().st_mode & 0o777)
        self.assertEqual(ref.read_bytes(), (self.folder / "own.pem").read_bytes())

    def test_reference_to_nothing_is_not_written(self):
        self.fails(50, "missing", "ref", "keys/none", "-o", "none.pem")
        self.fails(50, "missing", "ref", "fstore:///?for=none.example.com", "-o", "none.pem")
        self.fails(4, "invalid", "ref", "keys", "-o", "none.pem")
        self.assertFalse((self.folder / "none.pem").exists())

    def test_it_may_stand_behind_certificates(self):
        ref = self.ref("fstore:///?for=rsa.example.com&type=key")
        bundle = self.write("bundle.pem", (self.made / "rsa.pem").read_bytes() + ref.read_bytes())
        self.assertEqual(plain("pkey", "-in", self.made / "rsa.key"), self.openssl("pkey", "-in", bundle))
        self.assertEqual(plain("x509", "-in", self.made / "rsa.pem"), self.openssl("x509", "-in", bundle))
        run = self.command(LOADS, "repeat", "1", bundle)
        self.assertEqual((0, b""), (run.returncode, run.stdout))

    def test_signs_and_decrypts(self):
        ref = self.ref("fstore:///?for=rsa.example.com&type=key")
        message = self.write("message", "hello")
        made = self.openssl("cms", "-sign", "-in", message, "-signer", self.made / "rsa.pem",
                            "-inkey", ref, "-outform", "PEM", "-nodetach")
        self.assertIn(b"hello", plain("cms", "-verify", "-inform", "PEM", "-CAfile",
                                      self.made / "root.pem", "-purpose", "any", stdin=made))
        secret = plain("cms", "-encrypt", "-outform", "PEM", self.made / "rsa.pem", stdin=b"secret")
        self.assertEqual(b"secret", self.openssl("cms", "-decrypt", "-inform", "PEM", "-inkey", ref,
                                                 "-recip", self.made / "rsa.pem", stdin=secret))

    def test_files_of_others_are_read_as_ever(self):
        for name in ALGORITHMS:
            for form in "PEM", "DER":
                key = plain("pkey", "-in", self.made / f"{name}.key", "-outform", form)
                self.openssl("pkey", "-in", self.write("other.key", key), "-noout")
        encrypted = plain("pkcs8", "-topk8", "-in", self.made / "ec.key", "-passout", "pass:other")
        self.openssl("pkey", "-in", self.write("other.key", encrypted), "-passin", "pass:other",
                     "-noout")
        self.openssl("x509", "-in", self.made / "ec.pem", "-noout")

    def test_blocks_that_cannot_be_read_say_so(self):
        begin, end = "-----BEGIN FSTORE URI-----\n", "-----END FSTORE URI-----\n"
        for text, why in ((begin + "!!!!\n" + end, "is not base64"),
                          (begin + "Zm9v\n" + end, "not a valid URI"),
                          (begin + "Zm9v\n", "has no end"),
                          (begin + "AAAA\n" + end, "NUL"),
                          (begin + "Zm9v\n" * 9999 + end, "too long"),
                          (begin + "Zm9v\n-----END OTHER-----\n", "ends as another")):
            with self.subTest(why):
                self.assertIn(why, self.refused("pkey", "-noout", "-in", self.write("bad.pem", text)))


class HostileReferenceTest(ProviderTest):
    """Files that somebody else has written, or a careless editor."""

    BEGIN, END = "-----BEGIN FSTORE URI-----", "-----END FSTORE URI-----"

    @staticmethod
    def block(uri, line_end="\n"):
        begin, end = HostileReferenceTest.BEGIN, HostileReferenceTest.END
        digits = plain("base64", "-A", stdin=uri.encode() if isinstance(uri, str) else uri).decode()
        return line_end.join((begin, digits, end, ""))

    def test_lines_that_end_as_on_windows(self):
        ref = self.write("ref.pem", self.block("fstore:///?for=ec.example.com&type=key", "\r\n"))
        self.assertEqual(plain("pkey", "-in", self.made / "ec.key"), self.openssl("pkey", "-in", ref))

    def test_of_two_blocks_the_first_counts(self):
        for first, second in ("ec", "ed"), ("ed", "ec"):
            ref = self.write("ref.pem", "".join(
                self.block(f"fstore:///?for={name}.example.com&type=key") for name in (first, second)))
            self.assertEqual(plain("pkey", "-in", self.made / f"{first}.key"),
                             self.openssl("pkey", "-in", ref))

    def test_uris_that_lead_nowhere(self):
        for uri in ("fstore:///..%2f..%2fetc/passwd", "fstore:///../../etc/passwd",
                    "fstore:///keys/%00", "fstore:///keys/%", "fstore:///keys/%zz",
                    "fstore:///keys/%2", "fstore://host/keys/a", "fstore:keys", "FSTORE:///keys/a",
                    "fstore:///keys/../keys/none", "fstore:////etc/passwd", "fstore:///?for=",
                    "fstore:///?for=%2A", "fstore:///?for=a&for=b", "fstore:///?key=a",
                    "fstore:///?for=ec.example.com&type=private", "fstore:///keys/%0a", "file:///etc/passwd",
                    "fstore:///" + "a/" * 2000, "fstore:///" + "%41" * 1300, b"fstore:///\xff\xfe"):
            with self.subTest(uri):
                ref = self.write("ref.pem", self.block(uri))
                said = self.refused("pkey", "-noout", "-in", ref)
                self.assertIn(":fstore:", said)

    def test_huge_files_end_soon_and_take_little_memory(self):
        limit = ("prlimit", "--as=1073741824")
        # Of files that have no block of ours, libcrypto itself takes minutes a megabyte.
        for piece in b"A" * 63 + b"\n", b"A":
            with self.subTest(piece):
                ref = self.folder / "huge.pem"
                with open(ref, "wb") as file:
                    file.write(self.BEGIN.encode() + b"\n")
                    for _ in range(32):
                        file.write((piece * (1 << 20))[:1 << 20])
                began = time.monotonic()
                self.refused("pkey", "-noout", "-in", ref, prefix=limit)
                self.assertLess(time.monotonic() - began, 60)

    def test_in_place_of_a_file(self):
        """Links, folders and FIFOs are for the program to open; what comes out is read the same."""
        text = self.block("fstore:///?for=ec.example.com&type=key")
        self.write("ref.pem", text)
        (self.folder / "link.pem").symlink_to("ref.pem")
        self.openssl("pkey", "-noout", "-in", self.folder / "link.pem")
        self.refused("pkey", "-noout", "-in", self.folder)
        os.mkfifo(self.folder / "fifo.pem")
        with subprocess.Popen(["sh", "-c", "cat ref.pem >fifo.pem"], cwd=self.folder) as writer:
            run = self.command(LOADS, "load", "fifo.pem")
            self.assertEqual((0, b""), (run.returncode, run.stdout))
            self.assertEqual(0, writer.wait(timeout=30))


class ChangeTest(ProviderTest):
    """The database changes while it is read: what is loaded is a key that was there, or none."""

    def test_loads_during_changes(self):
        uri = "fstore:///?for=ec.example.com&type=key"
        for name in "first", "second":
            plain("genpkey", "-algorithm", "ED25519", "-out", f"{name}.key", cwd=self.folder)
        script = "for i in $(seq 12); do for f in first second; do " \
                 f"{support.PROGRAM} -q -D {self.folder} --key-file {self.key_file} " \
                 "import --name changed --replace $f.key || exit 1; done; done"
        keys = {plain("pkey", "-in", self.folder / f"{name}.key") for name in ("first", "second")}
        self.run_tool("import", "--name", "changed", "first.key")
        ref = self.write("changed.pem", HostileReferenceTest.block("fstore:///keys/changed"))
        with subprocess.Popen(["sh", "-c", script], cwd=self.folder) as changes:
            while changes.poll() is None:
                self.assertIn(self.openssl("pkey", "-in", ref), keys)
                self.openssl("pkey", "-noout", "-in", uri)
        self.assertEqual(0, changes.returncode)


class HandshakeTest(ProviderTest):
    """TLS with the openssl program at both ends."""

    def free_port(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            return probe.getsockname()[1]

    def handshake(self, server, *client):
        port = self.free_port()
        env = support.environment(OPENSSL_CONF=self.folder / "openssl.cnf")
        with subprocess.Popen(["openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-naccept",
                               "1", *map(str, server)], env=env, cwd=self.folder,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT) as process:
            try:
                for line in process.stdout:
                    if line.startswith(b"ACCEPT"):
                        break
                run = self.command("openssl", "s_client", "-connect", f"127.0.0.1:{port}",
                                   "-CAfile", self.made / "root.pem", "-verify_return_error",
                                   *client, stdin=b"Q\n")
                process.communicate(timeout=30)
            finally:
                process.kill()
        return run

    def test_each_algorithm(self):
        for name in ALGORITHMS:
            with self.subTest(name):
                ref = self.ref(f"fstore:///?for={name}.example.com&type=key")
                run = self.handshake(["-cert", self.made / f"{name}.pem", "-key", ref],
                                     "-verify_hostname", f"{name}.example.com")
                self.assertEqual(0, run.returncode, run.stderr.decode())
                self.assertIn(b"Verify return code: 0 (ok)", run.stdout)

    def test_by_uri_and_with_a_client_certificate(self):
        run = self.handshake(["-cert", "fstore:///?for=ec.example.com&type=cert", "-key",
                              "fstore:///?for=ec.example.com&type=key", "-Verify", "1", "-CAfile",
                              self.made / "root.pem", "-verify_return_error"],
                             "-cert", "fstore:///?for=rsa.example.com&type=cert",
                             "-key", "fstore:///?for=rsa.example.com&type=key")
        self.assertEqual(0, run.returncode, run.stderr.decode())
        self.assertIn(b"Verify return code: 0 (ok)", run.stdout)


class FailureTest(ProviderTest):
    """The program's own log says what went wrong, where, and what to do."""

    KEY = "fstore:///?for=ec.example.com&type=key"

    def both(self, *sentences, uri=KEY, **more):
        """The sentence is the same by URI and by reference."""
        ref = self.write("some.pem", "-----BEGIN FSTORE URI-----\n"
                         + plain("base64", "-A", stdin=uri.encode()).decode()
                         + "\n-----END FSTORE URI-----\n")
        for given in uri, ref:
            said = self.refused("pkey", "-noout", "-in", given, **more)
            for sentence in sentences:
                self.assertIn(sentence, said)

    def test_wrong_password(self):
        self.use_password()
        self.write("password", "wrong")
        self.both("wrong password or key", f"in {self.folder} with {self.folder}/password")

    def test_no_password(self):
        self.configure()
        self.both("no password or key was given", "password", env={"FSTORE_PASSWORD": ""})

    def test_missing_password_file(self):
        self.configure("password-file = /nowhere/password")
        self.both("/nowhere/password")

    def test_missing_record(self):
        self.both("no such record", f"keys/none of the database in {self.folder}",
                  uri="fstore:///keys/none")

    def test_missing_host(self):
        self.both("no certificate for none.example.com in the database",
                  uri="fstore:///?for=none.example.com")

    def test_missing_database(self):
        shutil.rmtree(self.folder / "db")
        self.both(str(self.folder))

    def test_no_folder(self):
        self.write("openssl.cnf", CONFIGURATION.format(module=PROVIDER, folder="", more="")
                   .replace("dir = \n", ""))
        self.both("the provider is not configured", "FSTORE_DIR")

    def test_two_places_for_the_password(self):
        self.configure("password-file = a\nkey-file = b")
        self.both("has both key-file and password-file")

    def test_damaged_record(self):
        key = self.run_tool("show", "--json", "--for", "ec.example.com", "--type", "key",
                            password=None).document["records"][0]["address"]
        line = next(line for line in (self.folder / "db" / f"{key}.dsc").read_text().splitlines()
                    if line.startswith("1"))
        body = self.folder / "db/keys" / line.split(" ")[2]
        contents = bytearray(body.read_bytes())
        contents[len(contents) // 2] ^= 1
        body.write_bytes(contents)
        self.both("the record is damaged", key)

    def test_record_that_is_nothing_to_load(self):
        self.put("settings/text", b"hello")
        self.both("settings/text", "fstore get", uri="fstore:///settings/text")

    def test_locked_database(self):
        lock = subprocess.Popen(["flock", "-x", self.folder, "sleep", "60"])
        self.addCleanup(lock.wait)
        self.addCleanup(lock.kill)
        time.sleep(1)
        self.both("another process uses the database", str(self.folder))


class PlaceTest(ProviderTest):
    """Where folder and password come from: the first that is there."""

    KEY = "fstore:///?for=ec.example.com&type=key"

    def test_environment(self):
        self.configure()
        for variables in ({"FSTORE_PASSWORD_FILE": self.folder / "password"},
                          {"FSTORE_PASSWORD": support.PASSWORD},
                          {"FSTORE_PASSWORD_FILE": self.folder / "password", "FSTORE_PASSWORD": "no"}):
            self.openssl("pkey", "-noout", "-in", self.KEY, env=variables)

    def test_configuration_comes_before_the_environment(self):
        self.use_password()
        self.openssl("pkey", "-noout", "-in", self.KEY, env={"FSTORE_PASSWORD": "no", "FSTORE_DIR": "/"})

    def test_folder_of_the_environment(self):
        self.write("openssl.cnf", CONFIGURATION.format(module=PROVIDER, folder="", more="")
                   .replace("dir = \n", ""))
        self.openssl("pkey", "-noout", "-in", self.KEY,
                     env={"FSTORE_DIR": self.folder, "FSTORE_PASSWORD": support.PASSWORD})

    def test_the_programs_own_pass_phrase(self):
        self.configure()
        ref = self.ref(self.KEY)
        for given in self.KEY, ref:
            self.openssl("pkey", "-noout", "-in", given, "-passin", "file:password")

    def add_key_file(self, name="host.key"):
        self.run_tool("key", "add", "--key-file", self.outside() / name)
        return self.outside() / name

    def outside(self):
        folder = self.folder / "outside"
        folder.mkdir(mode=0o700, exist_ok=True)
        return folder

    def test_a_key_file_of_the_configuration(self):
        path = self.add_key_file()
        self.configure(f"key-file = {path}")
        for given in self.KEY, self.ref(self.KEY):
            self.openssl("pkey", "-noout", "-in", given, env={"FSTORE_PASSWORD": "no"})

    def test_a_key_file_of_the_environment(self):
        path = self.add_key_file()
        self.configure()
        self.openssl("pkey", "-noout", "-in", self.KEY, env={
            "FSTORE_KEY_FILE": path, "FSTORE_PASSWORD_FILE": "/no", "FSTORE_PASSWORD": "no",
            "CREDENTIALS_DIRECTORY": "/no"})

    def test_a_key_file_of_systemd(self):
        self.add_key_file("fstore.key")
        self.configure()
        self.openssl("pkey", "-noout", "-in", self.KEY,
                     env={"CREDENTIALS_DIRECTORY": self.outside()})
        said = self.refused("pkey", "-noout", "-in", self.KEY,
                            env={"CREDENTIALS_DIRECTORY": self.outside(), "FSTORE_PASSWORD": "no"})
        self.assertIn("wrong password", said)

    def test_a_key_file_that_opens_nothing_is_named(self):
        path = self.add_key_file()
        self.run_tool("key", "rm", "3")
        self.configure(f"key-file = {path}")
        said = self.refused("pkey", "-noout", "-in", self.KEY)
        self.assertIn("wrong key file", said)
        self.assertIn(str(path), said)
        path.write_text("edited")
        said = self.refused("pkey", "-noout", "-in", self.KEY)
        self.assertIn("not a key file", said)

    def test_printed_configuration_has_the_key_file(self):
        path = self.add_key_file()
        text = self.run_tool("openssl-conf", "--key-file", path, password=None).text
        self.assertIn(f"key-file = {path}\n", text)
        self.write("openssl.cnf", text)
        self.openssl("pkey", "-noout", "-in", self.KEY)

    def test_wrong_key_file_fails_and_nothing_else_is_tried(self):
        self.configure(f"key-file = {self.folder}/none.key")
        said = self.refused("pkey", "-noout", "-in", self.KEY, env={"FSTORE_PASSWORD": support.PASSWORD})
        self.assertIn("unlocking the database", said)

    def test_printed_configuration_without_provider_is_warned_about(self):
        folder = plain("version", "-m").decode().split('"')[1]
        (self.folder / "away").mkdir()
        tool = shutil.copy(support.PROGRAM, self.folder / "away")
        run = subprocess.run([tool, "openssl-conf"], cwd=self.folder, capture_output=True,
                             check=True, timeout=60)
        self.assertNotIn(b"module =", run.stdout)
        self.assertNotEqual(os.path.exists(f"{folder}/fstore.so"),
                            f"fstore.so, is not in {folder}".encode() in run.stderr)

    def test_printed_configuration_works(self):
        run = self.run_tool("openssl-conf", "--password-file", "password")
        self.assertEqual("", run.message)
        self.assertIn(f"module = {PROVIDER}\n", run.text)
        self.write("openssl.cnf", run.text)
        self.openssl("pkey", "-noout", "-in", self.KEY)


class ServerTest(ProviderTest):
    """As servers load keys: often, in children, in threads, in several contexts."""

    def loads(self, *args):
        ref = self.ref("fstore:///?for=ed.example.com&type=key")
        run = self.command(LOADS, *args, ref)
        self.assertEqual((0, b""), (run.returncode, run.stdout), run.stdout.decode())

    def test_thousand_loads_leave_no_byte_and_no_descriptor(self):
        self.loads("repeat", "1000")

    def test_loads_with_a_password_leave_no_byte(self):
        self.use_password()
        self.loads("repeat", "5")

    def test_children(self):
        self.loads("fork")

    def test_contexts_and_unloading(self):
        self.loads("contexts", "3")

    def test_forks_while_others_load(self):
        self.loads("forks", "10")

    def test_unloading_while_others_load(self):
        self.loads("unload", "5")

    def test_threads(self):
        self.loads("threads", "5")


if __name__ == "__main__":
    support.main()
