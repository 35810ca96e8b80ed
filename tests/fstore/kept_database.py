"""A database that fstore 1.0.0 made, before there were unlock slots (tests/data/databases)."""

import pathlib
import shutil

HERE = pathlib.Path(__file__).resolve().parent
KEPT = HERE.parent / "data/databases/tool-1.0/db"
PASSWORD = "kept ä password"


def copy_to(folder):
    """The database in `folder`, in place of the one there."""
    shutil.rmtree(folder / "db", ignore_errors=True)
    shutil.copytree(KEPT, folder / "db")
