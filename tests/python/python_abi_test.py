#!/usr/bin/env python3
"""The package's view of the C library is that of the header: structures, constants, functions."""

import ctypes
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import support
from filestore import _abi, _errors, _records

HEADER = pathlib.Path(__file__).resolve().parents[2] / "capi/filestore.h"
TEXT = HEADER.read_text(encoding="utf-8")

# Structures of the header, by our names.
STRUCTURES = {
    "filestore_error": _abi.Error,
    "filestore_callbacks": _abi.Callbacks,
    "filestore_open_options": _abi.OpenOptions,
    "filestore_key": _abi.Key,
    "filestore_info": _abi.Info,
    "filestore_attribute": _abi.Attribute,
    "filestore_find_options": _abi.FindOptions,
    "filestore_problem": _abi.Problem,
    "filestore_import_options": _abi.ImportOptions,
    "filestore_export_options": _abi.ExportOptions,
    "filestore_finding": _abi.Finding,
    "filestore_check_options": _abi.CheckOptions,
}

# Constants of the header, by our names; None for what the package has no use for.
CONSTANTS = {
    "FILESTORE_CREATE": _abi.OPEN_CREATE,
    "FILESTORE_READ_ONLY": _abi.OPEN_READ_ONLY,
    "FILESTORE_REQUIRE_SHARED_LOCK": _abi.OPEN_REQUIRE_SHARED_LOCK,
    "FILESTORE_PASSWORD": _abi.KEY_PASSWORD,
    "FILESTORE_RAW_KEY": _abi.KEY_RAW,
    "FILESTORE_KEY_FILE": _abi.KEY_FILE,
    "FILESTORE_RECOVERY_KEY": _abi.KEY_RECOVERY,
    "FILESTORE_HAS_BODY": _abi.INFO_HAS_BODY,
    "FILESTORE_BODY_ENCRYPTED": _abi.INFO_BODY_ENCRYPTED,
    "FILESTORE_IS_CA": _abi.INFO_IS_CA,
    "FILESTORE_HAS_NOT_BEFORE": _abi.INFO_HAS_NOT_BEFORE,
    "FILESTORE_HAS_NOT_AFTER": _abi.INFO_HAS_NOT_AFTER,
    "FILESTORE_READABLE": _abi.INFO_READABLE,
    "FILESTORE_PLAIN_ONLY": _abi.GET_PLAIN_ONLY,
    "FILESTORE_NO_BODY": _abi.GET_NO_BODY,
    "FILESTORE_ENCRYPTED": _abi.ATTRIBUTE_ENCRYPTED,
    "FILESTORE_PLAIN": _abi.PUT_PLAIN,
    "FILESTORE_NEW": _abi.PUT_NEW,
    "FILESTORE_FIND_EXPIRED": _abi.FIND_EXPIRED,
    "FILESTORE_FIND_WITH_KEY": _abi.FIND_WITH_KEY,
    "FILESTORE_FIND_WITHOUT_KEY": _abi.FIND_WITHOUT_KEY,
    "FILESTORE_FIND_SECRETS": _abi.FIND_SECRETS,
    "FILESTORE_IMPORT_REPLACE": _abi.IMPORT_REPLACE,
    "FILESTORE_IMPORT_ENCRYPT": _abi.IMPORT_ENCRYPT,
    "FILESTORE_EXPORT_CHAIN": _abi.EXPORT_CHAIN,
    "FILESTORE_EXPORT_PLAIN": _abi.EXPORT_PLAIN,
    "FILESTORE_IS_DAMAGE": _abi.FINDING_IS_DAMAGE,
    "FILESTORE_IS_UNREAD": _abi.FINDING_IS_UNREAD,
    "FILESTORE_IS_REPAIRABLE": _abi.FINDING_IS_REPAIRABLE,
    "FILESTORE_IS_REPAIRED": _abi.FINDING_IS_REPAIRED,
    "FILESTORE_CHECK_DEEP": _abi.CHECK_DEEP,
    "FILESTORE_CHECK_REPAIR": _abi.CHECK_REPAIR,
    "FILESTORE_KEEP_OLD": _abi.CHANGE_KEEP_OLD,
    "FILESTORE_REPLACE": _abi.ARCHIVE_REPLACE,
    **{f"FILESTORE_{kind.name}": kind.value for kind in _records.Kind},
    **{f"FILESTORE_{outcome.name}": outcome.value for outcome in _records.Imported},
    **{f"FILESTORE_{type.name}": type.value for type in _records.AttributeType},
    **{f"FILESTORE_{kind.name}": kind.value for kind in _records.ProblemKind},
    "FILESTORE_BY_NAME": 0,
    "FILESTORE_BY_EXPIRY": 1,
    "FILESTORE_BY_SUBJECT": 2,
    "FILESTORE_PEM": 0,
    "FILESTORE_DER": 1,
    "FILESTORE_PKCS12": 2,
    "FILESTORE_ID_LABEL": 0x102,
    "FILESTORE_ID_SHA256": None,
    "FILESTORE_FIRST_USER_ID": None,
    "FILESTORE_URI_RECORD": None,
    "FILESTORE_URI_FOLDER": None,
    "FILESTORE_URI_HOST": None,
}

