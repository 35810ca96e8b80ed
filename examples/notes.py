#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Keeps notes that nobody else can read, through the Python package.

    notes.py FOLDER PASSWORD_FILE NAME [TEXT]

Stores TEXT under NAME, or prints what is stored there. The database is made where there is none.
"""

import pathlib
import sys

import filestore


def main(folder, password_file, name, text=None):
    password = pathlib.Path(password_file).read_bytes().removesuffix(b"\n")
    with filestore.Database(folder, create=True) as database:
        database.unlock(password)
        if text is not None:
            database.put(f"settings/{name}", text.encode())
            return
        with database.get(f"settings/{name}") as record:
            sys.stdout.buffer.write(record.body.view)  # which is wiped at the end of the block
            print()


if __name__ == "__main__":
    if len(sys.argv) not in (4, 5):
        sys.exit("usage: notes.py FOLDER PASSWORD_FILE NAME [TEXT]")
    try:
        main(*sys.argv[1:])
    except filestore.Error as error:
        print(f"notes: {error}", file=sys.stderr)
        sys.exit(error.status)
