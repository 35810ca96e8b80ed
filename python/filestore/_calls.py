# SPDX-License-Identifier: Apache-2.0
"""The border to the library: what goes in, what comes out, and what it calls meanwhile."""

import atexit
import contextlib
import contextvars
import ctypes
import os
import sys
import threading
import warnings
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any, TypeVar

from . import _abi
from ._errors import Error, StoreWarning
from ._secret import Secret

BytesLike = bytes | bytearray | memoryview | Secret
Password = str | BytesLike | Callable[[], str | BytesLike]
Progress = Callable[[str, int, int], object]
Cancelled = Callable[[], bool]
Result = TypeVar("Result")


def text_in(text: str | None) -> bytes | None:
    """As names on disk are written; what is no UTF-8 comes back as it was."""
    return None if text is None else _without_nul(text.encode("utf-8", "surrogateescape"))


def text_out(text: bytes | None) -> str:
    return (text or b"").decode("utf-8", "surrogateescape")


def name_in(name: str | os.PathLike[str]) -> bytes:
    """The name of a file of the user's."""
    return _without_nul(os.fsencode(name))


def _without_nul(text: bytes) -> bytes:
    """The library would read it up to the NUL, and do what was meant to something else."""
    if b"\0" in text:
        raise ValueError("embedded null byte")
    return text


def number_in(value: int) -> int:
    """As it is; ctypes would drop the bits that are too many."""
    if not 0 <= value < 1 << 32:
        raise ValueError(f"{value} is not a number of 32 bits without sign")
    return value


@contextlib.contextmanager
def bytes_in(data: BytesLike) -> Iterator[tuple[Any, int]]:
    """Their address and size; what has to be copied for it is wiped afterwards."""
    if isinstance(data, bytes):
        yield ctypes.cast(ctypes.c_char_p(data), ctypes.c_void_p), len(data)
        return
    # A copy: ctypes takes no address of memory that it may not write.
    view = memoryview(data.view if isinstance(data, Secret) else data)
    copy = (ctypes.c_ubyte * view.nbytes)()
    try:
        if view.nbytes:
            memoryview(copy).cast("B")[:] = view.cast("B")
        yield ctypes.cast(copy, ctypes.c_void_p), view.nbytes
    finally:
        ctypes.memset(copy, 0, ctypes.sizeof(copy))


@contextlib.contextmanager
def key_in(password: Password | None, kind: int = _abi.KEY_PASSWORD) -> Iterator[Any]:
    """A pointer to the key that the library reads; null for none."""
    given = password() if callable(password) else password
    if given is None:
        yield None
        return
    # Bytes of ours are wiped; a str of the caller's cannot be.
    ours = bytearray(given.encode("utf-8", "surrogateescape")) if isinstance(given, str) else None
    try:
        with bytes_in(given if not isinstance(given, str) else ours or b"") as (address, size):
            yield ctypes.pointer(_abi.Key(kind=kind, bytes=address, length=size))
    finally:
        if ours is not None:
            ours[:] = bytes(len(ours))


class Outcome:
    """How a call ended: its status, and what the library says about it."""

    def __init__(self, name: str, *arguments: Any) -> None:
        self._error = _abi.Error()
        with _inside:
            self.status: int = _abi.call[name](*arguments, ctypes.byref(self._error))

    def failure(self) -> Error:
        path = text_out(self._error.path)
        return Error.of(self.status, text_out(self._error.message), path or None)

    def check(self) -> None:
        if self.status != 0:
            raise self.failure()


class Warnings:
    """What the library warns of, kept until no code of the library is on the stack."""

    def __init__(self) -> None:
        self._texts: list[str] = []
        self.callback = _abi.WARN(lambda user, text: self._texts.append(text_out(text)))

    def issue(self) -> None:
        """Warns on behalf of the program's line that called into this package."""
        level, frame = 1, sys._getframe()
        while frame.f_back is not None and frame.f_globals.get("__package__") == __package__:
            level, frame = level + 1, frame.f_back
        while self._texts:
            warnings.warn(self._texts.pop(0), StoreWarning, stacklevel=level)


