"""The number of the version, which CMakeLists.txt has, is the same wherever somebody else reads it."""

import json
import re
import sys
import unittest
from pathlib import Path

ROOT = Path(__file__).parents[2]
BUILD = Path(sys.argv.pop(1))


def found(pattern, path, root=ROOT):
    """The groups of the first match in this file."""
    match = re.search(pattern, (root / path).read_text(encoding="utf-8"), re.M)
    assert match, f"{path} does not match {pattern}"
    return match.groups()


class VersionsTest(unittest.TestCase):
    def setUp(self):
        (self.version,) = found(r"^project\(filestore VERSION ([0-9.]+) ", "CMakeLists.txt")

    def test_newest_release_of_the_changelog(self):
        version, day = found(r"^## ([0-9.]+), (\d{4}-\d\d-\d\d)$", "CHANGELOG.md")
        self.assertEqual(self.version, version)
        (debian, month) = found(r"^ -- .*, (\d\d) (\w+) \d{4} ", "debian/changelog")
        self.assertEqual(day[-2:], debian, f"{month} in debian/changelog")

    def test_debian(self):
        self.assertEqual((self.version,), found(r"^filestore \(([0-9.]+)\) ", "debian/changelog"))

    def test_address_of_the_project(self):
        (maintainer,) = found(r"^Maintainer: (.*)$", "debian/control")
        (homepage,) = found(r"^Homepage: (.*)$", "debian/control")
        self.assertEqual((maintainer,), found(r"^ -- (.*>)  ", "debian/changelog"))
        bill = json.loads((BUILD / "filestore.spdx.json").read_text(encoding="utf-8"))
        self.assertTrue(bill["documentNamespace"].startswith(f"{homepage}/{self.version}/"),
                        bill["documentNamespace"])

    def test_header_of_the_library(self):
        header = [found(rf"^#define FILESTORE_VERSION_{part} +(\d+)", "capi/filestore.h")[0]
                  for part in ("MAJOR", "MINOR")]
        self.assertEqual(self.version.split(".")[:2], header)

    def test_package_of_the_library(self):
        major = self.version.split(".", maxsplit=1)[0]
        self.assertTrue((ROOT / f"debian/libfilestore{major}.symbols").exists())

    def test_bill_of_materials(self):
        bill = json.loads((BUILD / "filestore.spdx.json").read_text(encoding="utf-8"))
        self.assertEqual("SPDX-2.3", bill["spdxVersion"])
        versions = {package["name"]: package["versionInfo"] for package in bill["packages"]}
        self.assertEqual(self.version, versions.pop("filestore"))
        self.assertEqual({"CLI11", "nlohmann-json", "fmt", "OpenSSL", "SQLite"}, set(versions))
        for name, version in versions.items():
            self.assertRegex(version, r"^\d+\.\d+", name)
        described = {relation["relatedSpdxElement"] for relation in bill["relationships"]}
        self.assertEqual({package["SPDXID"] for package in bill["packages"]}, described)


if __name__ == "__main__":
    sys.exit(unittest.main())
