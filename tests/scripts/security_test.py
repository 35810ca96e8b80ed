"""Each promise of SECURITY.md names the tests that hold it to its word, or says that there is none."""

import re
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).parents[2]
ROW = re.compile(r"^\| (.+) \| (.+) \|$", re.M)


def sources():
    """The text of all tests, and the names of those that are files."""
    files = [file for folder in ("tests", "scripts") for file in (ROOT / folder).rglob("*") if file.is_file()]
    names = {file.name for file in files}
    texts = [file.read_text(encoding="utf-8") for file in files
             if file.suffix in (".cpp", ".py", ".txt") and file.name != Path(__file__).name]
    return "\n".join(texts), names


def exists(name, text, names):
    if "." in name and name[0].isupper():
        suite, case = name.split(".")
        return re.search(rf"TEST(_F|_P)?\({suite}, {case}\)", text) is not None
    return name in names or re.search(rf"def {name}\(|NAME {name}$|python_test\({name} ", text, re.M) is not None


class SecurityTest(unittest.TestCase):
    def test_every_promise_has_its_tests(self):
        text, names = sources()
        rows = [row for row in ROW.findall((ROOT / "SECURITY.md").read_text(encoding="utf-8"))
                if row[0] != "promise"]
        self.assertGreater(len(rows), 25)
        for promise, tests in rows:
            with self.subTest(promise=promise):
                if tests == "not promised":
                    continue
                named = re.findall(r"`([^`]+)`", tests)
                self.assertTrue(named, "names no test")
                self.assertEqual([], [name for name in named if not exists(name, text, names)])


if __name__ == "__main__":
    sys.exit(unittest.main())
