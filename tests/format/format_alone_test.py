#!/usr/bin/env python3
"""What is on disk stands in format/ and nowhere else in the product.

The lists of markers, folders, records, type words and ids are taken from the headers of
format/, the other rooms are searched for their literals. A new constant of format/ is
looked for as soon as it is there.
"""

import pathlib
import re
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
PRODUCT = ["os", "cmn", "api", "client", "store", "service", "host", "lib", "fstore"]

# Literals that only look like names on disk, and why. Each must be there.
EXCEPTIONS = {
    ("lib/records/attributes.cpp", "key"): "the kind of a record, in the words of users",
    ("lib/database/lost.cpp", "key"): "a word of a plan",
    ("fstore/commands/export.cpp", "key"): "a name in JSON",
    ("fstore/commands/common_options.cpp", "key"): "what --type takes",
    ("lib/work/uri.cpp", "key"): "what a URI's type may be",
    ("lib/database/unlock.cpp", "key"): "a word of a message",
    ("fstore/commands/key.cpp", "key"): "the name of a command",
    ("lib/database/unlock_box.cpp", "key"): "a parameter of OpenSSL's",
    ("fstore/commands/export.cpp", "certificates"): "a name in JSON",
    ("fstore/commands/report.cpp", "certificates"): "a name in JSON",
    ("fstore/commands/report.cpp", "keys"): "a name in JSON",
    ("fstore/commands/report_page.cpp", "certificates"): "a word of the page",
    ("fstore/commands/report_page.cpp", "keys"): "a word of the page",
}

