#!/usr/bin/env python3
"""Several processes: forks that use what their parent opened, writers that are killed."""

import multiprocessing
import os
import signal
import time
import unittest

import filestore
import support
from python_support import PASSWORD, StoreTest

WRITER = f"""
import filestore
database = filestore.Database(".")
database.unlock({PASSWORD!r})
turn = 0
while True:
    turn += 1
    database.put("settings/a", b"%8d" % turn * 1000)
    print(turn, flush=True)
"""

# Ends while everything is open, threads are inside of the library, and a callback is running.
ENDS = f"""
import atexit, contextlib, threading, time
import filestore

def opened():
    database = filestore.Database(".")
    database.unlock({PASSWORD!r})
    return database

def records():
    with opened() as database:
        while True:
            yield database.get("settings/a")

def work():
    while True:
        database.put("settings/b", bytes(database.get("settings/a").body))

def check():
    with contextlib.suppress(filestore.Interrupted):
        while True:
            opened().check(deep=True, progress=lambda *of: time.sleep(0.05))

database = opened()
database.put("settings/a", b"body")
unfinished = records()
record = next(unfinished)
view = record.body.view
for _ in range(3):
    threading.Thread(target=work, daemon=True).start()
threading.Thread(target=check, daemon=True).start()
atexit.register(lambda: print(bytes(database.get("settings/a").body)))
time.sleep(0.3)
"""


class EndTest(StoreTest):
    def test_a_program_ends_with_all_open_and_at_work(self):
        for _ in range(3):
            process = self.start(ENDS)
            said, complaints = process.communicate(timeout=60)
            self.assertEqual((0, "b'body'\n", ""), (process.returncode, said, complaints))
            self.assertEqual(b"body", self.body("settings/a"))


class ForkTest(StoreTest):
    def test_children_use_what_the_parent_opened(self):
        self.database.put("settings/a", b"of the parent")
        context = multiprocessing.get_context("fork")
        with context.Pool(4, initializer=_remember, initargs=(self.database,)) as pool:
            bodies = pool.map_async(_work, range(20)).get(120)
        self.assertEqual([b"of the parent"] * 20, bodies)
        for name in range(20):
            self.assertEqual(b"of a child", self.body(f"settings/{name}"))

    def test_the_end_of_a_child_is_none_of_the_parents_business(self):
        record = self.database.get(self.put_one())
        child = os.fork()
        if child == 0:
            record.close()
            self.database.close()
            os._exit(0)
        self.assertEqual(0, os.waitpid(child, 0)[1])
        self.assertEqual(b"one", bytes(record.body))
        self.assertEqual(b"one", self.body("one"))

    def put_one(self):
        self.database.put("settings/one", b"one")
        return "settings/one"


_database = None


def _remember(database):
    global _database
    _database = database


def _work(number):
    _database.put(f"settings/{number}", b"of a child")
    with _database.get("settings/a") as record:
        return bytes(record.body)


class KilledWriterTest(StoreTest):
    def test_a_killed_writer_leaves_a_whole_record(self):
        for delay in (0.0, 0.004, 0.009, 0.013):
            process = self.start(WRITER)
            for _ in range(3):
                process.stdout.readline()
            time.sleep(delay)
            process.send_signal(signal.SIGKILL)
            said, _ = process.communicate(timeout=60)
            acknowledged = int((said.split() or ["3"])[-1])
            body = self.body("settings/a")
            turn = int(body[:8])
            self.assertEqual(b"%8d" % turn * 1000, body)
            self.assertIn(turn, (acknowledged, acknowledged + 1))

    def test_a_reader_waits_no_longer_than_it_was_told(self):
        holder = self.start("import fcntl, os\n"
                            "fd = os.open('.', os.O_RDONLY)\n"
                            "fcntl.flock(fd, fcntl.LOCK_EX)\n"
                            "print('locked', flush=True)\n"
                            "input()")
        self.assertEqual("locked\n", holder.stdout.readline())
        with filestore.Database(self.folder, lock_seconds=0) as database:
            with self.assertRaises(filestore.Busy) as caught:
                database.get("settings/a", plain_only=True)
            self.assertEqual(33, caught.exception.status)

    def test_a_change_of_the_password_elsewhere_is_noticed(self):
        self.database.put("settings/a", b"x")
        run = support.fstore("-D", self.folder, "passwd", *support.CHEAP,
                             env={"FSTORE_NEW_PASSWORD": "another"})
        self.assertEqual(0, run.code, run.message)
        self.assertRaises(filestore.NotOpen, self.database.get, "a")
        self.assertRaises(filestore.WrongPassword, self.database.unlock, PASSWORD)
        self.database.unlock("another")
        self.assertEqual(b"x", self.body("a"))


if __name__ == "__main__":
    support.main()
