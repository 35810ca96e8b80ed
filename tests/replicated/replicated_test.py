#!/usr/bin/env python3
"""Two hosts share a database on a replicated volume, while links are cut and servers and hosts die."""

import itertools
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import support
from support import CALL_TRAP, CHEAP, PASSWORD
from volume import HOSTS, OPTIONS, Volume, address, wait_until

NEW = "another one"
FAILED = 9
BUSY = 33
MISSING = 50
# While a link is cut, its host's calls hang, and the other host waits for what it had locked.
CUT = 60
# In front of the question whether the lock is still held, before the first rename of the record; of
# the change of password when its copy is complete.
STOPS = {"set": "question:2", "put": "question:2", "rm": "question:1", "passwd": "syncfs:1"}

volume = None  # one for all tests: it takes longer to start than most of them


def setUpModule():
    global volume  # pylint: disable=global-statement
    volume = Volume()


class ReplicatedTest(unittest.TestCase):
    """Each test has a database of its own."""

    maxDiff = None
    numbers = itertools.count(1)
    records = 25

    def setUp(self):
        self.one, self.two = volume.hosts
        self.folder = self.new_database()

    def new_database(self):
        folder = f"/volume/{next(self.numbers)}"
        self.ok(self.one, "init", *CHEAP, folder=folder)
        return folder

    def start(self, host, *args, folder=None, **more):
        return support.start("-D", folder or self.folder, *args, prefix=host.inside(), **more)

    def run_on(self, host, *args, stdin=b"", **more):
        return support.finish(self.start(host, *args, **more), stdin)

    def ok(self, host, *args, **more):
        run = self.run_on(host, *args, **more)
        self.assertEqual(0, run.code, f"fstore {args}\n{run.out!r}\n{run.message}")
        return run

    def put(self, host, address, contents, **more):
        self.ok(host, "put", "-f", address, "-", stdin=contents, **more)

    def fill(self, **more):
        for number in range(self.records):
            self.put(self.one, f"settings/{number}", b"%d" % number, **more)

    def passwd(self, host, **more):
        return self.start(host, "passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD": NEW}, **more)

    def is_copying(self, host, folder=None):
        return subprocess.run(host.inside("test", "-e", f"{folder or self.folder}/new_db/settings"),
                              check=False).returncode == 0

    def assert_sound(self, host, **more):
        document = self.ok(host, "check", "--deep", "--json", **more).document
        self.assertEqual([], document["findings"])

    def assert_all_there(self, host, **more):
        self.assert_sound(host, **more)
        for number in range(self.records):
            self.assertEqual(b"%d" % number, self.ok(host, "get", f"settings/{number}", **more).out)

    def password_in_force(self, host):
        return PASSWORD if self.run_on(host, "get", "settings/0").code == 0 else NEW

    def write_on_both(self, each, watch):
        """Both hosts write records at once; `watch` sees how many there are."""
        written = []
        failures = []

        def write(host):
            for number in range(each):
                run = self.run_on(host, "--lock-timeout", "60", "put", f"settings/{host.name}-{number}", "-",
                                  stdin=host.name.encode())
                (written if run.code == 0 else failures).append((host, number, run))
                watch(len(written))

        threads = [threading.Thread(target=write, args=(host,)) for host in volume.hosts]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([], failures)
        for host in volume.hosts:
            listed = {record["address"] for record in self.ok(host, "ls", "--json").document["records"]}
            self.assertEqual({f"settings/{writer.name}-{number}" for writer, number, _ in written}, listed)
        self.assert_sound(self.two)