# Types of C by those of ctypes, as far as a call cares: how wide they are.
WIDTHS = {"void": None, "int": 4, "filestore_status": 4, "uint32_t": 4, "size_t": 8}


def bodies(keyword):
    """Name and body of each structure or enumeration of the header."""
    code = re.sub(r"/\*.*?\*/", "", TEXT, flags=re.DOTALL)
    return re.findall(rf"\b{keyword} (\w+) {{(.*?)}}", code, flags=re.DOTALL)


def enumerators():
    return {name: int(value, 0) for enum, body in bodies("enum")
            for name, value in re.findall(r"(FILESTORE_\w+) =\s*(\w+)", body)}


def declarations():
    """The functions of the header: the width of the result, and those of the arguments."""
    code = re.sub(r"/\*.*?\*/", "", TEXT, flags=re.DOTALL)
    found = {}
    for result, name, arguments in re.findall(
            r"FILESTORE_API ([\w\s*]+?)\bfilestore_(\w+)\(([^;]*)\);", code):
        each = [] if arguments.strip() == "void" else arguments.split(",")
        found[name] = [width(result), *map(width, each)]
    return found


def width(declared):
    return 8 if "*" in declared else WIDTHS[declared.split()[0]]


class HeaderTest(unittest.TestCase):
    def test_constants(self):
        statuses = {name for enum, body in bodies("enum") if enum == "filestore_status_code"
                    for name in re.findall(r"(FILESTORE_\w+) =", body)}
        self.assertGreater(len(statuses), 10)
        named = {name: value for name, value in enumerators().items() if name not in statuses}
        self.assertEqual(set(named), set(CONSTANTS))
        for name, value in CONSTANTS.items():
            if value is not None:
                self.assertEqual(named[name], value, name)

    def test_every_status_has_a_class(self):
        values = {value for enum, body in bodies("enum") if enum == "filestore_status_code"
                  for value in map(int, re.findall(r"=\s*(\d+)", body))}
        self.assertEqual(values - {0, 125}, set(_errors.Error._by_status))

    def test_functions(self):
        declared = declarations()
        self.assertEqual(set(declared), set(_abi.FUNCTIONS))
        for name, types in _abi.FUNCTIONS.items():
            widths = [None if type is None else ctypes.sizeof(type) for type in types]
            self.assertEqual(declared[name], widths, name)

    def test_structures(self):
        self.assertEqual({name for name, _ in bodies("struct")}, set(STRUCTURES))
        lines = []
        for name, structure in STRUCTURES.items():
            lines.append((f"sizeof({name})", ctypes.sizeof(structure)))
            for member, *_ in structure._fields_:
                field = getattr(structure, member)
                lines.append((f"offsetof({name}, {member})", field.offset))
                lines.append((f"sizeof((({name}*)0)->{member})", field.size))
        prints = "".join(f'printf("%zu\\n", {expression});\n' for expression, _ in lines)
        source = f'#include <stdio.h>\n#include "{HEADER}"\nint main(void) {{ {prints} return 0; }}'
        with tempfile.TemporaryDirectory() as folder:
            program = f"{folder}/sizes"
            subprocess.run([os.environ["C_COMPILER"], "-x", "c", "-o", program, "-"], input=source,
                           text=True, check=True, timeout=60)
            run = subprocess.run([program], capture_output=True, text=True, check=True, timeout=60)
        self.assertEqual([value for _, value in lines], [int(each) for each in run.stdout.split()])

    def test_every_member_is_ours(self):
        for name, body in bodies("struct"):
            # The last word of each declaration, in front of an array's bounds; in parentheses the
            # name of a function pointer.
            members = re.findall(r"(?:\(\*(\w+)\)\([^;]*\)|(\w+)(?:\[\d+\])?);", body)
            self.assertEqual([a or b for a, b in members],
                             [field for field, *_ in STRUCTURES[name]._fields_], name)

    def test_the_library_has_every_function(self):
        for name in _abi.FUNCTIONS:
            self.assertIsNotNone(_abi.call[name])


if __name__ == "__main__":
    support.main()
