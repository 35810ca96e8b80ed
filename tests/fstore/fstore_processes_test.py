#!/usr/bin/env python3
"""Eight processes at random commands on one database, against what each was told.

Each worker has records of its own, whose contents it knows; all share some, which
hold what one of them put. One changes the password now and then. 10 seconds every
day, 60 with FSTORE_LONG=1. Without the lock the same test finds losses.
"""

import collections
import random
import threading
import time

import support
from support import CHEAP, LONG, InitialisedTest

WORKERS = 8
DURATION = 60 if LONG else 10
ATTEMPTS = 20  # with a password, while it may be changed again and again
SHARED = ["settings/s0", "settings/s1"]


class Worker(threading.Thread):
    """Runs commands on its own records and on shared ones until the time is over."""

    def __init__(self, number, folder, end, env):
        super().__init__()
        self.number = number
        self.folder = folder
        self.end = end
        self.env = env
        self.random = random.Random(number)
        self.known = {}  # address: body
        self.done = collections.Counter()
        self.faults = []
        self.password = 0

    def tool(self, *args, stdin=b""):
        """Runs a command with the password in force, which another worker may change."""
        for _ in range(ATTEMPTS):
            run = support.fstore("-D", self.folder, "--lock-timeout", "60", *args, stdin=stdin,
                                 password=f"password {self.password}",
                                 env={**self.env, "FSTORE_NEW_PASSWORD":
                                      f"password {1 - self.password}"})
            if run.code != 6:
                break
            self.password = 1 - self.password
        return run

    def expect(self, run, condition, what):
        if not condition:
            self.faults.append(f"{what}: {run}")

    def body(self):
        return self.random.randbytes(self.random.choice([1, 10, 1000, 20000]))

    def own(self):
        return f"settings/w{self.number}-{self.random.randrange(3)}"

    def put(self):
        address, body = self.own(), self.body()
        plain = ["--plain-body"] if self.random.random() < 0.3 else []
        run = self.tool("put", "-f", address, "-", *plain, stdin=body)
        self.expect(run, run.code == 0, f"put {address}")
        self.known[address] = body

    def get(self):
        address = self.own()
        run = self.tool("get", address)
        known = self.known.get(address)
        self.expect(run, (run.code, run.out) == ((50, b"") if known is None else (0, known)),
                    f"get {address}")

    def rm(self):
        address = self.own()
        run = self.tool("rm", address)
        known = self.known.pop(address, None)
        self.expect(run, run.code == (50 if known is None else 0), f"rm {address}")

    def set(self):
        address = self.own()
        run = self.tool("set", address, f"label={self.random.random()}")
        self.expect(run, run.code == (0 if address in self.known else 50), f"set {address}")

    def ls(self):
        run = self.tool("ls", "--json")
        self.expect(run, run.code == 0, "ls")
        listed = {record["address"] for record in run.document["records"]} \
            if run.code == 0 else set()
        own = {address for address in listed if address.startswith(f"settings/w{self.number}-")}
        self.expect(run, own == set(self.known), f"ls has {own}, not {set(self.known)}")

    def check(self):
        run = self.tool("check", "--json")
        self.expect(run, run.code == 0 and run.document["findings"] == [], "check")

    def put_shared(self):
        run = self.tool("put", "-f", self.random.choice(SHARED), "-", stdin=b"shared " + self.body())
        self.expect(run, run.code == 0, "put shared")

    def get_shared(self):
        run = self.tool("get", self.random.choice(SHARED))
        self.expect(run, run.code == 50 or run.out.startswith(b"shared "), "get shared")

    def passwd(self):
        run = self.tool("passwd", *CHEAP)
        self.expect(run, run.code == 0, "passwd")

    def run(self):
        commands = [self.put, self.put, self.get, self.get, self.rm, self.set, self.ls,
                    self.check, self.put_shared, self.get_shared]
        if self.number == 0:
            commands.append(self.passwd)
        while time.monotonic() < self.end:
            command = self.random.choice(commands)
            command()
            self.done[command.__name__] += 1


class ProcessesTest(InitialisedTest):
    def work(self, seconds, env):
        self.run_tool("passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD": "password 0"})
        end = time.monotonic() + seconds
        workers = [Worker(number, self.folder, end, env) for number in range(WORKERS)]
        for worker in workers:
            worker.start()
        for worker in workers:
            worker.join()
        done = sum((worker.done for worker in workers), collections.Counter())
        faults = [fault for worker in workers for fault in worker.faults]
        print(f"{WORKERS} processes: {sum(done.values())} commands, {len(faults)} violations; "
              f"{dict(done)}", flush=True)
        return workers, faults

    def test_each_finds_what_it_was_told(self):
        workers, faults = self.work(DURATION, {})
        self.assertEqual([], faults)
        for worker in workers:
            for address, body in worker.known.items():
                self.assertEqual(body, worker.tool("get", address).out, address)
        run = workers[0].tool("check", "--deep", "--json")
        self.assertEqual(0, run.code, run)
        self.assertEqual([], run.document["findings"])

    def test_without_the_lock_they_do_not(self):
        # A few seconds are enough, and prove that the test above can fail.
        env = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_NO_LOCK": "1"}
        for _ in range(10):
            if self.work(4, env)[1]:
                return
            self.doCleanups()
            self.setUp()
        self.fail("no loss was found without the lock")


if __name__ == "__main__":
    support.main()
