"""check_paths.py finds paths of one machine and hosts of registries, and only those."""

import unittest

from support import ScriptTest

# Put together here, so that this file passes the check itself.
BAD = [
    "cd " + "/" + "tmp/build",
    'dir = "/' + 'home/someone/filestore"',
    "deb http://" + "deb." + "debian.org/debian bookworm main",
    "index-url = https://" + "pypi" + ".org/simple",
    "https://" + "registry" + ".example.net/packages",
]

GOOD = [
    "cmake --preset dev && build/dev/bin/fstore",
    "/usr/src/googletest",
    "http://www.apache.org/licenses/",
    '"$TMPDIR/tmp/x" and build/work/x',
    "./db/keys",
]


class CheckPathsTest(ScriptTest):
    def test_catches_each(self):
        for line in BAD:
            with self.subTest(line=line):
                self.write("docs/x.md", f"first\n{line}\n")
                status, output = self.run_script("check_paths.py")
                self.assertEqual(1, status)
                self.assertIn("docs/x.md:2:", output)

    def test_lets_through_the_rest(self):
        self.write("docs/x.md", "\n".join(GOOD))
        status, output = self.run_script("check_paths.py")
        self.assertEqual(0, status, output)

    def test_an_empty_tree_is_no_success(self):
        status, _ = self.run_script("check_paths.py")
        self.assertEqual(1, status)


if __name__ == "__main__":
    unittest.main()
