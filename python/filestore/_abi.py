# SPDX-License-Identifier: Apache-2.0
"""The C library as ctypes sees it: what filestore/filestore.h declares, and nothing else.

A structure that the library reads begins with its size, which making one sets. The names are those
of the header without their prefix. tests/python/abi_test.py compares all of it with the header.
"""

import ctypes
from ctypes import (
    CFUNCTYPE,
    POINTER,
    Structure,
    c_char,
    c_char_p,
    c_double,
    c_int,
    c_int64,
    c_size_t,
    c_uint32,
    c_uint64,
    c_void_p,
    sizeof,
)
from typing import Any

SONAME = "libfilestore.so.1"

# Flags, each of the function or structure that its name begins with.
OPEN_CREATE = 1
OPEN_READ_ONLY = 2
OPEN_REQUIRE_SHARED_LOCK = 4
KEY_PASSWORD = 1
KEY_RAW = 2
KEY_FILE = 3
KEY_RECOVERY = 4
INFO_HAS_BODY = 1
INFO_BODY_ENCRYPTED = 2
INFO_IS_CA = 4
INFO_HAS_NOT_BEFORE = 8
INFO_HAS_NOT_AFTER = 16
INFO_READABLE = 32
GET_PLAIN_ONLY = 1
GET_NO_BODY = 2
ATTRIBUTE_ENCRYPTED = 1
PUT_PLAIN = 1
PUT_NEW = 2
FIND_EXPIRED = 1
FIND_WITH_KEY = 2
FIND_WITHOUT_KEY = 4
FIND_SECRETS = 8
IMPORT_REPLACE = 1
IMPORT_ENCRYPT = 2
EXPORT_CHAIN = 1
EXPORT_PLAIN = 2
FINDING_IS_DAMAGE = 1
FINDING_IS_UNREAD = 2
FINDING_IS_REPAIRABLE = 4
FINDING_IS_REPAIRED = 8
CHECK_DEEP = 1
CHECK_REPAIR = 2
CHANGE_KEEP_OLD = 1
ARCHIVE_REPLACE = 1


class Sized(Structure):
    """A structure that begins with its size."""

    def __init__(self, **members: Any) -> None:
        super().__init__(size=sizeof(self), **members)


class Error(Sized):
    status: int
    path: bytes
    message: bytes
    _fields_ = [
        ("size", c_size_t),
        ("status", c_int),
        ("path", c_char * 4096),
        ("message", c_char * 2048),
    ]


PROGRESS = CFUNCTYPE(None, c_void_p, c_char_p, c_uint64, c_uint64)
CANCELLED = CFUNCTYPE(c_int, c_void_p)
WARN = CFUNCTYPE(None, c_void_p, c_char_p)


class Callbacks(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("user", c_void_p),
        ("progress", PROGRESS),
        ("cancelled", CANCELLED),
        ("warn", WARN),
        ("note", WARN),
    ]


class OpenOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("descriptor", c_int),
        ("lock_seconds", c_double),
        ("cost", c_uint32),
        ("caches", c_char_p),
        ("callbacks", POINTER(Callbacks)),
        ("modules", c_char_p),
    ]


FILL = CFUNCTYPE(c_int, c_void_p, c_void_p, c_size_t, POINTER(c_size_t))


class Key(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("kind", c_uint32),
        ("slot", c_uint32),
        ("bytes", c_void_p),
        ("length", c_size_t),
        ("path", c_char_p),
        ("fill", FILL),
        ("user", c_void_p),
        ("opened", POINTER(c_uint32)),
    ]


class Info(Sized):
    address: bytes
    folder: bytes
    name: bytes
    kind: int
    flags: int
    body_size: int
    not_before: int
    not_after: int
    label: bytes
    subject: bytes
    issuer: bytes
    key_algorithm: bytes
    serial: bytes
    sha256: bytes
    key_sha256: bytes
    alt_names: Any
    alt_name_count: int
    outcome: int
    _fields_ = [
        ("size", c_size_t),
        ("address", c_char_p),
        ("folder", c_char_p),
        ("name", c_char_p),
        ("kind", c_uint32),
        ("flags", c_uint32),
        ("body_size", c_uint64),
        ("not_before", c_int64),
        ("not_after", c_int64),
        ("label", c_char_p),
        ("subject", c_char_p),
        ("issuer", c_char_p),
        ("key_algorithm", c_char_p),
        ("serial", c_char_p),
        ("sha256", c_char_p),
        ("key_sha256", c_char_p),
        ("alt_names", POINTER(c_char_p)),
        ("alt_name_count", c_size_t),
        ("outcome", c_uint32),
    ]


class Attribute(Sized):
    type: int
    id: int
    flags: int
    bytes: int | None
    length: int
    _fields_ = [
        ("size", c_size_t),
        ("type", c_uint32),
        ("id", c_uint32),
        ("flags", c_uint32),
        ("bytes", c_void_p),
        ("length", c_size_t),
    ]


class FindOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("order", c_uint32),
        ("folder", c_char_p),
        ("expires_within", c_char_p),
        ("subject", c_char_p),
        ("issuer", c_char_p),
        ("alt_name", c_char_p),
        ("serial", c_char_p),
        ("sha256", c_char_p),
        ("algorithm", c_char_p),
        ("attributes", POINTER(c_char_p)),
        ("attribute_count", c_size_t),
        ("callbacks", POINTER(Callbacks)),
    ]


