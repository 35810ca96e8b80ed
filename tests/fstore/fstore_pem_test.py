#!/usr/bin/env python3
"""import beside openssl and certtool: files that were written, sent and edited in every way.

Neither of them finds an object that import does not, and each BEGIN is accounted for.
"""

import base64
import functools
import hashlib
import os
import random
import re
import subprocess
import time

import pki
import support
from support import InitialisedTest

FILES = 1000 if support.LONG else 150
SEED = time.time_ns() if support.LONG else 1

SOURCES = ["root.pem", "leaf.pem", "leaf.trusted.pem", "crl.pem", "request.pem", "rsa.key",
           "rsa.old.pem", "p256.parameters.pem", "ed25519.key", "rsa.encrypted.pem",
           "rsa.encrypted.old.pem"]


def _line_ends(end):
    return lambda _, text: text.replace(b"\n", end)


def _margin(margin):
    return lambda _, text: re.sub(rb"(?m)^(?=.)", margin, text)


def _around_marks(pattern, replacement):
    return lambda _, text: re.sub(pattern, replacement, text)


def _at_a_place(change):
    """change(bytes before, bytes behind) at a place drawn at random."""
    def changed(draw, text):
        at = draw.randrange(len(text) + 1)
        return change(text[:at], text[at:])
    return changed


def _line_lost(draw, text):
    lines = text.splitlines(keepends=True)
    if lines:
        lines.pop(draw.randrange(len(lines)))
    return b"".join(lines)


def _words_within(draw, text):
    lines = text.splitlines(keepends=True)
    lines.insert(draw.randrange(len(lines) + 1), draw.choice(
        [b"some words\n", b"\n", b"Name: value\n", b"MEMO\n\n", b"- a list\n", b"\0\n", b"====\n"]))
    return b"".join(lines)


def _wrapped(draw, text):
    """The digits in lines of another length."""
    width = draw.choice([1, 4, 63, 76, 254, 255, 1000])
    def wrap(match):
        digits = match[1].replace(b"\n", b"")
        return b"".join(digits[i:i + width] + b"\n" for i in range(0, len(digits), width))
    return re.sub(rb"(?<=-----\n)([A-Za-z0-9+/=\n]+)", wrap, text)


CHANGES = [
    lambda _, text: text,
    lambda _, text: b"\xef\xbb\xbf" + text,
    lambda _, text: text.rstrip(b"\n"),
    _line_ends(b"\r\n"), _line_ends(b"\r"), _line_ends(b"\r\r\n"), _line_ends(b" \t\n"),
    _line_ends(b"\n\n"), _line_ends(b""), _line_ends(b"\xc2\xa0\n"), _line_ends(b"\x00\n"),
    _margin(b"  "), _margin(b"\t"), _margin(b"> "), _margin(b"# "), _margin(b"M"),
    _around_marks(rb"-----(BEGIN|END)", rb" -----\1"),
    _around_marks(rb"-----(BEGIN|END)", rb"words -----\1"),
    _around_marks(rb"-----(BEGIN|END)", rb"----\1"),
    _around_marks(rb"-----(BEGIN|END)", rb"------\1"),
    _around_marks(rb"-----(BEGIN|END)", rb"----- \1"),
    _around_marks(rb"-----\n", rb"----\n"),
    _around_marks(rb"-----\n", rb"------\n"),
    _around_marks(rb"-----\n", rb" -----\n"),
    _around_marks(rb"-----\n", rb"----- words\n"),
    _around_marks(rb"-----\n", b"-----\xff\n"),
    _around_marks(rb"-----\n", b"-----\x00words\n"),
    _around_marks(rb"-----\n(?=[^-])", rb"-----"),
    _around_marks(rb"\n(?=-----END)", rb""),
    _around_marks(rb"-----\n(?=[^-])", rb"-----\nsome words\n\n"),
    _around_marks(rb"-----END .*", rb""),
    _around_marks(rb"-----END .*", rb"-----END OTHER-----"),
    _around_marks(rb"(BEGIN|END) [A-Z0-9 ]+", rb"\1 OTHER"),
    _around_marks(rb"CERTIFICATE-", rb"CERTIFICATES-"),
    _around_marks(rb"=", rb""),
    _around_marks(rb"=?\n(?=-----END)", rb"AAAA\n"),
    _around_marks(rb"BEGIN", rb"BEG1N"),
    _at_a_place(lambda before, behind: before),
    _at_a_place(lambda before, behind: before + behind[1:]),
    _at_a_place(lambda before, behind: before + b"\n" + behind),
    _at_a_place(lambda before, behind: before + b"-" + behind),
    _at_a_place(lambda before, behind: before + b" " + behind),
    _line_lost, _words_within, _wrapped,
]


