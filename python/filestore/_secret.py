# SPDX-License-Identifier: Apache-2.0
"""Bytes that are wiped when nobody needs them any more."""

import ctypes
import hmac
import weakref
from collections.abc import Iterator

from ._closing import Closing
from ._errors import Closed


class Secret(Closing):
    """Bytes in the library's own memory: never copied, and wiped by close().

    `view` is a read-only memoryview of them, for whatever takes bytes: a hash, a file, a socket.
    Views that are still there after close() are safe to use, and read as zeros. Without close()
    the bytes are wiped when the last view is gone. bytes(secret) makes a copy that nobody wipes.
    """

    def __init__(self, address: int | None, size: int, owner: object) -> None:
        """The memory at the address, which is not given back while the owner is referred to."""
        self._block = (ctypes.c_ubyte * size).from_address(address) if address and size else None
        if self._block is not None:
            # Views refer to the block, and so keep the memory as long as they live. At the end of
            # the process it is left alone, since a view may outlive this.
            weakref.finalize(self._block, _forget, owner).atexit = False
        memory = memoryview(self._block).cast("B") if self._block is not None else memoryview(b"")
        self._view: memoryview | None = memory.toreadonly()

    @property
    def view(self) -> memoryview:
        return self._open()

    @property
    def closed(self) -> bool:
        return self._view is None

    def close(self) -> None:
        """Wipes the bytes, also for those who still have a view of them."""
        if self._block is not None:
            ctypes.memset(self._block, 0, ctypes.sizeof(self._block))
        self._block = None
        self._view = None

    def _open(self) -> memoryview:
        if self._view is None:
            raise Closed("the secret was wiped")
        return self._view

    def __buffer__(self, flags: int) -> memoryview:  # Python 3.12 and later
        return self.view

    def __bytes__(self) -> bytes:
        return bytes(self.view)

    def __len__(self) -> int:
        return len(self.view)

    def __iter__(self) -> Iterator[int]:
        return iter(self.view)

    def __eq__(self, other: object) -> bool:
        """In a time that does not depend on where the two differ."""
        if isinstance(other, Secret):
            return hmac.compare_digest(self.view, other.view)
        if isinstance(other, (bytes, bytearray, memoryview)):
            return hmac.compare_digest(self.view, other)
        return NotImplemented

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return "<Secret, wiped>" if self._view is None else f"<Secret of {len(self)} bytes>"

    def __reduce__(self) -> tuple[object, ...]:
        raise TypeError("a secret is not pickled")


def _forget(owner: object) -> None:
    """The finalizer's reference was all that kept the owner."""
