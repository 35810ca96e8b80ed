# SPDX-License-Identifier: Apache-2.0
"""What operations hand out: descriptions, records, listings."""

import ctypes
import enum
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass
from datetime import datetime, timedelta, timezone
from typing import Any, overload

from . import _abi
from ._calls import text_out
from ._closing import Closing
from ._errors import Closed, Error
from ._secret import Secret

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)


class Kind(enum.IntEnum):
    """What a record is."""

    UNKNOWN = 0
    CERTIFICATE = 1
    CRL = 2
    PRIVATE_KEY = 3
    REQUEST = 4
    RAW = 5  # bytes that put() stored


class Imported(enum.IntEnum):
    """What became of an object that was imported."""

    ADDED = 1
    PRESENT = 2  # it was there, and nothing has changed
    MOVED = 3  # a certificate that was there, and whose key has come
    REPLACED = 4


class AttributeType(enum.IntEnum):
    NUMBER = 1
    BINARY = 2
    STRING = 3
    TEXT = 4


class ProblemKind(enum.IntEnum):
    DAMAGED = 1
    UNREAD = 2  # not allowed to be read, or too large to be looked at
    UNDATED = 3  # when it expires is encrypted or damaged, and was asked for
    FAILED = 4  # of an import: this object could not be read or imported
    SKIPPED = 5  # of an import: nothing that is stored


@dataclass(frozen=True)
class Info:
    """What a record's attributes say. A text is empty where it has none, or it is encrypted."""

    address: str  # "certificates/local/server"
    folder: str
    name: str
    kind: Kind
    label: str
    subject: str  # as RFC 4514 writes it
    issuer: str
    serial: str  # hexadecimal digits, as all digests
    alt_names: tuple[str, ...]  # "DNS:example.com"
    key_algorithm: str  # "RSA-2048", "EC-P-256", "Ed25519"
    not_before: datetime | None  # in UTC
    not_after: datetime | None
    sha256: str  # of the body in plain form
    key_sha256: str  # of the public key
    is_ca: bool
    has_body: bool
    body_encrypted: bool  # on disk
    body_size: int  # on disk
    imported: Imported | None = None  # of a record in the result of an import


@dataclass(frozen=True)
class Attribute:
    """The value is a Secret if it is encrypted on disk, and None while it cannot be read."""

    id: int
    type: AttributeType | int
    encrypted: bool
    value: int | str | bytes | Secret | None


@dataclass(frozen=True)
class Problem:
    """What could not be looked at or imported."""

    kind: ProblemKind | int
    status: int
    path: str  # the record's address, or that of a folder; may be empty
    message: str
    line: int  # of an import: where in the input; 0 in a binary file


@dataclass(frozen=True)
class Finding:
    """What a check has found."""

    kind: str  # "unnamed-body", "damaged", ... as `fstore check --json` has it
    repair: str  # what a repair does or did with it: "delete", "move-away", ...; "none"
    path: str
    message: str
    is_damage: bool
    is_unread: bool  # it could not be examined
    is_repairable: bool
    is_repaired: bool


class Owned:
    """A pointer that the library handed out, given back when nothing refers to this any more."""

    def __init__(self, pointer: int | None, give_back: Callable[[int | None], None]) -> None:
        self.pointer = pointer
        self._give_back = give_back

    def __del__(self) -> None:
        # Finalizers of others that are collected with this may still come: they find nothing.
        pointer, self.pointer = self.pointer, None
        self._give_back(pointer)


class Record(Closing):
    """A record as it was read, with nothing of it encrypted unless it was read as plain.

    It does not change when the database does. close() wipes it, and with it what it handed out.
    """

    def __init__(self, pointer: int | None) -> None:
        self._owned: Owned | None = Owned(pointer, _abi.call["record_free"])
        self.info = _info_of("record_info", pointer)
        self._body: Secret | None = None
        self._attributes: tuple[Attribute, ...] | None = None

    @property
    def body(self) -> Secret | None:
        """None if there is none, or it was not read."""
        owned = self._open()
        if self._body is None:
            size = ctypes.c_size_t()
            address = _abi.call["record_body"](owned.pointer, ctypes.byref(size))
            if address is not None:
                self._body = Secret(address, size.value, owned)
        return self._body

    @property
    def attributes(self) -> tuple[Attribute, ...]:
        owned = self._open()
        if self._attributes is None:
            count = _abi.call["record_attribute_count"](owned.pointer)
            self._attributes = tuple(_attribute_of(owned, index) for index in range(count))
        return self._attributes

    @property
    def closed(self) -> bool:
        return self._owned is None

    def close(self) -> None:
        """Wipes it. What was handed out of it is safe to use, and closed."""
        for attribute in self._attributes or ():
            if isinstance(attribute.value, Secret):
                attribute.value.close()
        if self._body is not None:
            self._body.close()
        self._owned = None

    def _open(self) -> Owned:
        if self._owned is None or self._owned.pointer is None:
            raise Closed("the record is closed", self.info.address)
        return self._owned

    def __repr__(self) -> str:
        return f"<Record {self.info.address}{', closed' if self.closed else ''}>"