class LivingTest(ReplicatedTest):
    """Nothing fails; two hosts work side by side."""

    def test_the_other_host_waits_while_one_changes_the_password(self):
        self.fill()
        change = self.passwd(self.one)
        wait_until("the change copies the records", lambda: self.is_copying(self.one))
        other = self.run_on(self.two, "--lock-timeout", "0", "put", "settings/x", "-", stdin=b"x")
        self.assertEqual(BUSY, other.code, other.message)
        self.assertIn("another process", other.message)
        reader = self.run_on(self.two, "--lock-timeout", "0", "get", "settings/1")
        self.assertEqual(BUSY, reader.code, reader.message)
        self.assertEqual(0, support.finish(change).code)
        self.put(self.two, "settings/x", b"x", password=NEW)
        self.assert_all_there(self.two, password=NEW)

    def test_info_tells_which_host_writes(self):
        self.fill()
        change = self.passwd(self.one)
        wait_until("the change copies the records", lambda: self.is_copying(self.one))
        told = self.run_on(self.two, "--lock-timeout", "0", "info", "--json")
        self.assertEqual(BUSY, told.code, told.message)
        self.assertEqual(change.pid, told.document["writer"]["pid"])
        self.assertEqual(os.uname().nodename, told.document["writer"]["host"])
        self.assertEqual(0, support.finish(change).code)

    def test_a_removed_record_is_not_read_on_the_other_host(self):
        for number in range(20):
            self.put(self.one, "settings/revoked", b"%d" % number)
            self.assertEqual(b"%d" % number, self.ok(self.two, "get", "settings/revoked").out)
            self.ok(self.one, "rm", "settings/revoked")
            self.assertEqual(MISSING, self.run_on(self.two, "get", "settings/revoked").code)
            self.assertEqual([], self.ok(self.two, "ls", "--json").document["records"])

    def test_what_is_written_at_once_on_both_is_all_there(self):
        self.write_on_both(15, lambda written: None)


class DyingTest(ReplicatedTest):
    """Servers and hosts die."""

    def tearDown(self):
        volume.start_bricks()

    def test_a_brick_dies_and_is_healed(self):
        third = volume.servers[2]
        dies = threading.Event()
        lives = threading.Event()

        def watch(count):
            if count > 10 and not dies.is_set():
                dies.set()
                third.kill_brick()
            elif count > 25 and not lives.is_set():
                lives.set()
                volume.servers[0].gluster("volume", "start", "v", "force")

        self.write_on_both(20, watch)
        self.assertTrue(dies.is_set() and lives.is_set())
        volume.start_bricks()
        first, *others = [server.files_below(self.folder) for server in volume.servers]
        self.assertEqual([first, first], others)

    def test_without_a_majority_nothing_is_written_and_nothing_is_read(self):
        self.fill()
        for server in volume.servers[1:]:
            server.kill_brick()
        began = time.monotonic()
        for host in volume.hosts:
            for words in [("put", "settings/x", "-"), ("rm", "settings/1"), ("get", "settings/1")]:
                run = self.run_on(host, *words, stdin=b"x")
                self.assertEqual(FAILED, run.code, f"{words}: {run.message}")
                self.assertIn("ransport endpoint is not connected", run.message)
        self.assertLess(time.monotonic() - began, CUT)
        volume.start_bricks()
        self.assert_all_there(self.two)
        self.assertEqual(MISSING, self.run_on(self.two, "get", "settings/x").code)

    def test_a_host_dies_while_it_changes_the_password(self):
        self.fill()
        for delay in (0.0, 0.2, 0.5):
            with self.subTest(delay=delay):
                old = self.password_in_force(self.two)
                new = NEW if old == PASSWORD else PASSWORD
                change = self.start(self.one, "passwd", *CHEAP, password=old,
                                    env={"FSTORE_NEW_PASSWORD": new})
                wait_until("the change copies the records", lambda: self.is_copying(self.two))
                time.sleep(delay)
                self.one.kill_client()
                support.finish(change)
                found = self.password_in_force(self.two)
                self.assertIn(found, (old, new))
                self.put(self.two, "settings/x", b"x", password=found)  # who writes next, cleans up
                self.assert_all_there(self.two, password=found)
                self.one.mount()