class Watch:
    """The caller's eyes and hands during one long call.

    An exception of a callback never passes through the library: it cancels the call, and is raised
    when that has returned.
    """

    def __init__(self, progress: Progress | None, cancelled: Cancelled | None) -> None:
        self._cancelled = cancelled
        self._stop = False
        self._failure: BaseException | None = None
        self._warnings = Warnings()
        self.callbacks = _abi.Callbacks(
            cancelled=_abi.CANCELLED(lambda user: self.guard(self._is_cancelled, True)),
            warn=self._warnings.callback,
        )
        if progress is not None:
            report = progress
            self.callbacks.progress = _abi.PROGRESS(
                lambda user, what, done, total: self.guard(
                    lambda: report(text_out(what), done, total)
                )
            )

    def guard(self, call: Callable[[], object], otherwise: object = None) -> Any:
        """What the call returns; `otherwise` once any has raised."""
        if self._failure is None:
            try:
                return call()
            except BaseException as failure:
                self._failure = failure
        return otherwise

    def run(self, name: str, *arguments: Any) -> Outcome:
        """Calls the function with these arguments, the callbacks and the error object."""
        return self.run_with(lambda callbacks: Outcome(name, *arguments, callbacks))

    def run_with(self, call: Callable[[Any], Outcome]) -> Outcome:
        """As run(), of a call that takes a pointer to the callbacks."""
        with _inside, _called(self) as heard:
            callbacks = ctypes.pointer(self.callbacks) if heard else None
            outcome = interruptible(lambda: call(callbacks), self.cancel)
        if self._failure is not None:
            raise self._failure
        self._warnings.issue()
        return outcome

    def _is_cancelled(self) -> bool:
        return self._stop or (self._cancelled is not None and bool(self._cancelled()))

    def cancel(self) -> None:
        self._stop = True


# A thread that enters the interpreter when that has ended is taken from the process, with whatever
# is on its stack: in a callback, that is the library, and the process is aborted. So the end of the
# interpreter waits for calls that may call back, and later ones do not.
_SECONDS_TO_END = 10.0
_under_way: set[Watch] = set()
_changed = threading.Condition()
_ending = False


class _Inside:
    """While a call lasts. Once the interpreter ends, no other thread begins one.

    What libraries have for the whole process is given back at its end, OpenSSL's tables among it,
    while daemon threads run on. So the end waits for those that are in a call, too.
    """

    def __init__(self) -> None:
        self._threads = 0
        self._own = threading.local()

    def __enter__(self) -> None:
        depth = getattr(self._own, "depth", 0)
        with _changed:
            begins = depth or not _ending or threading.current_thread() is threading.main_thread()
            self._threads += 1 if begins and not depth else 0
        if not begins:
            threading.Event().wait()  # for the end of the process
        self._own.depth = depth + 1

    def __exit__(self, *failure: object) -> None:
        self._own.depth -= 1
        if not self._own.depth:
            with _changed:
                self._threads -= 1
                _changed.notify_all()

    def is_empty(self) -> bool:
        return self._threads <= 0

    def forget(self) -> None:
        self._threads = 0


_inside = _Inside()


@contextlib.contextmanager
def _called(watch: Watch) -> Iterator[bool]:
    """While the call of this watch lasts; whether it may call back."""
    with _changed:
        heard = not _ending or threading.current_thread() is threading.main_thread()
        _under_way.add(watch)
    try:
        yield heard
    finally:
        with _changed:
            _under_way.discard(watch)
            _changed.notify_all()


@atexit.register
def _end_calls() -> None:
    global _ending
    with _changed:
        _ending = True
        for watch in _under_way:
            watch.cancel()
        _changed.wait_for(lambda: not _under_way and _inside.is_empty(), _SECONDS_TO_END)


def _forget_calls() -> None:
    """The calls of a parent's threads are none of its child's."""
    global _changed
    _changed = threading.Condition()
    _under_way.clear()
    _inside.forget()


os.register_at_fork(after_in_child=_forget_calls)


def interruptible(call: Callable[[], Result], cancel: Callable[[], None]) -> Result:
    """Lets ^C reach a program while the main thread waits for the library.

    The interpreter runs signal handlers between instructions of the main thread. There are none
    within a call, and an exception at the first one of a callback would be lost. So another thread
    makes the call, and this one waits.
    """
    if threading.current_thread() is not threading.main_thread():
        return call()
    context = contextvars.copy_context()
    with ThreadPoolExecutor(max_workers=1, thread_name_prefix="filestore") as pool:
        try:
            running = pool.submit(lambda: context.run(call))
        except RuntimeError:
            return call()  # the interpreter is about to end, and starts no threads any more
        try:
            return running.result()
        except BaseException:
            cancel()  # what the call itself has raised has ended it already
            raise