class Problem(Sized):
    kind: int
    status: int
    path: bytes | None
    message: bytes | None
    line: int
    _fields_ = [
        ("size", c_size_t),
        ("kind", c_uint32),
        ("status", c_int),
        ("path", c_char_p),
        ("message", c_char_p),
        ("line", c_uint32),
    ]


class ImportOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("folder", c_char_p),
        ("name", c_char_p),
        ("label", c_char_p),
        ("password", POINTER(Key)),
    ]


class ExportOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("format", c_uint32),
        ("password", POINTER(Key)),
    ]


class Finding(Sized):
    flags: int
    kind: bytes
    repair: bytes
    path: bytes
    message: bytes
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("kind", c_char_p),
        ("repair", c_char_p),
        ("path", c_char_p),
        ("message", c_char_p),
    ]


FINDING = CFUNCTYPE(None, c_void_p, POINTER(Finding))


class CheckOptions(Sized):
    _fields_ = [
        ("size", c_size_t),
        ("flags", c_uint32),
        ("finding", FINDING),
        ("user", c_void_p),
    ]


_OUT = POINTER(c_void_p)
_ERROR = POINTER(Error)
_CALLBACKS = POINTER(Callbacks)

# What each function returns and takes. Handles, records and lists are plain addresses.
FUNCTIONS: dict[str, tuple[Any, ...]] = {
    "status_name": (c_char_p, c_int),
    "version": (c_uint32,),
    "open": (c_int, c_char_p, POINTER(OpenOptions), _OUT, _ERROR),
    "close": (None, c_void_p),
    "unlock": (c_int, c_void_p, POINTER(Key), _CALLBACKS, _ERROR),
    "lock": (None, c_void_p),
    "is_unlocked": (c_int, c_void_p),
    "copy_key": (c_int, c_void_p, _OUT, POINTER(c_size_t), _ERROR),
    "free": (None, c_void_p),
    "get": (c_int, c_void_p, c_char_p, c_uint32, _OUT, _ERROR),
    "record_new": (c_int, c_char_p, _OUT, _ERROR),
    "record_free": (None, c_void_p),
    "record_info": (c_int, c_void_p, POINTER(Info)),
    "record_address": (c_char_p, c_void_p),
    "record_body": (c_void_p, c_void_p, POINTER(c_size_t)),
    "record_attribute_count": (c_size_t, c_void_p),
    "record_attribute": (c_int, c_void_p, c_size_t, POINTER(Attribute)),
    "record_find_attribute": (c_int, c_void_p, c_uint32, c_uint32, POINTER(Attribute)),
    "record_set_body": (c_int, c_void_p, c_void_p, c_size_t, c_uint32, _ERROR),
    "record_set_attribute": (
        c_int, c_void_p, c_uint32, c_uint32, c_void_p, c_size_t, c_uint32, _ERROR),
    "record_remove_attribute": (c_int, c_void_p, c_uint32, _ERROR),
    "put": (c_int, c_void_p, c_void_p, c_uint32, _ERROR),
    "remove": (c_int, c_void_p, c_char_p, _ERROR),
    "rename": (c_int, c_void_p, c_char_p, c_char_p, _ERROR),
    "find": (c_int, c_void_p, POINTER(FindOptions), _OUT, _ERROR),
    "find_uri": (c_int, c_void_p, c_char_p, POINTER(c_uint32), _OUT, _ERROR),
    "list_count": (c_size_t, c_void_p),
    "list_info": (c_int, c_void_p, c_size_t, POINTER(Info)),
    "list_problem_count": (c_size_t, c_void_p),
    "list_problem": (c_int, c_void_p, c_size_t, POINTER(Problem)),
    "list_free": (None, c_void_p),
    "import": (
        c_int, c_void_p, c_void_p, c_size_t, POINTER(ImportOptions), _OUT, _CALLBACKS, _ERROR),
    "export": (
        c_int, c_void_p, c_char_p, POINTER(ExportOptions), _OUT, POINTER(c_size_t), _CALLBACKS,
        _ERROR),
    "check": (c_int, c_void_p, POINTER(CheckOptions), _CALLBACKS, _ERROR),
    "change_password": (
        c_int, c_void_p, POINTER(Key), c_uint32, c_uint32, _CALLBACKS, _ERROR),
    "backup": (c_int, c_void_p, c_char_p, c_uint32, _CALLBACKS, _ERROR),
    "restore": (c_int, c_void_p, c_char_p, c_uint32, _CALLBACKS, _ERROR),
}


class _Functions(dict[str, Any]):
    """The library's functions, each declared when it is first called. A call gives the GIL away."""

    def __init__(self) -> None:
        super().__init__()
        try:
            self._library = ctypes.CDLL(SONAME)
        except OSError as failure:
            raise ImportError(f"{failure}; it comes with the package libfilestore1") from failure

    def __missing__(self, name: str) -> Any:
        function = self._library[f"filestore_{name}"]
        function.restype, *function.argtypes = FUNCTIONS[name]
        self[name] = function
        return function


call = _Functions()