class Listing(Sequence[Info]):
    """Records in the order that was asked for, each made when it is looked at."""

    def __init__(self, pointer: int | None) -> None:
        self._owned = Owned(pointer, _abi.call["list_free"])
        self._count: int = _abi.call["list_count"](pointer) if pointer is not None else 0

    @property
    def problems(self) -> tuple[Problem, ...]:
        """What could not be looked at, and so is not among the records."""
        pointer = self._owned.pointer
        count = _abi.call["list_problem_count"](pointer) if pointer is not None else 0
        return tuple(_problem_of(pointer, index) for index in range(count))

    def __len__(self) -> int:
        return self._count

    @overload
    def __getitem__(self, index: int) -> Info: ...

    @overload
    def __getitem__(self, index: slice) -> Sequence[Info]: ...

    def __getitem__(self, index: int | slice) -> Info | Sequence[Info]:
        if isinstance(index, slice):
            return [self[each] for each in range(*index.indices(self._count))]
        place = index + self._count if index < 0 else index
        if not 0 <= place < self._count:
            raise IndexError("there are no more records")
        return _info_of("list_info", self._owned.pointer, place)

    def __iter__(self) -> Iterator[Info]:
        return (self[index] for index in range(self._count))

    def __repr__(self) -> str:
        return f"<Listing of {self._count} records, {len(self.problems)} problems>"


def known(kind: type[enum.IntEnum], number: int) -> Any:
    """The number as one of its kind; as it is where a later library has more of them."""
    try:
        return kind(number)
    except ValueError:
        return number


def _info_of(function: str, *arguments: Any) -> Info:
    info = _abi.Info()
    status = _abi.call[function](*arguments, ctypes.byref(info))
    if status != 0:
        raise Error.of(status, "the record cannot be described")
    return Info(
        address=text_out(info.address),
        folder=text_out(info.folder),
        name=text_out(info.name),
        kind=known(Kind, info.kind),
        label=text_out(info.label),
        subject=text_out(info.subject),
        issuer=text_out(info.issuer),
        serial=text_out(info.serial),
        alt_names=tuple(text_out(info.alt_names[i]) for i in range(info.alt_name_count)),
        key_algorithm=text_out(info.key_algorithm),
        not_before=_time_of(info, _abi.INFO_HAS_NOT_BEFORE, info.not_before),
        not_after=_time_of(info, _abi.INFO_HAS_NOT_AFTER, info.not_after),
        sha256=text_out(info.sha256),
        key_sha256=text_out(info.key_sha256),
        is_ca=bool(info.flags & _abi.INFO_IS_CA),
        has_body=bool(info.flags & _abi.INFO_HAS_BODY),
        body_encrypted=bool(info.flags & _abi.INFO_BODY_ENCRYPTED),
        body_size=info.body_size,
        imported=known(Imported, info.outcome) if info.outcome else None,
    )


def _time_of(info: _abi.Info, flag: int, seconds: int) -> datetime | None:
    """None also for a time that Python's calendar does not have."""
    try:
        return _EPOCH + timedelta(seconds=seconds) if info.flags & flag else None
    except OverflowError:
        return None


def _attribute_of(owned: Owned, index: int) -> Attribute:
    found = _abi.Attribute()
    status = _abi.call["record_attribute"](owned.pointer, index, ctypes.byref(found))
    if status != 0:
        raise Error.of(status, "the attribute cannot be read")
    return Attribute(
        id=found.id,
        type=known(AttributeType, found.type),
        encrypted=bool(found.flags & _abi.ATTRIBUTE_ENCRYPTED),
        value=_value_of(found, owned),
    )


def _value_of(attribute: _abi.Attribute, owned: Owned) -> int | str | bytes | Secret | None:
    if attribute.bytes is None:
        return None
    if attribute.flags & _abi.ATTRIBUTE_ENCRYPTED:
        return Secret(attribute.bytes, attribute.length, owned)
    value = ctypes.string_at(attribute.bytes, attribute.length)
    match attribute.type:
        case AttributeType.NUMBER:
            return ctypes.c_uint32.from_buffer_copy(value).value
        case AttributeType.STRING | AttributeType.TEXT:
            return text_out(value.split(b"\0")[0])
    return value


def _problem_of(pointer: int | None, index: int) -> Problem:
    found = _abi.Problem()
    status = _abi.call["list_problem"](pointer, index, ctypes.byref(found))
    if status != 0:
        raise Error.of(status, "the problem cannot be described")
    return Problem(
        kind=known(ProblemKind, found.kind),
        status=found.status,
        path=text_out(found.path),
        message=text_out(found.message),
        line=found.line,
    )