def generated(draw):
    """A file of some objects, each changed in some ways."""
    parts = []
    for _ in range(draw.randint(1, 4)):
        text = (pki.files() / draw.choice(SOURCES)).read_bytes()
        for change in draw.choices(CHANGES, k=draw.randint(0, 2)):
            text = change(draw, text)
        parts.append(text)
    return b"".join(parts)


def lines_of_marks(text):
    """Where a block begins without any doubt."""
    lines = re.split(rb"\r\n|\r|\n", text)
    return {number for number, line in enumerate(lines, 1)
            if re.search(rb"-{2,}[ \t]*BEGIN(?![A-Za-z0-9])", line)}


@functools.cache
def public_half(key):
    der = pki.openssl("pkey", "-pubout", "-outform", "DER", "-passin", "pass:secret", stdin=key)
    return "key " + hashlib.sha256(der).hexdigest()


def objects_printed(*command):
    """What a program has found, of the PEM that it prints."""
    run = subprocess.run(command, capture_output=True, check=False, timeout=support.SECONDS,
                         stdin=subprocess.DEVNULL)
    found = set()
    for block, kind, digits in re.findall(
            rb"(-----BEGIN ([A-Z0-9 ]+)-----\n([^-]+)-----END .*-----\n)", run.stdout):
        if kind.endswith(b"PRIVATE KEY"):
            found.add(public_half(block))
        elif not kind.endswith((b"PARAMETERS", b"PUBLIC KEY")):
            found.add(hashlib.sha256(base64.b64decode(digits)).hexdigest())
    return found


def found_by_openssl(path):
    return objects_printed("openssl", "storeutl", "-passin", "pass:secret", path)


def found_by_certtool(path):
    return set().union(*(objects_printed("certtool", what, "--password", "secret",
                                         "--infile", path)
                         for what in ("--certificate-info", "--crl-info", "--crq-info",
                                      "--key-info")))


class DifferentialTest(InitialisedTest):
    def imported(self, paths):
        """By file: the objects, and the lines of which something was said."""
        run = support.fstore("import", "--json", *paths, cwd=self.folder, env=pki.IN_PASSWORD)
        self.assertIn(run.code, (0, 5), run.message)
        document = run.document
        objects, lines = {}, {}
        for record in document["records"]:
            name = "key " + record["keySha256"] if record["kind"] == "key" else record["sha256"]
            objects.setdefault(record["file"], set()).add(name)
        for entry in document["records"] + document["failures"] + document["skipped"]:
            lines.setdefault(entry["file"], set()).add(entry.get("line"))
        return objects, lines

    def test_the_others_find_nothing_that_import_does_not(self):
        draw = random.Random(SEED)
        paths = [self.write("good", (pki.files() / "root.pem").read_bytes())]
        paths += [self.write(f"{i}.pem", generated(draw)) for i in range(FILES)]
        objects, lines = {}, {}
        for i in range(1, len(paths), 50):
            more = self.imported([paths[0], *paths[i:i + 50]])
            objects.update(more[0])
            lines.update(more[1])
        found = {"openssl": 0, "certtool": 0, "import": 0}
        for path in map(str, paths):
            with self.subTest(seed=SEED, file=os.path.basename(path)):
                ours = objects.get(path, set())
                openssl, certtool = found_by_openssl(path), found_by_certtool(path)
                found["openssl"] += len(openssl)
                found["certtool"] += len(certtool)
                found["import"] += len(ours)
                with open(path, "rb") as file:
                    text = file.read()
                self.assertLessEqual(openssl, ours, text)
                self.assertLessEqual(certtool, ours, text)
                self.assertLessEqual(lines_of_marks(text), lines[path], text)
        print(found, flush=True)
        self.assertGreater(found["openssl"], FILES / 3)
        self.assertGreater(found["certtool"], FILES / 3)


if __name__ == "__main__":
    support.main()
