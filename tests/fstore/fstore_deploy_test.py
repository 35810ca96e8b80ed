#!/usr/bin/env python3
"""deploy: a certificate and its key change together, and what a killed deployment left is finished."""

import base64
import errno
import hashlib
import os
import shutil
import stat
import subprocess
import tempfile
import threading

import support
from pki import openssl
from support import FstoreTest, InitialisedTest

HOST = "www.example.com"
KILLED = -9
FOLDER = ("--chain", "www/chain.pem", "--ref", "www/key.ref")
BUNDLE = ("--chain", "www.pem", "--ref", "www.pem")
HOOK = "env -u LD_PRELOAD sh hook.sh"  # the trap is for the tool


def make_pair(folder, name, days):
    """A key and a certificate of the host; of two, the one with more days serves it."""
    openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
            "-keyout", folder / f"{name}.key", "-out", folder / f"{name}.pem", "-days", days,
            "-subj", f"/CN={name}", "-addext", f"subjectAltName=DNS:{HOST}")


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


class DeployTest(InitialisedTest):
    """Begins with one certificate; renew() brings another one."""

    _pairs = {}

    @classmethod
    def fill(cls, folder):
        for name, days in ("old", 10), ("new", 20):
            make_pair(folder, name, days)
        run = support.fstore("-D", folder, "import", folder / "old.key", folder / "old.pem")
        assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        # What a server sees when it loads the files: a line for each time.
        self.write("hook.sh", "cat www/chain.pem www/key.ref www.pem 2>/dev/null | sha256sum >>log\n"
                              "test ! -e refuse || exit 3\n")

    def renew(self):
        self.run_tool("import", "new.key", "new.pem")

    def deploy(self, *args, **more):
        return self.run_tool("deploy", HOST, *args, **more)

    def loads(self):
        log = self.folder / "log"
        return log.read_text().splitlines() if log.exists() else []

    def deployed(self, files):
        """The name of the pair that is in the files; None for no files. Any mixture fails."""
        paths = [self.folder / path for path in dict.fromkeys(files[1::2])]
        if not any(path.exists() for path in paths):
            return None
        text = b"".join(path.read_bytes() for path in paths).decode()
        for name in "old", "new":
            if text == self.pair(name):
                return name
        raise AssertionError(f"no pair: {text}")

    def pair(self, name):
        """What deploy makes of it. A key is called by the digest of its PKCS#8."""
        certificate = (self.folder / f"{name}.pem").read_text()
        if certificate not in self._pairs:
            der = openssl("pkcs8", "-topk8", "-nocrypt", "-in", self.folder / f"{name}.key",
                          "-outform", "DER")
            address = f"fstore:///keys/key-{hashlib.sha256(der).hexdigest()[:8]}"
            uri = base64.b64encode(address.encode()).decode()
            self._pairs[certificate] = f"{certificate}-----BEGIN FSTORE URI-----\n{uri}\n" \
                                       "-----END FSTORE URI-----\n"
        return self._pairs[certificate]

    def state(self, name="www"):
        state = self.folder / f".{name}.fstore"
        return sorted(os.listdir(state)) if state.exists() else None