COMMENT = re.compile(r'//[^\n]*|/\*.*?\*/|("(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\')', re.DOTALL)
TEXT = re.compile(r'"((?:\\.|[^"\\\n])*)"')
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*(?![\w.'])")
CONSTANT = re.compile(r"constexpr\s+([\w:\s*]+?)\s*\b(k\w+)(?:\s*=\s*([^;]+)|(\{[^;]*\}));")
INCLUDE = re.compile(r"^\s*#\s*include[^\n]*", re.MULTILINE)


def code_of(text):
    """The text without comments and #include lines; line feeds stay."""
    text = COMMENT.sub(lambda found: found[1] or "\n" * found[0].count("\n"), text)
    return INCLUDE.sub("", text)


def value_of(literal):
    digits = literal.replace("'", "").lower()
    return int(digits, 16 if digits.startswith("0x") else 10)


class Format:
    """What the headers of format/ define: texts by constant, numbers by constant."""

    def __init__(self, root):
        self.texts, self.numbers = {}, {}
        for header in sorted((root / "format").glob("*.h")):
            for _, name, value, braces in CONSTANT.findall(
                    code_of(header.read_text(encoding="utf-8"))):
                value = value or braces
                text, number = TEXT.search(value), NUMBER.fullmatch(value.strip())
                if text:
                    self.texts[name] = text[1]
                elif number:
                    self.numbers[name] = value_of(number[1])
        self.markers = [text for text in self.texts.values() if text.startswith(".") and "/" not in text]
        self.tops = [text for text in self.texts.values() if re.fullmatch(r"\./[\w.]+", text)]
        live = self.texts["kLive"] + "/"
        self.below = [text[len(live):] for text in self.texts.values() if text.startswith(live)]
        names = [text for text in self.texts.values() if re.fullmatch(r"\w+", text)]
        self.names = self.below + names
        # Smaller ones could be anything.
        self.telling = {name: value for name, value in self.numbers.items() if value > 0xFFF}

    def is_of_disk(self, text):
        """Whether a literal is or has something that only format/ may say.

        One with a blank is a sentence for users, who read the names as they are.
        """
        return " " not in text and (any(marker in text for marker in self.markers)
                or any(re.search(re.escape(top[2:]) + r"\b", text) for top in self.tops
                       if top[2:] not in self.names)
                or any(re.match(re.escape(top) + r"(/|$)", text) for top in self.tops)
                or any(text in (name, name + "/") for name in self.names))

    def defines_again(self, name, value):
        """Whether a constant has the number of a data type and the last word of its name."""
        word = re.search(r"[A-Z][a-z0-9]*$", name)
        return word and self.numbers.get("kType" + word[0]) == value

    def faults(self, text):
        """Yields (line number, literal) for all that the text says again."""
        code = code_of(text)
        line_of = lambda found: code.count("\n", 0, found.start()) + 1
        for found in TEXT.finditer(code):
            if self.is_of_disk(found[1]):
                yield line_of(found), found[1]
        for found in CONSTANT.finditer(code):
            number = NUMBER.fullmatch((found[3] or "").strip())
            if number and self.defines_again(found[2], value_of(number[1])):
                yield line_of(found), found[2]
        code = TEXT.sub('""', code)
        for found in NUMBER.finditer(code):
            if value_of(found[1]) in self.telling.values():
                yield line_of(found), found[0]


class FormatAloneTest(unittest.TestCase):
    def setUp(self):
        self.format = Format(ROOT)

    def test_the_lists_come_from_format(self):
        self.assertEqual({".dsc", ".$n$", ".$o$", ".$d$"}, set(self.format.markers))
        self.assertEqual({"./db", "./new_db", "./old_db", "./db.lost", "./db.lock", "./db.index", "./db.state"},
                         set(self.format.tops))
        self.assertEqual({"settings", "lsps", "keys", "crls", "crm", "certificates",
                          "certificates/local", "certificates/remote"}, set(self.format.below))
        self.assertLessEqual({"db", "key", "kdf"}, set(self.format.names))
        self.assertEqual({"kFlagEncrypted", "kFlagBody", "kSlotId", "kKeepOldId"},
                         set(self.format.telling))
        self.assertLessEqual({"kTypeNumber", "kTypeBinary", "kTypeString", "kTypeText"},
                             set(self.format.numbers))

    def test_a_literal_elsewhere_is_found(self):
        for text, found in [
                ('f("./db");', "./db"),
                ('f("./db/keys");', "./db/keys"),
                ('constexpr const char* kCopy = "./new_db";', "./new_db"),
                ('f("old_db");', "old_db"),
                ('name.ends_with(".dsc")', ".dsc"),
                ('f("x.dsc.$o$")', "x.dsc.$o$"),
                ('f("certificates/local")', "certificates/local"),
                ('f("keys/" + name)', "keys/"),
                ('f("kdf")', "kdf"),
                ("x & 0x1000'0000u", "0x1000'0000u"),
                ("id == 19201", "19201"),
                ("inline constexpr unsigned int kText = 4;", "kText"),
                ("static constexpr unsigned int kTypeMask = 0xF;", "kTypeMask")]:
            with self.subTest(text):
                self.assertEqual([(2, found)], list(self.format.faults("\n" + text)))

    def test_other_literals_and_comments_are_not(self):
        for text in ['#include "format/layout.h"', '// "./db"', '/* ".dsc"\n */ int x;',
                     'f("the key is gone");', 'f("moved to ./db.lost");', 'f("dbm");', "x = 0x10000001;", "x = 4;",
                     "constexpr int kTries = 4;", 'f("// ");']:
            with self.subTest(text):
                self.assertEqual([], list(self.format.faults(text)))

    def test_the_product_says_it_once(self):
        files, faults, used = 0, [], set()
        for folder in PRODUCT:
            for path in sorted((ROOT / folder).rglob("*")):
                if path.suffix not in {".h", ".cpp"}:
                    continue
                files += 1
                name = path.relative_to(ROOT).as_posix()
                for line, literal in self.format.faults(path.read_text(encoding="utf-8")):
                    if (name, literal) in EXCEPTIONS:
                        used.add((name, literal))
                    else:
                        faults.append(f"{name}:{line}: {literal}")
        self.assertGreater(files, 100)
        self.assertEqual([], faults)
        self.assertEqual(set(EXCEPTIONS), used)


if __name__ == "__main__":
    unittest.main()
