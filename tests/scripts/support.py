"""What the tests of scripts share: a project tree of their own and a way to run."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

SCRIPTS = pathlib.Path(__file__).resolve().parent.parent.parent / "scripts"


class ScriptTest(unittest.TestCase):
    """Each test has an empty folder self.root."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def run_whole(self, script):
        """Returns what subprocess tells of a script over the tree."""
        return subprocess.run([sys.executable, SCRIPTS / script, self.root],
                              capture_output=True, text=True, check=False)

    def run_script(self, script):
        """Returns the exit status and the output of a script over the tree."""
        run = self.run_whole(script)
        return run.returncode, run.stdout