class FilesTest(DeployTest):
    def test_folder_needs_no_password(self):
        self.deploy(*FOLDER, password=None)
        self.assertEqual("old", self.deployed(FOLDER))
        self.assertEqual([0o644, 0o644], [mode(self.folder / path) for path in FOLDER[1::2]])
        self.assertEqual(0o755, mode(os.path.realpath(self.folder / "www")))

    def test_bundle_leaves_nothing_beside_it(self):
        self.deploy(*BUNDLE)
        self.assertEqual("old", self.deployed(BUNDLE))
        self.assertEqual(0o644, mode(self.folder / "www.pem"))
        self.assertIsNone(self.state("www.pem"))

    def test_private_files(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files, "--private")
            self.assertEqual({0o600}, {mode(self.folder / path) for path in files[1::2]})

    def test_permissions_are_a_change(self):
        self.deploy(*BUNDLE)
        self.deploy(*BUNDLE, "--private", "--reload", HOOK)
        self.assertEqual(1, len(self.loads()))

    def test_plain_key_is_for_its_owner_only(self):
        run = self.deploy(*FOLDER, "--key", "www/plain.key", "--json")
        self.assertEqual([str(self.folder / path) for path in
                          ("www/chain.pem", "www/key.ref", "www/plain.key")], run.document["files"])
        self.assertEqual(0o600, mode(self.folder / "www/plain.key"))
        self.assertEqual((self.folder / "old.key").read_bytes(),
                         (self.folder / "www/plain.key").read_bytes())

    def test_plain_key_makes_a_private_bundle(self):
        self.deploy("--chain", "www.pem", "--key", "www.pem")
        self.assertEqual(0o600, mode(self.folder / "www.pem"))
        self.assertEqual((self.folder / "old.pem").read_bytes() +
                         (self.folder / "old.key").read_bytes(),
                         (self.folder / "www.pem").read_bytes())

    def test_plain_key_that_is_replaced_is_not_kept(self):
        files = (*FOLDER, "--key", "www/plain.key")
        self.deploy(*files)
        old = (self.folder / "old.key").read_bytes()
        (self.folder / "old.key").unlink()
        self.renew()
        self.deploy(*files)
        left = [name for name, contents in self.files().items() if old in contents]
        self.assertEqual([], left)

    def test_selector_by_uri(self):
        self.run_tool("deploy", f"fstore:///?for={HOST}&alg=EC", *BUNDLE)
        self.assertEqual("old", self.deployed(BUNDLE))

    def test_reference_is_to_the_key_of_this_certificate(self):
        self.deploy(*FOLDER)
        self.renew()  # a server that loads its files now still finds the old key
        self.assertEqual("old", self.deployed(FOLDER))