class CutTest(ReplicatedTest):
    """The link of a host is cut while it writes, and comes back."""

    def tearDown(self):
        self.one.mend()
        volume.set(OPTIONS)

    def stopped(self, at, *args, folder, **more):
        """The command on host one, which stops in front of a call."""
        process = self.start(self.one, *args, folder=folder,
                             env={"LD_PRELOAD": CALL_TRAP, "CALL_TRAP_STOP": at, **more})
        process.stdin.write(b"of host one")
        process.stdin.close()
        process.stdin = None
        wait_until(f"{args} stops", lambda: state_of(process.pid) == "T")
        return process

    def write_on_two(self, folder, deadline):
        """The same record on host two, which has to wait until the lock of host one is lost."""
        while True:
            run = self.run_on(self.two, "--lock-timeout", "5", "set", "settings/a", "label=of host two",
                              folder=folder)
            if run.code == 0 or time.monotonic() > deadline:
                self.assertEqual(0, run.code, run.message)
                return

    def test_who_was_cut_off_writes_nothing_more(self):
        """Also where the volume gives the old descriptor back, so that only the token tells."""
        for strict in ("on", "off"):
            with self.subTest(strict_locks=strict):
                volume.set({"client.strict-locks": strict})
                self.cut_off_writers()

    def cut_off_writers(self):
        commands = {
            "set": (("set", "settings/a", "label=of host one"), {}),
            "rm": (("rm", "settings/a"), {}),
            "put": (("put", "-f", "settings/a", "-"), {}),
            "passwd": (("passwd", *CHEAP), {"FSTORE_NEW_PASSWORD": NEW}),
        }
        stale = {}
        for name, (args, env) in commands.items():
            folder = self.new_database()
            self.put(self.one, "settings/a", b"old", folder=folder)
            stale[name] = (folder, self.stopped(STOPS[name], *args, folder=folder, **env))
        self.one.cut()
        deadline = time.monotonic() + CUT
        for folder, _ in stale.values():
            self.write_on_two(folder, deadline)
        self.one.mend()
        wait_until("host one has the volume again",
                   lambda: self.run_on(self.one, "get", "settings/a").code == MISSING)
        for name, (folder, process) in stale.items():
            with self.subTest(command=name):
                os.kill(process.pid, signal.SIGCONT)
                run = support.finish(process, None)
                self.assertEqual(FAILED, run.code, run.message)
                self.assertIn("the lock was lost", run.message)
                self.assertIn("nothing more was written", run.message)
                shown = self.ok(self.two, "show", "settings/a", "--json", folder=folder).document
                self.assertEqual("of host two", shown["records"][0]["label"])
                self.assertEqual(b"old", self.ok(self.two, "get", "settings/a", folder=folder).out)
                # Who lost the lock cleans nothing up.
                left = self.ok(self.two, "check", "--deep", "--json", folder=folder).document["findings"]
                self.assertTrue({one["kind"] for one in left} <= {"unnamed-body", "new-descriptor"}, left)

    def test_the_link_is_cut_while_the_password_is_changed(self):
        self.fill()
        change = self.passwd(self.one)
        wait_until("the change copies the records", lambda: self.is_copying(self.one))
        self.one.cut()
        self.ok(self.two, "--lock-timeout", str(CUT), "put", "settings/x", "-", stdin=b"x")
        self.one.mend()
        self.assertEqual(FAILED, support.finish(change).code)
        self.assertEqual(b"x", self.ok(self.two, "get", "settings/x").out)
        self.assert_all_there(self.two)


