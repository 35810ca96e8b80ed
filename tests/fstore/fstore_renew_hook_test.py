#!/usr/bin/env python3
"""renew-hook: what it writes runs as certbot, dehydrated and acme.sh run it, and brings the new pair."""

import os
import pathlib
import shlex
import shutil
import stat
import subprocess
import tempfile

import support
from pki import openssl
from support import CHEAP, FstoreTest

HOST = "www.example.com"
PLACE = ("--chain", "www/chain.pem", "--ref", "www/key.ref")


class HookTest(FstoreTest):
    def setUp(self):
        super().setUp()
        self.write("pass word", support.PASSWORD)
        os.chmod(self.folder / "pass word", 0o600)
        self.init()
        self.elsewhere = pathlib.Path(tempfile.mkdtemp(prefix="fstore-elsewhere-"))
        self.addCleanup(shutil.rmtree, self.elsewhere)
        # As certbot and dehydrated keep it: by a link.
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                "-keyout", self.folder / "privkey1.pem", "-out", self.folder / "fullchain.pem",
                "-subj", "/CN=a", "-addext", f"subjectAltName=DNS:{HOST}")
        os.symlink("privkey1.pem", self.folder / "privkey.pem")
        self.key = (self.folder / "privkey1.pem").read_bytes()

    def hook(self, client, *options):
        """Where the hook is, or for acme.sh its text."""
        args = ("renew-hook", client, HOST, *PLACE, "--password-file", "pass word", *options)
        if client == "acme.sh":
            return self.run_tool(*args, password=None).text
        self.run_tool(*args, "-o", f"{client}.hook", password=None)
        path = self.folder / f"{client}.hook"
        self.assertEqual(0o755, stat.S_IMODE(os.lstat(path).st_mode))
        if shutil.which("shellcheck"):
            subprocess.run(["shellcheck", path], check=True)
        return path

    def run_as(self, client, hook):
        """As the client runs it: somewhere else, with few variables."""
        key, chain = str(self.folder / "privkey.pem"), str(self.folder / "fullchain.pem")
        env = {"PATH": "/usr/bin:/bin"}
        if client == "certbot":
            command = [hook]
            env.update(RENEWED_LINEAGE=str(self.folder), RENEWED_DOMAINS=f"{HOST} other")
        elif client == "dehydrated":
            command = [hook, "deploy_cert", HOST, key, "cert.pem", chain, "chain.pem", "1700000000"]
        else:
            option, text = shlex.split(hook)
            self.assertEqual("--reloadcmd", option)
            command = ["sh", "-c", f"eval {shlex.quote(text)}"]
            env.update(CERT_KEY_PATH=key, CERT_FULLCHAIN_PATH=chain, CERT_PATH="cert.pem",
                       CA_CERT_PATH="ca.pem", Le_Domain=HOST)
        return subprocess.run(command, cwd=self.elsewhere, env=env, capture_output=True, check=False,
                              timeout=support.SECONDS)

    def test_imports_and_deploys(self):
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                run = self.run_as(client, self.hook(client, "--reload", "touch reloaded"))
                self.assertEqual((0, b""), (run.returncode, run.stderr))
                self.assertEqual((self.folder / "fullchain.pem").read_bytes(),
                                 (self.folder / "www/chain.pem").read_bytes())
                self.assertEqual(self.key, (self.folder / "privkey1.pem").read_bytes())
                exported = self.run_tool("export", "--for", HOST, "--type", "key", "--plain").out
                self.assertEqual(self.key, exported)
                os.unlink(self.elsewhere / "reloaded")
                self.run_tool("rm", "--force", *self.records())
                os.unlink(self.folder / "www")

    def test_key_is_emptied_on_request(self):
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                (self.folder / "privkey1.pem").write_bytes(self.key)
                run = self.run_as(client, self.hook(client, "--empty-key"))
                self.assertEqual((0, b""), (run.returncode, run.stderr))
                self.assertTrue((self.folder / "privkey.pem").is_symlink())
                left = [name for name, contents in self.files().items() if self.key in contents]
                self.assertEqual([], left)

    def test_key_of_another_certificate_is_not_emptied(self):
        """Clients run one hook for all that they renew: another program may read that key."""
        self.run_tool("import", "privkey.pem", "fullchain.pem")
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-nodes", "-keyout", self.folder / "privkey1.pem",
                        "-out", self.folder / "fullchain.pem",
                        "-subj", "/CN=mail", "-addext", "subjectAltName=DNS:mail.example.com")
                other = (self.folder / "privkey1.pem").read_bytes()
                run = self.run_as(client, self.hook(client, "--empty-key", "--force"))
                self.assertEqual((0, b""), (run.returncode, run.stderr))
                self.assertEqual(other, (self.folder / "privkey1.pem").read_bytes())
                self.assertEqual(1, run.stdout.count(b"\n"))
                self.assertIn(b"privkey.pem is not emptied: the certificate in", run.stdout)
                self.run_tool("export", "--for", "mail.example.com")

    def test_hooks_of_two_hosts_empty_the_key_of_both(self):
        """The second of them finds the key emptied by the first one."""
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                (self.folder / "privkey1.pem").write_bytes(self.key)
                for turn in "first", "second":
                    run = self.run_as(client, self.hook(client, "--empty-key", "--force"))
                    self.assertEqual((0, b"", b""), (run.returncode, run.stdout, run.stderr), turn)
                    self.assertEqual(b"", (self.folder / "privkey1.pem").read_bytes())

    def test_failed_look_at_what_is_deployed_keeps_the_key_and_fails(self):
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                # The reload takes the certificate away that is looked at afterwards.
                chain = self.folder / "fullchain.pem"
                saved = chain.read_bytes()
                hook = self.hook(client, "--empty-key", "--force", "--shell", "--reload",
                                 f": >{shlex.quote(str(chain))}")
                run = self.run_as(client, hook)
                self.assertNotEqual(0, run.returncode)
                self.assertIn(b"is not emptied", run.stdout)
                self.assertEqual(self.key, (self.folder / "privkey1.pem").read_bytes())
                chain.write_bytes(saved)
                self.run_tool("rm", "--force", *self.records())
                os.unlink(self.folder / "www")

    def test_copies_that_certbot_keeps_are_emptied_too(self):
        keys = self.folder / "keys"
        keys.mkdir()
        (keys / "0001_key-certbot.pem").write_bytes(self.key)
        (keys / "0000_key-certbot.pem").write_bytes(b"of another lineage")
        lineage = self.folder / "live/name"
        lineage.mkdir(parents=True)
        for name in "privkey.pem", "fullchain.pem":
            shutil.copy(self.folder / name, lineage)
        hook = self.hook("certbot", "--empty-key")
        subprocess.run([hook], env={"PATH": "/usr/bin:/bin", "RENEWED_LINEAGE": str(lineage)},
                       check=True)
        self.assertEqual(b"", (keys / "0001_key-certbot.pem").read_bytes())
        self.assertEqual(b"of another lineage", (keys / "0000_key-certbot.pem").read_bytes())

    def test_failure_is_the_clients_to_report_and_keeps_the_key(self):
        for client in "certbot", "dehydrated", "acme.sh":
            with self.subTest(client=client):
                run = self.run_as(client, self.hook(client, "--empty-key", "--reload", "false"))
                self.assertNotEqual(0, run.returncode)
                self.assertIn(b"the reload failed", run.stderr)
                self.assertEqual(self.key, (self.folder / "privkey1.pem").read_bytes())

    def test_dehydrated_calls_for_other_things(self):
        hook = self.hook("dehydrated")
        for handler in "startup_hook", "deploy_challenge", "unchanged_cert", "exit_hook":
            run = subprocess.run([hook, handler, "a", "b"], capture_output=True, check=False)
            self.assertEqual((0, b"", b""), (run.returncode, run.stdout, run.stderr))
        self.assertEqual([], self.records())

    def test_words_with_marks_stay_words(self):
        command = "echo 'a  b' \"$HOME\" >said; exit 0"
        run = self.run_as("acme.sh", self.hook("acme.sh", "--shell", "--reload", command))
        self.assertEqual((0, b""), (run.returncode, run.stderr))
        self.assertEqual("a  b", (self.elsewhere / "said").read_text().strip())

    def test_refuses_what_the_hook_could_not_do(self):
        for args in (("certbot", HOST, "--chain", "a"),
                     ("certbot", HOST, *PLACE, "--reload", "a; b"),
                     ("certbot", HOST, *PLACE, "--password-file", "-"),
                     ("lego", HOST, *PLACE)):
            self.fails(2, "usage", "renew-hook", *args)
        self.fails(4, "invalid", "renew-hook", "certbot", "no host", *PLACE)

    def test_refuses_files_that_deploy_would_refuse(self):
        (self.folder / "mine").mkdir()
        (self.folder / "mine/file").write_text("")
        for places in (("--chain", "a/chain.pem", "--ref", "b/key.ref"),
                       ("--chain", "mine/chain.pem", "--ref", "mine/key.ref"),
                       ("--chain", "mine", "--ref", "mine")):
            command = (HOST, *places)
            message = self.fails(4, "invalid", "deploy", *command)
            self.assertEqual(message, self.fails(4, "invalid", "renew-hook", "certbot", *command))
        self.assertEqual(["mine"], [name for name in os.listdir(self.folder) if "mine" in name])

    def test_folder_without_database_is_warned_about(self):
        self.assertEqual("", self.run_tool("renew-hook", "certbot", HOST, *PLACE).message)
        for command in ("renew-hook", "certbot", HOST, *PLACE), ("openssl-conf",):
            run = self.run_tool("-D", self.elsewhere, *command)
            self.assertIn(f"there is no database in {self.elsewhere} yet", run.message)
            self.assertIn(str(self.elsewhere), run.text)

    def test_existing_file_needs_force(self):
        self.hook("certbot")
        self.fails(4, "invalid", "renew-hook", "certbot", HOST, *PLACE, "-o", "certbot.hook")
        self.hook("certbot", "--force")


if __name__ == "__main__":
    support.main()