class ChangeTest(DeployTest):
    def test_nothing_is_done_when_nothing_changed(self):
        for files in FOLDER, BUNDLE:
            run = self.deploy(*files, "--reload", HOOK, "--json")
            self.assertTrue(run.document["replaced"] and run.document["reloaded"])
            loads = len(self.loads())
            before = {name: os.lstat(self.folder / name).st_mtime_ns for name in self.files()}
            run = self.deploy(*files, "--reload", HOOK, "--json")
            self.assertFalse(run.document["replaced"] or run.document["reloaded"])
            self.assertEqual(loads, len(self.loads()))
            self.assertEqual(before, {name: os.lstat(self.folder / name).st_mtime_ns
                                      for name in self.files()})

    def test_renewal(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
        self.renew()
        for files in FOLDER, BUNDLE:
            self.deploy(*files, "--reload", HOOK)
            self.assertEqual("new", self.deployed(files))
        self.assertEqual(2, len(self.loads()))
        self.assertEqual(["2"], self.state())

    def test_changed_file_is_put_right(self):
        self.deploy(*FOLDER)
        (self.folder / "www/chain.pem").write_text("something else")
        self.deploy(*FOLDER)
        self.assertEqual("old", self.deployed(FOLDER))

    def test_further_file_in_the_folder_is_refused(self):
        self.deploy(*FOLDER)
        self.renew()
        for name in "other", "b", "c", "d":
            (self.folder / "www" / name).write_text("not ours")
        before = self.files()
        message = self.fails(4, "invalid", "deploy", HOST, *FOLDER, "--reload", HOOK)
        self.assertIn(f"{self.folder / 'www'} has b, c, d and 1 more, which this deployment does "
                      "not write", message)
        self.assertEqual(before, self.files())
        self.assertEqual([], self.loads())

    def test_pair_of_another_host_in_the_folder_is_refused(self):
        self.deploy(*FOLDER)
        message = self.fails(4, "invalid", "deploy", HOST, "--chain", "www/other.pem",
                             "--ref", "www/other.ref")
        self.assertIn("has chain.pem, key.ref, which", message)
        self.assertEqual("old", self.deployed(FOLDER))

    def test_folder_in_place_of_a_file_of_the_folder_is_refused(self):
        self.deploy(*FOLDER)
        (self.folder / "www/chain.pem").unlink()
        (self.folder / "www/chain.pem").mkdir()
        self.fails(4, "invalid", "deploy", HOST, *FOLDER)
        self.assertTrue((self.folder / "www/chain.pem").is_dir())

    def test_no_certificate(self):
        message = self.fails(50, "missing", "deploy", "other.example.com", *FOLDER)
        self.assertIn("no certificate for other.example.com", message)
        self.assertIsNone(self.state())


class ReloadTest(DeployTest):
    def killed(self, files):
        """Deploys the new pair with a reload that never ends well."""
        hook = (self.folder / "hook.sh").read_text()
        self.write("hook.sh", "kill -9 $PPID\n")
        run = support.fstore("deploy", HOST, *files, "--reload", HOOK, cwd=self.folder)
        self.assertEqual(KILLED, run.code)
        self.write("hook.sh", hook)

    def test_killed_reload_stays_due_until_one_is_done(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
        self.renew()
        for files in FOLDER, BUNDLE:
            self.killed(files)
            for _ in range(2):
                run = self.deploy(*files, "--json")
                self.assertEqual((False, False, True), self.done(run))
            self.assertIn("run deploy with --reload", self.deploy(*files).message)
            self.assertEqual((False, True, False), self.done(self.deploy(*files, "--reload", HOOK, "--json")))
            run = self.deploy(*files, "--json")
            self.assertEqual((False, False, False), self.done(run))
            self.assertIn("nothing was done", self.deploy(*files).message)

    def test_reload_stays_due_when_files_change_again_without_one(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
            self.killed((*files, "--private"))
            self.assertEqual((True, False, True), self.done(self.deploy(*files, "--json")))
            self.assertEqual((False, True, False), self.done(self.deploy(*files, "--reload", HOOK, "--json")))

    def test_killed_without_a_reload_leaves_none_due(self):
        for files in FOLDER, BUNDLE:
            for call in range(1, 200):
                run = support.fstore("deploy", HOST, *files, cwd=self.folder,
                                     env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_DIE": call})
                if run.code == 0:
                    break
                self.assertFalse(self.done(self.deploy(*files, "--json"))[2])
                shutil.rmtree(self.folder / ".www.fstore", ignore_errors=True)
                for name in "www", "www.pem":
                    (self.folder / name).unlink(missing_ok=True)
            self.assertGreater(call, 5)

    def done(self, run):
        return tuple(run.document[name] for name in ("replaced", "reloaded", "reloadDue"))

    def test_failure_brings_the_old_files_back(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
        self.renew()
        for files in FOLDER, BUNDLE:
            self.write("hook.sh", "cat www/chain.pem www.pem | grep -c BEGIN.C >>log\n"
                                  "cmp -s new.pem www/chain.pem && exit 3\n"
                                  "head -c $(stat -c %s new.pem) www.pem | cmp -s new.pem && exit 3\n"
                                  "exit 0\n")
            loads = len(self.loads())
            message = self.fails(125, "foreign", "deploy", HOST, *files, "--reload", HOOK)
            self.assertEqual(f"the reload failed: `{HOOK}` ended with exit code 3; the files from "
                             "before are back, and loaded again", message)
            self.assertEqual("old", self.deployed(files))
            self.assertEqual(loads + 4, len(self.loads()))  # of two runs

    def test_failure_of_the_first_deployment_leaves_nothing(self):
        self.write("refuse", "")
        for files in FOLDER, BUNDLE:
            message = self.fails(125, "foreign", "deploy", HOST, *files, "--reload", HOOK)
            self.assertIn("there were no files before, so the new ones are removed", message)
            self.assertIsNone(self.deployed(files))
        self.assertIsNone(self.state())

    def test_failure_of_both_reloads_is_remembered(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
        self.renew()
        self.write("refuse", "")
        for files in FOLDER, BUNDLE:
            message = self.fails(125, "foreign", "deploy", HOST, *files, "--reload", HOOK)
            self.assertIn("but their reload failed, too", message)
            self.assertEqual("old", self.deployed(files))
        # Even if the old pair is what is wanted again, nobody knows what the server has loaded.
        self.run_tool("rm", "--force", *[record for record in self.records() if "new" in record])
        (self.folder / "refuse").unlink()
        for files in FOLDER, BUNDLE:
            loads = len(self.loads())
            run = self.deploy(*files, "--reload", HOOK, "--json")
            self.assertEqual((False, True), (run.document["replaced"], run.document["reloaded"]))
            self.assertEqual(loads + 1, len(self.loads()))

    def test_program_that_cannot_run(self):
        message = self.fails(125, "foreign", "deploy", HOST, *BUNDLE, "--reload", "./no-such")
        self.assertIn("cannot run `./no-such`: No such file or directory", message)
        message = self.fails(125, "foreign", "deploy", HOST, *BUNDLE, "--shell", "--reload",
                             "kill -9 $$")
        self.assertIn("signal 9 ended `kill -9 $$`", message)

    def test_program_that_does_not_end(self):
        for files in FOLDER, BUNDLE:
            self.deploy(*files)
        self.renew()
        for files in FOLDER, BUNDLE:
            message = self.fails(125, "foreign", "deploy", HOST, *files, "--reload", "sleep 600",
                                 "--reload-timeout", "0.3")
            self.assertIn("`sleep 600` did not end within 0.3 seconds, and was killed", message)
            self.assertIn("but their reload failed, too", message)
            self.assertEqual("old", self.deployed(files))
        self.fails(2, "usage", "deploy", HOST, *FOLDER, "--reload-timeout", "0")

    def test_parent_that_ignores_the_end_of_its_children(self):
        ignoring = ("env", "--ignore-signal=CHLD")
        self.deploy(*BUNDLE, "--reload", HOOK, prefix=ignoring)
        self.assertEqual(1, len(self.loads()))
        self.renew()
        self.write("refuse", "")
        run = support.fstore("deploy", HOST, *BUNDLE, "--reload", HOOK, cwd=self.folder, prefix=ignoring)
        self.assertEqual(125, run.code)
        self.assertIn("ended with exit code 3", run.message)

    def test_program_that_leaves_a_daemon_behind(self):
        self.deploy(*BUNDLE, "--shell", "--reload",
                    "setsid sh -c 'sleep 600' >/dev/null 2>&1 & echo $! >daemon")
        daemon = int((self.folder / "daemon").read_text())
        self.addCleanup(os.kill, daemon, 9)
        self.renew()
        self.deploy(*BUNDLE)  # it holds no lock
        self.assertEqual("new", self.deployed(BUNDLE))

    def test_no_shell_unless_asked(self):
        for command in "touch a; touch b", "touch $HOME", "sh -c 'x'", "a | b":
            message = self.fails(2, "usage", "deploy", HOST, *BUNDLE, "--reload", command)
            self.assertIn("add --shell", message)
        self.assertFalse((self.folder / "www.pem").exists())
        self.deploy(*BUNDLE, "--shell", "--reload", "touch a; touch b")
        self.assertTrue((self.folder / "b").exists())

    def test_what_the_program_gets(self):
        run = self.deploy(*BUNDLE, "--json", "--shell", "--reload",
                          "env >env; umask >umask; cat >input; echo said; "
                          "ls -l /proc/$$/fd | grep www >open; true")
        self.assertNotIn("FSTORE_PASSWORD", (self.folder / "env").read_text())
        self.assertEqual("0022", (self.folder / "umask").read_text().strip())
        self.assertEqual("", (self.folder / "input").read_text())
        self.assertEqual("", (self.folder / "open").read_text())
        self.assertTrue(run.document["reloaded"])  # "said" is not in the document
        self.assertEqual(b"said\n", run.err)

    def test_program_gets_no_password_by_a_descriptor(self):
        self.write("password", support.PASSWORD)
        self.deploy(*BUNDLE, "--password-fd", "9", "--shell", "--reload",
                    "ls /proc/$$/fd | grep -cx 9 >open; true", password=None,
                    prefix=("sh", "-c", 'exec 9<password; exec "$@"', "sh"))
        self.assertEqual("0\n", (self.folder / "open").read_text())

    def test_program_that_speaks_without_a_standard_error(self):
        self.write("hook.sh", "echo out && echo error >&2 && touch loaded\n")
        self.deploy(*BUNDLE, "--reload", HOOK, prefix=("sh", "-c", 'exec 2>&-; exec "$@"', "sh"))
        self.assertTrue((self.folder / "loaded").exists())


class PresentTest(DeployTest):
    """A single file is replaced without --force only if deploy may have written it."""

    def test_something_else_stays(self):
        certificate = (self.folder / "old.pem").read_bytes()
        key = (self.folder / "old.key").read_bytes()
        self.deploy(*BUNDLE)
        bundle = (self.folder / "www.pem").read_bytes()
        for text in (key, certificate, b"text\n", b"\0" * 5000, certificate + key,
                     key + bundle, bundle + key, b"text\n" + bundle, bundle + b"text\n",
                     bundle + bundle, bundle.replace(b"END CERT", b"END PERT"), bundle[:-5],
                     bundle.replace(b"-----\n", b"-----\n-\n", 1)):
            (self.folder / "www.pem").write_bytes(text)
            before = self.files()
            message = self.fails(4, "invalid", "deploy", HOST, *BUNDLE, "--reload", HOOK)
            self.assertIn("has something else than deploy writes there", message)
            self.assertEqual(before, self.files())
            self.assertIsNone(self.state("www.pem"))
            option = "-f" if text == key else "--force"
            self.deploy(*BUNDLE, option, "--reload", HOOK)
            self.assertEqual("old", self.deployed(BUNDLE))

    def test_what_deploy_writes_is_replaced(self):
        self.deploy(*BUNDLE)
        bundle = (self.folder / "www.pem").read_bytes()
        self.renew()
        for text in b"", bundle, (self.folder / "old.pem").read_bytes() + bundle:
            (self.folder / "www.pem").write_bytes(text)
            self.deploy(*BUNDLE)
            self.assertEqual("new", self.deployed(BUNDLE))

    def test_reference_and_key_are_two_kinds(self):
        with_key = ("--chain", "www.pem", "--key", "www.pem")
        self.deploy(*BUNDLE)
        self.fails(4, "invalid", "deploy", HOST, *with_key)
        self.deploy(*with_key, "-f")
        self.renew()
        self.fails(4, "invalid", "deploy", HOST, *BUNDLE)
        self.deploy(*with_key)
        self.assertEqual((self.folder / "new.pem").read_bytes() +
                         (self.folder / "new.key").read_bytes(),
                         (self.folder / "www.pem").read_bytes())

    def test_file_of_the_database_stays(self):
        path = next(path for path in sorted((self.folder / "db").rglob("*")) if path.is_file())
        before = self.files()
        self.fails(4, "invalid", "deploy", HOST, "--chain", path, "--ref", path)
        self.assertEqual(before, self.files())


class UsageTest(DeployTest):
    def test_files_that_cannot_change_together(self):
        for args in (("--chain", "a/chain.pem", "--ref", "b/key.ref"),
                     ("--chain", "chain.pem", "--ref", "key.ref"),  # this folder is in the way
                     ("--chain", "a/..", "--ref", "a/key.ref"),
                     ("--chain", "/chain.pem", "--ref", "/key.ref"),
                     ("--chain", "a/", "--ref", "a/")):
            self.fails(4, "invalid", "deploy", HOST, *args)

    def test_one_file_in_two_spellings_is_one(self):
        for name in "./www.pem", ".//./www.pem", self.folder / "www.pem", f"{self.folder}//www.pem":
            run = self.deploy("--chain", "www.pem", "--ref", name, "--json")
            self.assertEqual([str(self.folder / "www.pem")], run.document["files"])
        self.deploy("--chain", "./www/chain.pem", "--ref", "www//key.ref")
        self.assertEqual("old", self.deployed(FOLDER))
        self.fails(4, "invalid", "deploy", HOST, "--chain", "other/.", "--ref", "other/.")
        self.fails(2, "usage", "deploy", HOST, "--chain", "a", "--ref", "b", "--key", "./b")

    def test_options_that_mean_nothing(self):
        for args in (("--chain", "a"), ("--ref", "a"),
                     ("--chain", "a", "--ref", "b", "--key", "b"),
                     ("--chain", "a", "--ref", "a", "--shell"),
                     ("--chain", "a", "--ref", "a", "--reload", " ")):
            self.fails(2, "usage", "deploy", HOST, *args)
        self.fails(2, "usage", "deploy", f"fstore:///?for={HOST}&type=key", *BUNDLE)
        self.fails(4, "invalid", "deploy", "no host", *BUNDLE)


class RefTest(DeployTest):
    def test_reference_that_no_program_can_load(self):
        openssl("req", "-new", "-key", self.folder / "old.key", "-subj", "/CN=asks",
                "-out", self.folder / "asks.pem")
        self.run_tool("import", "asks.pem")
        self.write("bytes", "some bytes")
        self.run_tool("put", "keys/raw", "bytes")
        others = [record for record in self.records() if "raw" in record or "asks" in record]
        self.assertEqual(2, len(others))
        for record in others:
            run = self.run_tool("ref", record)
            self.assertIn(f"{record} is no key, certificate or CRL", run.message)
            self.assertIn(b"BEGIN FSTORE URI", run.out)
        for record in set(self.records()) - set(others):
            self.assertEqual("", self.run_tool("ref", record).message)

    def test_a_record_that_is_meant_by_less_than_its_address(self):
        openssl("req", "-new", "-key", self.folder / "old.key", "-subj", "/CN=asks", "-out",
                self.folder / "asks.pem")
        self.run_tool("import", "asks.pem", "--name", "asks", "--label", "My request")
        expected = self.run_tool("ref", "crm/asks").out
        for text in "crm/a*", "ask", "My request":
            run = self.run_tool("ref", text, "-f", "-o", "ref.pem")
            self.assertIn(f"{text} is taken to mean crm/asks", run.message)
            self.assertEqual(expected, (self.folder / "ref.pem").read_bytes())
        self.assertIn("ambiguous", self.fails(4, "invalid", "ref", "*/*"))
        self.assertIn("there is no record", self.fails(50, "missing", "ref", "crm/none*"))


class HostileTest(DeployTest):
    """What stands in the place of the files is not written through, and not waited for."""

    def test_in_place_of_a_file(self):
        victim = self.write("victim", "stays")
        for make in (lambda path: os.mkfifo(path), lambda path: os.symlink("victim", path),
                     lambda path: os.mkdir(path)):
            make(self.folder / "www.pem")
            self.fails(4, "invalid", "deploy", HOST, *BUNDLE)
            self.assertEqual("stays", victim.read_text())
            subprocess.run(["rm", "-r", self.folder / "www.pem"], check=True)

    def test_in_place_of_the_folder(self):
        (self.folder / "elsewhere").mkdir()
        for make in (lambda path: os.mkfifo(path), lambda path: os.symlink("elsewhere", path),
                     lambda path: os.mkdir(path), lambda path: path.touch(),
                     lambda path: os.symlink(".www.fstore/../elsewhere", path)):
            make(self.folder / "www")
            self.fails(4, "invalid", "deploy", HOST, *FOLDER)
            self.assertEqual([], os.listdir(self.folder / "elsewhere"))
            subprocess.run(["rm", "-r", self.folder / "www"], check=True)

    def test_in_place_of_the_state(self):
        (self.folder / "elsewhere").mkdir()
        state = self.folder / ".www.fstore"
        for make in (lambda path: os.symlink("elsewhere", path), lambda path: path.touch(),
                     lambda path: os.mkfifo(path)):
            make(state)
            run = support.fstore("deploy", HOST, *FOLDER, cwd=self.folder)
            self.assertIn(run.code, (9, 50))
            self.assertIn(".www.fstore", run.message)
            self.assertEqual([], os.listdir(self.folder / "elsewhere"))
            state.unlink()

    def test_folder_that_others_can_rename(self):
        (self.folder / "theirs/www").mkdir(parents=True)
        for name in "theirs", "theirs/www":
            (self.folder / name).chmod(0o777)
            message = self.fails(4, "invalid", "deploy", HOST, "--chain", "theirs/www/www.pem",
                                 "--ref", "theirs/www/www.pem")
            self.assertIn(f"{self.folder / name} belongs to somebody else, or others can write it",
                          message)
            (self.folder / name).chmod(0o755)
        self.assertEqual([], os.listdir(self.folder / "theirs/www"))

    def test_state_that_others_can_write(self):
        state = self.folder / ".www.fstore"
        state.mkdir()
        state.chmod(0o777)
        message = self.fails(4, "invalid", "deploy", HOST, *FOLDER)
        self.assertIn("others can write it", message)


class ConcurrentTest(DeployTest):
    def test_two_at_once_load_it_once(self):
        self.deploy(*FOLDER)
        self.renew()
        self.write("hook.sh", "echo >>log; sleep 0.5\n")
        runs = []
        threads = [threading.Thread(target=lambda: runs.append(
            self.deploy(*FOLDER, "--reload", HOOK, "--json"))) for _ in range(2)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([False, True], sorted(run.document["replaced"] for run in runs))
        self.assertEqual(1, len(self.loads()))
        self.assertEqual("new", self.deployed(FOLDER))

    def test_busy(self):
        self.write("hook.sh", "touch started; while test ! -e go; do sleep 0.02; done\n")
        first = support.start("deploy", HOST, *FOLDER, "--reload", HOOK, cwd=self.folder)
        support.wait_until((self.folder / "started").exists)
        message = self.fails(33, "busy", "deploy", HOST, *FOLDER, "--lock-timeout", "0")
        self.assertIn("another process is replacing", message)
        self.write("go", "")
        self.assertEqual(0, support.finish(first).code)


class Kills(DeployTest):
    """The tool dies, or fails, at each call; then the next run finishes."""

    def blow(self, files, **trap):
        """One run that is struck, on files that are old or not there."""
        return support.fstore("deploy", HOST, *files, "--reload", HOOK, cwd=self.folder,
                              env={"LD_PRELOAD": support.CALL_TRAP, **trap})

    def strike(self, files, before, trap, prepare=lambda: None):
        """Strikes at one call after the other, until a run has fewer; gives their number."""
        if before:
            self.deploy(*files)
        self.renew()
        start = tempfile.mkdtemp(prefix="fstore-start-")
        self.addCleanup(shutil.rmtree, start)
        shutil.copytree(self.folder, start, dirs_exist_ok=True, symlinks=True)
        for call in range(1, 200):
            self.fresh(start)
            prepare()
            run = self.blow(files, **trap(call))
            if run.code in (0, 125):
                return call - 1
            with self.subTest(call=call):
                self.assertIn(run.code, (KILLED, 9), run)
                self.assertIn(self.deployed(files), (before, "new"))
                self.finished(files)
        raise AssertionError("it never ended")

    def fresh(self, start):
        for entry in os.listdir(self.folder):
            path = self.folder / entry
            if path.is_dir() and not path.is_symlink():
                shutil.rmtree(path)
            else:
                path.unlink()
        shutil.copytree(start, self.folder, dirs_exist_ok=True, symlinks=True)

    def finished(self, files):
        """The next run has the new pair loaded, cleans up, and the one after it has nothing to do."""
        refuse = self.folder / "refuse"
        if refuse.exists():
            refuse.unlink()
        self.deploy(*files, "--reload", HOOK)
        self.assertEqual("new", self.deployed(files))
        seen = subprocess.run(["sh", "hook.sh"], cwd=self.folder, check=False)
        self.assertEqual(0, seen.returncode)
        self.assertEqual(*self.loads()[-2:])  # what was loaded last is what is there
        loads = len(self.loads())
        run = self.deploy(*files, "--reload", HOOK, "--json")
        self.assertFalse(run.document["reloaded"])
        self.assertEqual(loads, len(self.loads()))
        left = self.state() if files == FOLDER else self.state("www.pem")
        self.assertTrue(left is None if files == BUNDLE else len(left) == 1 and left[0].isdigit(),
                        left)

    def everywhere(self, trap, prepare=lambda: None):
        for files in FOLDER, BUNDLE:
            for before in None, "old":
                with self.subTest(files=files, before=before):
                    template = tempfile.mkdtemp(prefix="fstore-start-")
                    self.addCleanup(shutil.rmtree, template)
                    shutil.copytree(self.folder, template, dirs_exist_ok=True, symlinks=True)
                    calls = self.strike(files, before, trap, prepare)
                    print(f"{calls} calls", flush=True)
                    self.assertGreater(calls, 8)
                    self.fresh(template)

    def test_killed_at_each_call(self):
        self.everywhere(lambda call: {"CALL_TRAP_DIE": call})

    def test_killed_at_each_call_of_a_rollback(self):
        self.everywhere(lambda call: {"CALL_TRAP_DIE": call},
                        prepare=lambda: self.write("refuse", ""))

    def test_each_call_fails(self):
        self.everywhere(lambda call: {"CALL_TRAP_FAIL": call, "CALL_TRAP_ERRNO": errno.EIO})

    def test_killed_during_the_reload(self):
        for files in FOLDER, BUNDLE:
            with self.subTest(files=files):
                self.deploy(*files)
        self.renew()
        hook = (self.folder / "hook.sh").read_text()
        for files in FOLDER, BUNDLE:
            self.write("hook.sh", "kill -9 $PPID\n" + hook)
            run = support.fstore("deploy", HOST, *files, "--reload", HOOK, cwd=self.folder)
            self.assertEqual(KILLED, run.code)
            self.assertEqual("new", self.deployed(files))
            self.write("hook.sh", hook)
            self.finished(files)


if __name__ == "__main__":
    support.main()
