#!/usr/bin/env python3
"""What a program has read is nowhere in its memory any more once it has closed it."""

import re
import secrets
import shutil
import unittest

import support
from python_support import PASSWORD, StoreTest, example

# Waits for a line between its steps, so that its memory can be looked at.
PROGRAM = f"""
import sys
import filestore
def pause(word):
    print(word, flush=True)
    sys.stdin.readline()
database = filestore.Database(".")
pause("opened")
database.unlock({PASSWORD!r})
record = database.get("settings/a")
secret = next(each.value for each in record.attributes if each.id == 0x8001)
views = (record.body.view, secret.view)
pause("read")
ENDING
pause("wiped")
"""

ENDINGS = {
    "close": "record.close()",
    "close of the secrets alone": "record.body.close(); secret.close()",
    "with": "\nwith record: pass",
    "the last reference": "del views, secret, record",
}


def seen(process, *wanted):
    """How often each of these secrets is in the memory of the process."""
    counts = [0] * len(wanted)
    with open(f"/proc/{process.pid}/maps", encoding="utf-8") as maps, \
            open(f"/proc/{process.pid}/mem", "rb") as memory:
        for line in maps:
            start, end, mode = re.match(r"(\w+)-(\w+) (\S+)", line).groups()
            if "w" not in mode:
                continue
            memory.seek(int(start, 16))
            try:
                region = memory.read(int(end, 16) - int(start, 16))
            except OSError:
                continue  # a region of the system's, which nobody reads
            for place, secret in enumerate(wanted):
                counts[place] += region.count(secret)
    return counts


class WipingTest(StoreTest):
    def setUp(self):
        super().setUp()
        self.body, self.attribute = secrets.token_bytes(64), secrets.token_bytes(48)
        self.database.put("settings/a", self.body, attributes={0x8001: self.attribute})

    def seen(self, process):
        return seen(process, self.body, self.attribute)

    def test_nothing_is_left(self):
        for name, ending in ENDINGS.items():
            with self.subTest(name):
                process = self.start(PROGRAM.replace("ENDING", ending))
                for word, expected in (("opened", [0, 0]), ("read", [1, 1]), ("wiped", [0, 0])):
                    self.assertEqual(word, process.stdout.readline().strip())
                    self.assertEqual(expected, self.seen(process), word)
                    process.stdin.write("\n")
                    process.stdin.flush()
                self.assertEqual(0, process.wait(60))


UNLOCKING = """
import sys
import filestore
database = filestore.Database(".")
for step in (lambda: database.unlock(key_file="host.key"), database.lock):
    step()
    print("done", flush=True)
    sys.stdin.readline()
"""


class KeyWipingTest(StoreTest):
    def test_of_a_key_file_nothing_stays(self):
        shutil.rmtree(self.folder / "db")
        secrets_ = example(self.folder)
        text = secrets_["file"].encode()
        (self.folder / "host.key").write_bytes(text)
        digits = text.split(b":")[1]
        process = self.start(UNLOCKING)
        for is_unlocked in (True, False):
            self.assertEqual("done", process.stdout.readline().strip())
            file, key, p = seen(process, digits, bytes.fromhex(digits.decode()),
                                secrets_["P"].encode())
            self.assertEqual((0, 0, is_unlocked), (file, key, p > 0))
            process.stdin.write("\n")
            process.stdin.flush()
        self.assertEqual(0, process.wait(60))


if __name__ == "__main__":
    support.main()
