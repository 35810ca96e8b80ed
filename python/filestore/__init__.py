# SPDX-License-Identifier: Apache-2.0
"""filestore: keys, certificates, CRLs, requests and other bytes in an encrypted, crash-safe folder.

    import filestore

    with filestore.Database("keys", create=True) as database:
        database.unlock("correct horse")
        database.put("settings/token", b"s3cret")
        with database.get("settings/token") as record:
            use(record.body.view)  # wiped at the end of the block

It calls the C library libfilestore.so.1 and is as thread-safe as that. Every failure of the library
is an Error; most have a class of their own: WrongPassword, Busy, Missing, ...
"""

from . import _abi
from ._database import Database
from ._errors import (
    Busy,
    Closed,
    Damaged,
    Error,
    Interrupted,
    Invalid,
    IoFailure,
    Malformed,
    Missing,
    NoDigest,
    NoService,
    NotFound,
    NotOpen,
    OutOfMemory,
    Partial,
    StoreWarning,
    Usage,
    WrongPassword,
)
from ._records import (
    Attribute,
    AttributeType,
    Finding,
    Imported,
    Info,
    Kind,
    Listing,
    Problem,
    ProblemKind,
    Record,
)
from ._secret import Secret

__all__ = [
    "Attribute",
    "AttributeType",
    "Busy",
    "Closed",
    "Damaged",
    "Database",
    "Error",
    "Finding",
    "Imported",
    "Info",
    "Interrupted",
    "Invalid",
    "IoFailure",
    "Kind",
    "Listing",
    "Malformed",
    "Missing",
    "NoDigest",
    "NoService",
    "NotFound",
    "NotOpen",
    "OutOfMemory",
    "Partial",
    "Problem",
    "ProblemKind",
    "Record",
    "Secret",
    "StoreWarning",
    "Usage",
    "WrongPassword",
    "library_version",
]


def library_version() -> tuple[int, int, int]:
    """The version of the C library that is loaded."""
    number = _abi.call["version"]()
    return number // 1_000_000, number // 1_000 % 1_000, number % 1_000
