#!/usr/bin/env python3
"""Two programs on one database are killed at random; both only ever see what History allows.

A kill comes at a random time, or in front of a random call that changes the disk. 20 kills with
FSTORE_LONG=1 and a few every day; scripts/torture.sh has 1,000 with TORTURE_FULL=1.
$TORTURE_SEED chooses the commands, and where they die.
"""

import collections
import hashlib
import os
import random
import shutil
import threading
import time
import unittest

import pki
import support
from history import BUSY, KILLED, MISSING, WRONG_PASSWORD, Database, History, Impossible, \
    Record, Step, World
from support import CHEAP, LONG, InitialisedTest

FULL = os.environ.get("TORTURE_FULL", "") not in ("", "0")
SEED = os.environ.get("TORTURE_SEED", "1")
KILLS = 1000 if FULL else 20 if LONG else 6
ROUND = 20  # kills between two looks at everything
PROGRAMS = 2
PASSWORDS = ("password A", "password B")
RECORDS = ("settings/a", "settings/b", "keys/c", "./d")
KEY, CERTIFICATE = "keys/server", "certificates/local/server"
ATTEMPTS = 40  # at the password, which the other program may change again and again
BODIES = (1, 1000, 70_000)


def digest_of(body):
    return hashlib.sha256(body).hexdigest()


def other_than(password):
    (other,) = set(PASSWORDS) - {password}
    return other


def guarded(password, normal, needs_password=lambda world: True):
    """Effects of a command that refuses a wrong password where it needs one.

    A command that needs none may ask for it nevertheless, to finish a change of the password.
    """
    def effects(world):
        if password == world.database.password:
            return normal(world)
        refused = [(world, WRONG_PASSWORD)]
        return refused if needs_password(world) else refused + normal(world)
    return effects


def changed(world, address, record):
    return world._replace(database=world.database.with_record(address, record))


