"""Keeps concurrent compiles from seeing a file while the gate has its earlier text in place.

The module's gate judges a file's earlier text at the file's own path, so for a moment the file
on disk is not what the session left. Other files that can see it (Java classes on one source
path, sources that include a header) must not be compiled during that moment: their runs share
the lock, a file holding its earlier text takes it alone.
"""

import threading
from contextlib import contextmanager


class SwapLock:
    def __init__(self) -> None:
        self._cond = threading.Condition()
        self._readers = 0
        self._writer = False
        self._waiting = 0

    @contextmanager
    def reading(self):
        with self._cond:
            # Waiting writers go first, so a steady stream of compiles cannot starve a swap.
            self._cond.wait_for(lambda: not self._writer and not self._waiting)
            self._readers += 1
        try:
            yield
        finally:
            with self._cond:
                self._readers -= 1
                self._cond.notify_all()

    def hold(self) -> None:
        with self._cond:
            self._waiting += 1
            self._cond.wait_for(lambda: not self._writer and not self._readers)
            self._waiting -= 1
            self._writer = True

    def release(self) -> None:
        with self._cond:
            self._writer = False
            self._cond.notify_all()