class ReplicaTest(ReplicatedTest):
    """The blocks of docs/several-hosts.md, as they stand there."""

    records = 5

    def setUp(self):
        super().setUp()
        self.fill()
        self.here = pathlib.Path(tempfile.mkdtemp(prefix="replica-"))
        self.addCleanup(shutil.rmtree, self.here)
        self.replica = self.here / "replica"
        self.replica.mkdir()

    @staticmethod
    def blocks(heading):
        """The blocks of the section, each a script for sh."""
        text = pathlib.Path(__file__).with_name("several-hosts.md").read_text(encoding="utf-8")
        section = re.split(r"^#+ ", text.split(f"\n### {heading}\n", 1)[1], flags=re.M)[0]
        found = re.findall(r"^```sh\n(.*?)^```$", section, flags=re.M | re.S)
        assert found, heading
        return found

    def sh(self, host, script, **env):
        run = subprocess.run(host.inside("env", "--chdir", self.here, "sh", "-euc", script), check=False,
                             capture_output=True, text=True,
                             env=support.environment(KEYS=self.folder, REPLICA=self.replica, **env))
        self.assertEqual(0, run.returncode, f"{script}\n{run.stdout}{run.stderr}")
        return run.stdout

    def test_a_conflict(self):
        copy = f"{self.folder}/db/settings/1.sync-conflict-20261123-101500-ABCDEFG.dsc"
        (script,) = self.blocks("Synchronisers")
        self.sh(self.one, f'cp "$KEYS/db/settings/1.dsc" {copy}')
        self.assertEqual(3, self.run_on(self.two, "check").code)
        self.sh(self.one, script, CONFLICT="settings/" + copy.rsplit("/", 1)[1])
        self.assert_all_there(self.two)

    def test_publishing_to_a_store_and_restoring_under_a_server(self):
        publish, follow = self.blocks("Publishing")
        store = "http://" + address(HOSTS[0]) + ":8080"
        (self.here / "store").mkdir()
        served = subprocess.Popen(self.one.inside("rclone", "serve", "webdav", self.here / "store",
                                                  "--addr", ":8080"), stderr=subprocess.DEVNULL)
        self.addCleanup(served.wait)
        self.addCleanup(served.terminate)
        wait_until("the store answers", lambda: subprocess.run(
            self.two.inside("curl", "-sf", store), capture_output=True, check=False).returncode == 0)
        store = f":webdav,url='{store}':"
        subjects = []
        server = None
        for name in ("first", "second"):
            self.import_pair(name)
            self.sh(self.one, publish, STORE=store)
            self.sh(self.two, follow, STORE=store)
            self.assert_all_there(self.two, folder=self.replica)
            server = server or self.serve()
            subjects.append(self.subject_served())
        self.assertEqual(["CN = first", "CN = first"], subjects)  # what it has loaded stays
        server.terminate()
        server.wait()
        self.serve()
        self.assertEqual("CN = second", self.subject_served())
        kept = [entry.name for entry in self.replica.iterdir() if entry.name.startswith("db-")]
        self.assertEqual(1, len(kept), kept)

    def import_pair(self, name):
        """A certificate and its key, of which the newer one serves the host."""
        self.sh(self.one, f"openssl req -x509 -newkey ed25519 -nodes -subj /CN={name} -days 9 "
                          "-addext subjectAltName=DNS:www.example.com -keyout key.pem -out cert.pem")
        time.sleep(1.1)  # dates have seconds
        self.ok(self.one, "import", self.here / "key.pem", self.here / "cert.pem")

    def serve(self):
        """A TLS server on host two, with the key of the replica."""
        password = self.here / "password"
        password.write_text(PASSWORD, encoding="ascii")
        conf = self.ok(self.two, "--password-file", password, "openssl-conf", folder=self.replica,
                       password=None).text
        (self.here / "openssl.cnf").write_text(conf, encoding="utf-8")
        self.ok(self.two, "export", "--for", "www.example.com", "-f", "-o", self.here / "served.pem",
                folder=self.replica)
        server = subprocess.Popen(
            self.two.inside("openssl", "s_server", "-quiet", "-accept", "4433", "-cert",
                            self.here / "served.pem", "-key",
                            "fstore:///?for=www.example.com&type=key"),
            env=support.environment(OPENSSL_CONF=self.here / "openssl.cnf"), stdin=subprocess.DEVNULL)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        return server

    def subject_served(self):
        def told():
            return subprocess.run(self.two.inside("openssl", "s_client", "-connect", "127.0.0.1:4433"),
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False).stdout
        wait_until("the server answers", lambda: "subject=" in told())
        return re.search(r"subject=(.*)", told())[1]

    def test_restic(self):
        (script,) = self.blocks("restic and borg")[:1]
        restic = {"RESTIC_REPOSITORY": self.here / "repository", "RESTIC_PASSWORD": "of restic", "HOME": self.here}
        self.sh(self.one, "restic init", **restic)
        self.sh(self.one, script, **restic)
        self.assert_all_there(self.two, folder=self.replica)

    def test_borg(self):
        script = self.blocks("restic and borg")[1]
        borg = {"BORG_REPO": self.here / "repository", "BORG_PASSPHRASE": "of borg", "HOME": self.here}
        self.sh(self.one, "borg init -e repokey", **borg)
        self.sh(self.one, script, **borg)
        self.assert_all_there(self.two, folder=self.replica)

    def test_rsync(self):
        script = self.blocks("rsync and git")[0]
        for _ in range(2):
            self.sh(self.one, script)
        self.assert_all_there(self.two, folder=self.replica)

    def test_git(self):
        script = self.blocks("rsync and git")[1]
        self.sh(self.one, 'git -C "$KEYS" init -q; git config --global user.email a@b; git config --global '
                          'user.name a; git config --global safe.directory "*"', HOME=self.here)
        self.sh(self.one, script, HOME=self.here)
        self.sh(self.one, 'git clone -q "$KEYS" clone', HOME=self.here)
        # Git carries no empty folders; who writes first makes them.
        self.put(self.two, "settings/x", b"x", folder=self.here / "clone")
        self.assert_all_there(self.two, folder=self.here / "clone")


def state_of(pid):
    """The letter that the system has for what the process does."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        return file.read().rsplit(")", 1)[1].split()[0]


if __name__ == "__main__":
    support.main()