class Program(threading.Thread):
    """Runs commands one after the other, until it was killed often enough."""

    def __init__(self, test, number, turn, kills):
        super().__init__()
        self.test = test
        self.number = number
        self.random = random.Random(f"{SEED} {number} {turn}")
        self.kills = kills
        self.backup = test.folder / f"backup-{number}"
        self.where = 0  # of the command's time or calls it is killed
        self.hurried = False  # waits for no lock

    # Each command gives its arguments, its input and what it does, for a password.

    def put(self):
        address, body = self.address(), self.random.randbytes(self.random.choice(BODIES))
        plain = self.random.random() < 0.3
        digest = digest_of(body)

        def store(world):
            old = world.database.find(address)
            return [(changed(world, address, Record(digest, old and old.label, not plain)), 0)]

        def needs_password(world):
            old = world.database.find(address)
            return not plain or (old is not None and old.encrypted)
        return (("put", "-f", address, "-", *(["--plain-body"] if plain else [])), body,
                lambda password: Step(f"put {address} {digest[:8]}",
                                      guarded(password, store, needs_password)))

    def set(self):
        address, label = self.address(), f"label {self.random.random()}"

        def relabel(world):
            old = world.database.find(address)
            if old is None:
                return [(world, MISSING)]
            return [(changed(world, address, old._replace(label=label)), 0)]
        return (("set", address, f"label={label}"), b"",
                lambda password: Step(f"set {address} {label}",
                                      guarded(password, relabel, self.is_secret(address))))

    def rm(self):
        address = self.random.choice([*RECORDS, KEY, CERTIFICATE])

        def remove(world):
            there = world.database.find(address) is not None
            return [(changed(world, address, None), 0 if there else MISSING)]
        return (("rm", "-f", address), b"",
                lambda password: Step(f"rm {address}",
                                      guarded(password, remove, lambda world: False)))

    def get(self):
        address = self.address()

        def look(world):
            there = world.database.find(address)
            return [(world, (0, there.sha256) if there else MISSING)]
        return (("get", address), b"",
                lambda password: Step(f"get {address}",
                                      guarded(password, look, self.is_secret(address))))

    def ls(self):
        return (("ls", "--unlock", "--json"), b"",
                lambda password: Step("ls", guarded(
                    password, lambda world: [(world, (0, world.database.records))],
                    lambda world: any(each.encrypted for _, each in world.database.records))))

    def import_(self):
        objects = ((KEY, self.test.key), (CERTIFICATE, self.test.certificate))

        def partly(world):
            """The worlds after each of the objects."""
            worlds = [world]
            for address, record in objects:
                if worlds[-1].database.find(address) is None:
                    worlds.append(changed(worlds[-1], address, record))
            return worlds
        return (("import", self.test.pem, "--name", "server"), b"",
                lambda password: Step("import", guarded(
                    password, lambda world: [(partly(world)[-1], 0)],
                    lambda world: world.database.find(KEY) is None), partly))

    def passwd(self):
        def effects(password):
            return lambda world: [(world._replace(database=world.database._replace(
                password=other_than(password))), 0)]
        return (("passwd", *CHEAP, *(["--keep-old"] if self.random.random() < 0.3 else [])), b"",
                lambda password: Step(f"passwd from {password}",
                                      guarded(password, effects(password))))

    def check(self):
        return (("check", "--repair"), b"",
                lambda password: Step("check --repair", guarded(
                    password, lambda world: [(world, 0)], lambda world: False)))

    def write_backup(self):
        def save(world):
            backups = list(world.backups)
            backups[self.number] = world.database
            return [(world._replace(backups=tuple(backups)), 0)]
        return (("backup", "-f", self.backup), b"",
                lambda password: Step("backup", guarded(password, save, lambda world: False)))

    def restore(self):
        return (("restore", "--replace", self.backup), b"",
                lambda password: Step("restore", guarded(
                    password,
                    lambda world: [(world._replace(database=world.backups[self.number]), 0)],
                    lambda world: False)))

    COMMANDS = ((put, 6), (set, 3), (rm, 3), (get, 4), (ls, 4), (import_, 2), (passwd, 3),
                (check, 2), (write_backup, 2), (restore, 2))

    def address(self):
        return self.random.choice(RECORDS)

    @staticmethod
    def is_secret(address):
        def needs_password(world):
            there = world.database.find(address)
            return there is not None and there.encrypted
        return needs_password

    @staticmethod
    def answer(args, run):
        """What the command was told, as History compares it."""
        if run.code != 0:
            return run.code
        if args[0] == "get":
            return 0, digest_of(run.out)
        if args[0] == "ls":
            return 0, frozenset(
                (each["address"], Record(each["sha256"], each.get("label"),
                                         each["body"]["encrypted"]))
                for each in run.document["records"])
        return 0

    def attempt(self, args, stdin, step, kill, password):
        """Runs the command once; `kill` says how it dies."""
        pace = self.test.paces[args[0]]
        env = {"FSTORE_NEW_PASSWORD": other_than(password), **self.test.env}
        if kill == "call" and pace.calls > 0:
            env |= {"LD_PRELOAD": support.CALL_TRAP,
                    "CALL_TRAP_DIE": 1 + int(self.where * pace.calls)}
        self.test.history.begin(self.number, step(password))
        process = support.start("-D", self.test.folder, "--lock-timeout",
                                "0" if self.hurried else "60", *args, password=password, env=env)
        timer = threading.Timer(self.where * pace.seconds, process.kill)
        if kill == "time":
            timer.start()
        run = support.finish(process, stdin)
        timer.cancel()
        if run.code == BUSY and not self.hurried:
            raise Impossible(f"nobody holds the lock that {args} waited for: {run}")
        try:
            self.test.history.end(self.number, self.answer(args, run))
        except Impossible as reason:
            raise Impossible(f"{reason}\n{args}: {run.code} {run.message}") from None
        return run

    def run_one(self, command, kill=None):
        """Runs the command with the password that is in force, whichever that is."""
        args, stdin, step = command(self)
        for _ in range(ATTEMPTS):
            password = self.test.password
            run = self.attempt(args, stdin, step, kill, password)
            self.test.done[args[0], run.code] += 1
            if run.code != WRONG_PASSWORD:
                if args[0] == "passwd":
                    self.test.password = other_than(password)
                return run
            self.test.password = other_than(password)
        raise Impossible(f"{args}: no password opens it")

    def run(self):
        commands, weights = zip(*self.COMMANDS)
        try:
            while self.kills > 0 and self.test.fault is None:
                (command,) = self.random.choices(commands, weights)
                kill = self.random.choice(("time", "call", None))
                self.where = self.random.random()
                self.hurried = self.random.random() < 0.1
                self.kills -= self.run_one(command, kill).code == KILLED
        except Exception as fault:  # whatever it is, a thread that ends must not pass for one
            self.test.fault = fault  # that was killed often enough


