#!/usr/bin/env python3
"""The dynamic symbol table of the module: what it shows, needs, and is.

    exports_test.py MODULE BITS

MODULE is filestore.so, BITS its word size. exports.txt beside this script lists
the C++ functions, the same ones for both word sizes: a client that was compiled against
declarations alone links with either. Whatever else the module shows is a leak that lets two
modules share what each must have for itself.
"""

import pathlib
import re
import subprocess
import sys
import unittest

PLAIN = {
    "GetInterfaceClass",
    "FileStore_Module_Version",
    "FileStore_Module_Build",
    "InitObjectManager",
    "GetObjectManager",
    "MakeObject",
    "filestore_contextMake",
    "filestore_contextEnter",
    "filestore_contextLeave",
    "filestore_contextWatch",
    "filestore_contextDelete",
    "rk5_MD5Init",
    "rk5_MD5Update",
    "rk5_MD5Final",
    "rk5_MD5Compute",
}

# Of these the table of operations and the type's description are shown as well.
CLASSES = set(
    """
    BaseModuleInterface CMN_Guard CMN_GuardedRef CMN_Mutex CMN_ObjectManager
    CMN_RecursiveMutex CMN_Reference CryptoCoder CryptoCoderHandle
    DummyHolder FileList FileStore FileStoreList FileStoreSrv TCryptoCoder TFileStore
    TFileStoreList TFileStoreSrv TstringID Tuint32ID aCryptoDecoder
    aCryptoEncoder aFileStore aFileStoreExt aFileStoreList aFileStoreListExt aFileStoreSrv
    aFileStoreSrvExt
    """.split()
)

# Interfaces that have a type here and no table: it comes with whoever implements one.
INTERFACES = {"CMN_GRPHolder", "CMN_ServiceStubInterface", "TypifiedID"}

LIBRARIES = re.compile(r"(libc|libm|libstdc\+\+|libgcc_s|ld-linux(-x86-64)?)\.so(\.\d+)?")

OF_CLASS = re.compile(r"(?:vtable|typeinfo|typeinfo name) for (.*)")


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Module:
    """What the tools of the system tell of one shared object."""

    def __init__(self, path):
        self.header = output_of("readelf", "--wide", "--file-header", path)
        self.dynamic = output_of("readelf", "--wide", "--dynamic", path)
        self.segments = output_of("readelf", "--wide", "--program-headers", path)
        self.symbols = output_of("readelf", "--wide", "--dyn-syms", path)
        self.mangled = self.names(path)
        self.demangled = self.names(path, "--demangle")

    @staticmethod
    def names(path, *options):
        lines = output_of("nm", "--dynamic", "--defined-only", *options, path).splitlines()
        return [line.split(maxsplit=2)[2].split("@@")[0] for line in lines]


class ExportsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.module = Module(MODULE)
        lines = (pathlib.Path(__file__).parent / "exports.txt").read_text("utf-8").splitlines()
        cls.listed = [line for line in lines if not line.startswith("#")]

    def test_plain_names_are_exactly_those_published(self):
        plain = {name for name in self.module.mangled if not name.startswith("_Z")}
        self.assertEqual(PLAIN, plain)

    def test_functions_are_those_listed(self):
        shown = {re.sub(r"\(.*", "", name) for name in self.module.demangled} - PLAIN
        shown = {name for name in shown if not OF_CLASS.fullmatch(name)}
        self.assertEqual(set(), shown - set(self.listed), "shown, but not listed")
        self.assertEqual(set(), set(self.listed) - shown, "listed, but not shown")

    def test_tables_and_types_are_of_published_classes(self):
        found = {name for name in self.module.demangled if OF_CLASS.fullmatch(name)}
        types = {f"typeinfo{part} for {name}"
                 for name in CLASSES | INTERFACES for part in ("", " name")}
        self.assertEqual(types | {f"vtable for {name}" for name in CLASSES}, found)

    def test_nothing_of_the_standard_library_is_shown(self):
        library = re.compile(r"(.* for )?(std|__gnu_cxx|__cxxabiv1)::")
        inner = [name for name in self.module.demangled if library.match(name)]
        self.assertEqual([], inner)

    def test_no_symbol_is_unique_in_the_process(self):
        self.assertNotIn("UNIQUE", self.module.symbols)

    def test_needs_the_language_and_the_system_only(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", self.module.dynamic)
        self.assertIn("libc.so.6", needed)
        self.assertEqual([], [name for name in needed if not LIBRARIES.fullmatch(name)])

    def test_is_of_the_word_size_it_ships_in(self):
        kind, machine = {"32": ("ELF32", "Intel 80386"), "64": ("ELF64", "X86-64")}[BITS]
        self.assertRegex(self.module.header, rf"Class:\s+{kind}\n")
        self.assertRegex(self.module.header, rf"Machine:.*{machine}\n")
        self.assertRegex(self.module.header, r"Type:\s+DYN")

    def test_is_bound_whole_and_runs_no_data(self):
        self.assertRegex(self.module.dynamic, r"\(FLAGS\).*SYMBOLIC|\(SYMBOLIC\)")
        self.assertRegex(self.module.dynamic, r"\(FLAGS_1\).*NOW")
        self.assertNotIn("TEXTREL", self.module.dynamic)
        self.assertNotIn("RUNPATH", self.module.dynamic)
        self.assertNotIn("RPATH", self.module.dynamic)
        self.assertRegex(self.module.segments, r"GNU_STACK.* RW ")


if __name__ == "__main__":
    MODULE, BITS = sys.argv[1:3]
    unittest.main(argv=sys.argv[:1])
