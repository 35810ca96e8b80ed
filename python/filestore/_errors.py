# SPDX-License-Identifier: Apache-2.0
"""Failures, one class a status."""

from typing import ClassVar


class Error(Exception):
    """What a function of the library answers if it is not done.

    status  the number, which is also the exit code of the command-line tool
    path    the file or record concerned; None if there is none
    """

    status: int = 125
    _by_status: ClassVar[dict[int, type["Error"]]] = {}

    def __init__(self, message: str, path: str | None = None, status: int | None = None) -> None:
        super().__init__(message)
        self.path = path
        if status is not None:
            self.status = status

    def __init_subclass__(cls, *, status: int) -> None:
        super().__init_subclass__()
        cls.status = status
        cls._by_status[status] = cls

    def __reduce__(self) -> tuple[type["Error"], tuple[str, str | None, int]]:
        return type(self), (str(self), self.path, self.status)

    @classmethod
    def of(cls, status: int, message: str, path: str | None = None) -> "Error":
        """The failure of this status; a plain Error for one that this version does not know."""
        return cls._by_status.get(status, Error)(message, path, status)


class OutOfMemory(Error, MemoryError, status=1):
    """Memory could not be allocated."""


class Usage(Error, ValueError, status=2):
    """A filter cannot be read, or no password was given."""


class Damaged(Error, status=3):
    """Damage was found."""


class Invalid(Error, ValueError, status=4):
    """An argument that cannot be, or that the present state excludes."""


class Partial(Error, status=5):
    """A part was done or looked at, a part was not."""


class WrongPassword(Error, status=6):
    """The password or key is not the database's, or not the file's."""


class IoFailure(Error, status=9):
    """A file could not be read or written, or a cipher failed."""


class NotOpen(Error, status=14):
    """The database is not unlocked, or somebody else has changed the password since."""


class Busy(Error, status=33):
    """Others used the database for longer than the handle waits."""


class Closed(Error, ValueError, status=35):
    """What was used is closed; or the process was forked within another thread's call."""


class NotFound(Error, LookupError, status=36):
    """There is no such attribute, or no body."""


class NoService(Error, status=40):
    """The store's modules could not be loaded."""


class Missing(Error, LookupError, status=50):
    """There is no such record, folder, file or database."""


class Malformed(Error, status=59):
    """Malformed or damaged data."""


class NoDigest(Error, status=74):
    """The record of the password is damaged."""


class Interrupted(Error, status=130):
    """The operation was cancelled."""


class StoreWarning(UserWarning):
    """What deserves attention although the operation went on."""
