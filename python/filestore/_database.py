# SPDX-License-Identifier: Apache-2.0
"""The handle of a database, and what can be done with it."""

import contextlib
import ctypes
import os
from collections.abc import Callable, Iterator, Mapping
from typing import Any, Literal

from . import _abi
from ._calls import (
    BytesLike,
    Cancelled,
    Outcome,
    Password,
    Progress,
    Warnings,
    Watch,
    bytes_in,
    key_in,
    name_in,
    number_in,
    text_in,
    text_out,
)
from ._closing import Closing
from ._errors import Closed, Damaged, Partial
from ._records import AttributeType, Finding, Listing, Owned, Record
from ._secret import Secret

_LABEL = 0x102
_ORDERS = ("name", "expiry", "subject")
_FORMATS = ("pem", "der", "p12")
_DAMAGED = (Damaged.status, Partial.status)

# What an attribute of the caller's may be: a number of 32 bits, text without line feeds, or bytes.
Value = int | str | BytesLike


class Database(Closing):
    """A database: the folder `db` in the folder `path`.

    Nothing is locked between two calls. Any number of threads may use one Database at once. After
    a fork the child may use it as if it had opened it itself.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        create: bool = False,
        read_only: bool = False,
        lock_seconds: float = 10.0,
        cost: int = 0,
        require_shared_lock: bool = False,
        caches: str | os.PathLike[str] | None = None,
    ) -> None:
        """create: make the folder; the first unlock() with a password then creates the database.
        lock_seconds: how long a call waits for other processes before it raises Busy.
        cost: of a guess at the password that creates a database, 14 to 20; 0 for the usual one.
        require_shared_lock: raise Usage where the lock may not hold between hosts.
        caches: a folder of the user's alone, on a disk of this host, for the index of a large
        database that cannot have it beside itself.
        """
        self._handle: Owned | None = None
        self._warnings = Warnings()
        options = _abi.OpenOptions(
            flags=(_abi.OPEN_CREATE if create else 0)
            | (_abi.OPEN_READ_ONLY if read_only else 0)
            | (_abi.OPEN_REQUIRE_SHARED_LOCK if require_shared_lock else 0),
            descriptor=-1,
            lock_seconds=lock_seconds,
            cost=number_in(cost),
            caches=None if caches is None else name_in(caches),
            callbacks=ctypes.pointer(_abi.Callbacks(warn=self._warnings.callback)),
        )
        pointer = ctypes.c_void_p()
        Outcome("open", name_in(path), ctypes.byref(options), ctypes.byref(pointer)).check()
        self._handle = Owned(pointer.value, _abi.call["close"])
        self._path = os.fspath(path)

    # ---- Opening and closing ----

    @property
    def closed(self) -> bool:
        return self._handle is None

    def close(self) -> None:
        """Wipes the handle's keys. Calls that other threads are in end as they would have."""
        self._handle = None

    def unlock(
        self, password: Password | None = None, *, key_file: str | os.PathLike[str] | None = None,
        recovery_key: Password | None = None, slot: int = 0, progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> int:
        """Makes encrypted parts readable, until lock() or until somebody else changes the password.

        Takes one of a password, the name of a key file, and a recovery key as it is written down.
        slot: try only the slot of this number. Returns the number of the slot that opened; 0 for a
        database from before there were slots.

        With create=True and a password it creates the database if there is none. If a change of
        the password was interrupted, it finishes that first, which takes as long as a change.
        """
        if [password, key_file, recovery_key].count(None) != 2:
            raise TypeError("unlock() takes a password, a key file or a recovery key: one of them")
        opened = ctypes.c_uint32()
        with contextlib.ExitStack() as wiped:
            if key_file is not None:
                key = ctypes.pointer(_abi.Key(kind=_abi.KEY_FILE, path=name_in(key_file)))
            elif recovery_key is not None:
                key = wiped.enter_context(key_in(recovery_key, _abi.KEY_RECOVERY))
            else:
                key = wiped.enter_context(key_in(password))
            if key is not None:
                key.contents.slot = number_in(slot)
                key.contents.opened = ctypes.pointer(opened)
            self._long(progress, cancelled, "unlock", key).check()
        return opened.value

    def unlock_with_key(self, key: BytesLike) -> None:
        """As unlock(), with what copy_key() gave, and so at once."""
        with key_in(key, _abi.KEY_RAW) as raw:
            self._long(None, None, "unlock", raw).check()

    def copy_key(self) -> Secret:
        """The key of the database, for unlock_with_key() here or in another process."""
        return self._secret("copy_key")

    def lock(self) -> None:
        """Wipes the keys; what is plain can still be read."""
        handle = self._open()
        _abi.call["lock"](handle.pointer)

    @property
    def is_unlocked(self) -> bool:
        handle = self._open()
        return bool(_abi.call["is_unlocked"](handle.pointer))

    # ---- Records ----

    def get(self, address: str, *, plain_only: bool = False, body: bool = True) -> Record:
        """The record, decrypted, and its body compared with its digest.

        plain_only: decrypt nothing, so that no key is needed. body: False leaves it unread.
        """
        flags = (_abi.GET_PLAIN_ONLY if plain_only else 0) | (0 if body else _abi.GET_NO_BODY)
        pointer = ctypes.c_void_p()
        self._short("get", text_in(address), flags, ctypes.byref(pointer))
        return Record(pointer.value)

    def put(
        self,
        address: str,
        body: BytesLike,
        *,
        label: str | None = None,
        attributes: Mapping[int, Value] | None = None,
        encrypt: bool = True,
        new: bool = False,
    ) -> None:
        """Stores the bytes as the record's body; of a record that is there, the rest stays.

        It is durable when this returns. encrypt: body and attributes. new: raise Invalid if there
        is such a record.
        """
        with self._edited(address, new=True) as record:
            with bytes_in(body) as (data, size):
                Outcome("record_set_body", record, data, size,
                        0 if encrypt else _abi.PUT_PLAIN).check()
            _set(record, label, attributes, encrypt)
            self._short("put", record, _abi.PUT_NEW if new else 0)

    def set(
        self,
        address: str,
        *,
        label: str | None = None,
        attributes: Mapping[int, Value] | None = None,
        encrypt: bool = False,
    ) -> None:
        """Gives the record this label and these attributes of yours, with ids from 0x8000 on.

        An empty text removes what is there. encrypt: store the attributes encrypted; one that is
        encrypted stays so.
        """
        with self._edited(address, new=False) as record:
            _set(record, label, attributes, encrypt)
            self._short("put", record, 0)

    def unset(self, address: str, *ids: int) -> None:
        """Removes attributes of yours. Raises NotFound, and changes nothing, if one is missing."""
        with self._edited(address, new=False) as record:
            for each in ids:
                Outcome("record_remove_attribute", record, number_in(each)).check()
            self._short("put", record, 0)

    def remove(self, address: str) -> None:
        """Removes the record; a key, too, without asking."""
        self._short("remove", text_in(address))

    def rename(self, address: str, to: str) -> None:
        """Gives the record another folder, another name, or both; nothing is replaced."""
        self._short("rename", text_in(address), text_in(to))

    def find(
        self,
        folder: str | None = None,
        *,
        subject: str | None = None,
        issuer: str | None = None,
        alt_name: str | None = None,
        serial: str | None = None,
        sha256: str | None = None,
        algorithm: str | None = None,
        expires_within: str | None = None,
        expired: bool = False,
        has_key: bool | None = None,
        attributes: Mapping[int, str | None] | None = None,
        order: Literal["name", "expiry", "subject"] = "name",
        secrets: bool = False,
        partial: bool = False,
        cancelled: Cancelled | None = None,
    ) -> Listing:
        """The records that pass all filters that are given; they are those of `fstore ls`.

        secrets: look at what is encrypted, too. partial: return what was found also where records
        are damaged or cannot be read; otherwise that raises Damaged or Partial, since a listing
        without them may be mistaken for the whole. cancelled: asked at each record.
        """
        flags = _abi.FIND_EXPIRED if expired else 0
        flags |= _abi.FIND_SECRETS if secrets else 0
        if has_key is not None:
            flags |= _abi.FIND_WITH_KEY if has_key else _abi.FIND_WITHOUT_KEY
        wanted = [
            f"0x{id:x}" if value is None else f"0x{id:x}={value}"
            for id, value in (attributes or {}).items()
        ]
        texts = (ctypes.c_char_p * len(wanted))(*map(text_in, wanted))
        options = _abi.FindOptions(
            flags=flags,
            order=_ORDERS.index(order),
            folder=text_in(folder),
            expires_within=text_in(expires_within),
            subject=text_in(subject),
            issuer=text_in(issuer),
            alt_name=text_in(alt_name),
            serial=text_in(serial),
            sha256=text_in(sha256),
            algorithm=text_in(algorithm),
            attributes=ctypes.cast(texts, ctypes.POINTER(ctypes.c_char_p)),
            attribute_count=len(wanted),
        )
        pointer = ctypes.c_void_p()
        handle = self._open()

        def call(callbacks: Any) -> Outcome:
            options.callbacks = callbacks
            return Outcome("find", handle.pointer, ctypes.byref(options), ctypes.byref(pointer))

        outcome = Watch(None, cancelled).run_with(call)
        listing = Listing(pointer.value)
        if outcome.status not in _DAMAGED or not partial:
            outcome.check()
        return listing

    # ---- Certificates, keys, CRLs and requests ----

    def import_(
        self,
        data: BytesLike,
        *,
        folder: str | None = None,
        name: str | None = None,
        label: str | None = None,
        replace: bool = False,
        encrypt: bool = False,
        password: Password | None = None,
        progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> Listing:
        """Imports the objects in PEM, DER or PKCS#12. Info.imported says what became of each.

        Raises only if nothing was imported; Listing.problems has what was not. password: of
        encrypted input. encrypt: everything, as keys always are.
        """
        pointer = ctypes.c_void_p()
        with key_in(password) as key, bytes_in(data) as (address, size):
            options = _abi.ImportOptions(
                flags=(_abi.IMPORT_REPLACE if replace else 0)
                | (_abi.IMPORT_ENCRYPT if encrypt else 0),
                folder=text_in(folder),
                name=text_in(name),
                label=text_in(label),
                password=key,
            )
            outcome = self._long(progress, cancelled, "import", address, size,
                                 ctypes.byref(options), ctypes.byref(pointer))
        listing = Listing(pointer.value)
        if outcome.status != Partial.status:
            outcome.check()
        return listing

    def export(
        self,
        address: str,
        *,
        format: Literal["pem", "der", "p12"] = "pem",
        chain: bool = False,
        password: Password | None = None,
        plain: bool = False,
    ) -> Secret:
        """The object for other programs; a key or PKCS#12 is encrypted unless `plain` is set."""
        with key_in(password) as key:
            options = _abi.ExportOptions(
                flags=(_abi.EXPORT_CHAIN if chain else 0) | (_abi.EXPORT_PLAIN if plain else 0),
                format=_FORMATS.index(format),
                password=key,
            )
            return self._secret("export", text_in(address), ctypes.byref(options), watched=True)

    # ---- The database as a whole ----

    def check(
        self,
        *,
        deep: bool = False,
        repair: bool = False,
        progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> list[Finding]:
        """Looks for damage and for what a crash left behind; empty where there is nothing.

        deep: also decrypt every record, and compare it with its attributes. repair: clean up after
        a crash; what is damaged is never touched.
        """
        findings: list[Finding] = []
        watch = Watch(progress, cancelled)
        options = _abi.CheckOptions(
            flags=(_abi.CHECK_DEEP if deep else 0) | (_abi.CHECK_REPAIR if repair else 0),
            finding=_abi.FINDING(
                lambda user, found: watch.guard(lambda: findings.append(_finding_of(found[0])))
            ),
        )
        handle = self._open()
        outcome = watch.run("check", handle.pointer, ctypes.byref(options))
        if outcome.status not in _DAMAGED:
            outcome.check()
        return findings

    def change_password(
        self,
        password: Password,
        *,
        keep_old: bool = False,
        cost: int = 0,
        progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> None:
        """Gives the database this password, and encrypts everything again.

        Wherever it is interrupted, one of the two passwords opens all of it. keep_old: keep the
        database with the old password as db-<time>.
        """
        with key_in(password) as key:
            flags = _abi.CHANGE_KEEP_OLD if keep_old else 0
            self._long(progress, cancelled, "change_password", key, flags,
                       number_in(cost)).check()

    def backup(
        self,
        file: str | os.PathLike[str],
        *,
        replace: bool = False,
        progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> None:
        """Writes the database into one file, a tar archive; needs no password.

        Raises Partial when the file is written without something that it cannot hold.
        """
        flags = _abi.ARCHIVE_REPLACE if replace else 0
        self._long(progress, cancelled, "backup", name_in(file), flags).check()

    def restore(
        self,
        file: str | os.PathLike[str],
        *,
        replace: bool = False,
        progress: Progress | None = None,
        cancelled: Cancelled | None = None,
    ) -> None:
        """Makes the database from a backup, of which it has the password then.

        replace: also if there is a database, which is kept as db-<time>.
        """
        flags = _abi.ARCHIVE_REPLACE if replace else 0
        self._long(progress, cancelled, "restore", name_in(file), flags).check()

    # ---- Calls ----

    def _open(self) -> Owned:
        """The handle. Who calls the library refers to it meanwhile, so that nobody closes it."""
        if self._handle is None or self._handle.pointer is None:
            raise Closed("the database handle is closed", str(self._path))
        return self._handle

    def _call(self, name: str, *arguments: Any) -> Outcome:
        handle = self._open()
        outcome = Outcome(name, handle.pointer, *arguments)
        self._warnings.issue()
        return outcome

    def _short(self, name: str, *arguments: Any) -> None:
        self._call(name, *arguments).check()

    def _long(
        self, progress: Progress | None, cancelled: Cancelled | None, name: str, *arguments: Any
    ) -> Outcome:
        handle = self._open()
        return Watch(progress, cancelled).run(name, handle.pointer, *arguments)

    def _secret(self, name: str, *arguments: Any, watched: bool = False) -> Secret:
        """A block that the function hands out."""
        pointer, size = ctypes.c_void_p(), ctypes.c_size_t()
        places = (ctypes.byref(pointer), ctypes.byref(size))
        if watched:
            self._long(None, None, name, *arguments, *places).check()
        else:
            self._short(name, *arguments, *places)
        return Secret(pointer.value, size.value, Owned(pointer.value, _abi.call["free"]))

    @contextlib.contextmanager
    def _edited(self, address: str, *, new: bool) -> Iterator[int | None]:
        """A record to set things in, of which nobody has views: setting moves its memory."""
        pointer = ctypes.c_void_p()
        if new:
            Outcome("record_new", text_in(address), ctypes.byref(pointer)).check()
        else:
            self._short("get", text_in(address), _abi.GET_NO_BODY, ctypes.byref(pointer))
        try:
            yield pointer.value
        finally:
            _abi.call["record_free"](pointer)

    def __repr__(self) -> str:
        return f"<Database in {self._path}{', closed' if self.closed else ''}>"


def _set(
    record: int | None, label: str | None, attributes: Mapping[int, Value] | None, encrypt: bool
) -> None:
    if label is not None:
        _set_attribute(record, _LABEL, label, encrypt=False)
    for id, value in (attributes or {}).items():
        _set_attribute(record, id, value, encrypt)


def _set_attribute(record: int | None, id: int, value: Value, encrypt: bool) -> None:
    data: BytesLike
    if isinstance(value, int):
        type, data = AttributeType.NUMBER, bytes(ctypes.c_uint32(number_in(value)))
    elif isinstance(value, str):
        type, data = AttributeType.TEXT, value.encode("utf-8", "surrogateescape")
    else:
        type, data = AttributeType.BINARY, value
    with bytes_in(data) as (address, size):
        Outcome("record_set_attribute", record, type, number_in(id), address, size,
                _abi.ATTRIBUTE_ENCRYPTED if encrypt else 0).check()


def _finding_of(found: _abi.Finding) -> Finding:
    return Finding(
        kind=text_out(found.kind),
        repair=text_out(found.repair),
        path=text_out(found.path),
        message=text_out(found.message),
        is_damage=bool(found.flags & _abi.FINDING_IS_DAMAGE),
        is_unread=bool(found.flags & _abi.FINDING_IS_UNREAD),
        is_repairable=bool(found.flags & _abi.FINDING_IS_REPAIRABLE),
        is_repaired=bool(found.flags & _abi.FINDING_IS_REPAIRED),
    )
