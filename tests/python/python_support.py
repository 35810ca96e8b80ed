"""What the tests of the Python package share: a database of their own."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import filestore

PASSWORD = "correct horse"
CHEAP = 14  # the least cost of a guess that is allowed


def example(folder):
    """Makes the database of tests/data/unlock_slots.txt by hand; what opens it, by name."""
    text = (pathlib.Path(__file__).resolve().parents[1] / "data/unlock_slots.txt").read_text()
    lines = re.findall(r"^(?:unlock|slot|end) .*$", text, re.MULTILINE)
    (folder / "db").mkdir(mode=0o700)
    digest = re.search(r" key=([0-9a-f]{32}) ", lines[1])[1]
    (folder / "db/key.dsc").write_text(f"00000002 00000001 {digest}\n")
    for name in ("kdf", "kdf-copy"):
        (folder / f"db/{name}.dsc").write_text(
            "".join(f"00000004 00004b01 {line}\n" for line in lines))
    return dict(re.findall(r"^([\w-]+) = (.*)$", text, re.MULTILINE))


class StoreTest(unittest.TestCase):
    """A test with a database in self.folder, made once, and a handle that is unlocked."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls._template = pathlib.Path(tempfile.mkdtemp(prefix="filestore-template-"))
        cls.addClassCleanup(shutil.rmtree, cls._template)
        with filestore.Database(cls._template, create=True, cost=CHEAP) as database:
            database.unlock(PASSWORD)
            cls.fill(database)

    @classmethod
    def fill(cls, database):
        """Puts records into the template; does nothing here."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="filestore-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        shutil.copytree(self._template, self.folder, dirs_exist_ok=True)
        self.database = self.open()
        self.addCleanup(self.database.close)

    def open(self, **options):
        database = filestore.Database(self.folder, **options)
        database.unlock(PASSWORD)
        return database

    def body(self, address, database=None):
        with (database or self.database).get(address) as record:
            return bytes(record.body)

    def start(self, script, *arguments):
        """Starts another Python that runs the script in the folder."""
        process = subprocess.Popen(
            [sys.executable, "-B", "-c", script, *map(str, arguments)], cwd=self.folder,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(self._end, process)
        return process

    @staticmethod
    def _end(process):
        process.kill()
        process.communicate()
