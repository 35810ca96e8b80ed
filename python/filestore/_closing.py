# SPDX-License-Identifier: Apache-2.0
"""What is open until close() or the end of a with statement."""

import abc
from types import TracebackType
from typing import Self


class Closing(abc.ABC):
    """For whoever has a close() that may be called again."""

    @property
    @abc.abstractmethod
    def closed(self) -> bool: ...

    @abc.abstractmethod
    def close(self) -> None: ...

    @abc.abstractmethod
    def _open(self) -> object:
        """Raises Closed if it is closed."""

    def __enter__(self) -> Self:
        self._open()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        failure: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()