# How long a command takes when nobody strikes, and how many of its calls change the disk.
Pace = collections.namedtuple("Pace", "seconds calls")


class RandomKillTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "passwd", *CHEAP,
                             env={"FSTORE_NEW_PASSWORD": PASSWORDS[0]})
        assert run.code == 0, run

    def setUp(self):
        super().setUp()
        self.env = {}
        self.fault = None  # what ends the run
        self.password = PASSWORDS[0]  # probably
        self.done = collections.Counter()
        self.pem = self.write("server.pem", (pki.files() / "p256.key").read_bytes() +
                              (pki.files() / "leaf.pem").read_bytes())
        self.learn_objects()
        for number in range(PROGRAMS):
            self.tool("backup", f"backup-{number}")
        empty = Database(self.password, frozenset())
        self.history = History(World(empty, (empty,) * PROGRAMS), PROGRAMS)
        self.learn_paces()

    def tool(self, *args):
        return self.run_tool(*args, password=self.password)

    def learn_objects(self):
        """What the records of an imported key and its certificate look like."""
        self.tool("import", self.pem, "--name", "server")
        records = dict(self.listed())
        self.key, self.certificate = records[KEY], records[CERTIFICATE]
        self.tool("rm", "-f", KEY, CERTIFICATE)
        self.assertEqual(frozenset(), self.listed())

    def listed(self):
        return Program.answer(("ls",), self.tool("ls", "--unlock", "--json"))[1]

    def learn_paces(self):
        """Runs each command once, and sees how long it takes."""
        paces = collections.defaultdict(lambda: Pace(0, 0))
        self.paces = paces
        program = Program(self, 0, "pace", 0)
        count = self.folder / "calls"
        self.env = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_COUNT": count}
        for command, _ in Program.COMMANDS:
            name = command(program)[0][0]
            start = time.monotonic()
            run = program.run_one(command)
            self.assertIn(run.code, (0, MISSING), run)
            paces[name] = Pace(time.monotonic() - start, int(count.read_text()))
        self.env = {}

    def turn(self, number, kills):
        """Both programs run until they were killed that often together; what is found is told."""
        programs = [Program(self, each, number, kills // PROGRAMS) for each in range(PROGRAMS)]
        for program in programs:
            program.start()
        for program in programs:
            program.join()
        if self.fault is not None:
            raise self.fault
        self.look_at_everything()

    def look_at_everything(self):
        opened = [password for password in PASSWORDS
                  if support.fstore("-D", self.folder, "ls", "--unlock",
                                    password=password).code == 0]
        self.assertEqual(1, len(opened), opened)
        (self.password,) = opened
        program = Program(self, 0, "look", 0)
        program.run_one(Program.ls)
        program.run_one(Program.check)
        document = self.tool("check", "--deep", "--json").document
        self.assertTrue(document["sound"], document)
        # A restore that was killed leaves the database before it where the exchange put it.
        self.assertLessEqual({finding["kind"] for finding in document["findings"]}, {"previous"})
        for address, record in self.listed():
            self.assertEqual(record.sha256, digest_of(self.tool("get", address).out), address)
        for kept in [*self.folder.glob("db-*"), *self.folder.glob("old_db")]:
            self.look_at_kept(kept)
        for name in os.listdir(self.folder):
            if name.startswith(".backup-"):  # one that was about to replace another
                (self.folder / name).unlink()
        shutil.rmtree(self.folder / "db.lost", ignore_errors=True)
        self.assertLessEqual(set(os.listdir(self.folder)),
                             {"db", "db.lock", "db.state", "calls", "server.pem", "backup-0",
                              "backup-1"})

    def look_at_kept(self, kept):
        """It is whole, and was the database once."""
        folder = self.folder / "kept"
        folder.mkdir()
        kept.rename(folder / "db")
        opened = []
        for password in PASSWORDS:
            run = support.fstore("-D", folder, "ls", "--unlock", "--json", password=password)
            if run.code == 0:
                opened.append(Database(password, Program.answer(("ls",), run)[1]))
        self.assertEqual(1, len(opened), opened)
        self.assertIn(opened[0], self.history.databases)
        self.run_tool("-D", folder, "check", "--deep", "--repair", password=opened[0].password)
        shutil.rmtree(folder)

    def tell(self, done):
        """Prints what has been done since `done`, for scripts/torture.sh to add up."""
        fresh = self.done - done
        figure = "random kills of two programs"
        killed = collections.Counter({kind: fresh[kind] for kind in fresh if kind[1] == KILLED})
        for (command, _), number in sorted(killed.items()):
            print(f"figure: {figure}, {command}: {number}")
        print(f"figure: {figure}: {killed.total()}")
        print(f"figure: {figure}, commands run: {fresh.total()}", flush=True)
        return self.done.copy()

    def test_two_programs_that_are_killed(self):
        print(f"seed {SEED}")
        told = self.tell(collections.Counter())
        for number in range(0, KILLS, ROUND):
            try:
                self.turn(number, min(ROUND, KILLS - number))
            finally:
                told = self.tell(told)
        self.assertEqual(KILLS, sum(number for (_, code), number in self.done.items()
                                    if code == KILLED))

    def test_without_the_lock_they_find_wrong_answers(self):
        # Proves that the test above can fail. A pause between what is read and what is written
        # lets them meet within a few commands.
        self.env = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_NO_LOCK": "1",
                    "CALL_TRAP_PAUSE": "5"}
        with self.assertRaises(AssertionError):
            for number in range(20):
                self.turn(number, ROUND)


class HistoryTest(unittest.TestCase):
    """That the judge of the test above is strict: one record, two programs."""

    OLD, NEW = Record("old", None, True), Record("new", None, True)

    def setUp(self):
        database = Database("", frozenset({("a", self.OLD)}))
        self.history = History(World(database, ()), PROGRAMS)

    def write(self, program, answer, record=NEW):
        self.begin_write(program, record)
        self.history.end(program, answer)

    def begin_write(self, program, record=NEW):
        self.history.begin(program, Step("write", lambda world: [(changed(world, "a", record), 0)]))

    def begin_look(self, program):
        self.history.begin(program, Step(
            "look", lambda world: [(world, world.database.find("a") or MISSING)]))

    def look(self, program, answer):
        self.begin_look(program)
        self.history.end(program, answer)

    def is_impossible_to_look(self, program, answer):
        with self.assertRaises(Impossible):
            self.look(program, answer)

    def test_what_was_acknowledged_stays(self):
        self.write(0, 0)
        self.is_impossible_to_look(1, self.OLD)

    def test_what_was_removed_stays_removed(self):
        self.write(0, 0, record=None)
        self.is_impossible_to_look(1, self.NEW)

    def test_a_killed_write_was_done_or_not_and_stays_so(self):
        for found, other in ((self.OLD, self.NEW), (self.NEW, self.OLD)):
            self.setUp()
            self.write(0, KILLED)
            self.look(1, found)
            self.is_impossible_to_look(1, other)

    def test_a_killed_write_leaves_nothing_else(self):
        self.write(0, KILLED)
        self.is_impossible_to_look(1, MISSING)

    def test_a_write_that_waited_in_vain_did_nothing(self):
        self.write(0, BUSY)
        self.is_impossible_to_look(1, self.NEW)

    def test_during_a_write_the_new_state_does_not_go_again(self):
        self.begin_write(0)
        self.look(1, self.OLD)
        self.look(1, self.NEW)
        self.is_impossible_to_look(1, self.OLD)

    def test_a_write_takes_effect_before_it_is_acknowledged(self):
        self.begin_look(1)
        self.write(0, 0)
        self.begin_write(0, None)
        self.history.end(1, MISSING)
        self.is_impossible_to_look(1, self.NEW)


if __name__ == "__main__":
    support.main()
