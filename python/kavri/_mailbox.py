"""A queue of limited length between the library's thread and those who take from it.

Where it is full, the library's thread waits, which the senders notice as back-pressure; or, for
events, the oldest is dropped and counted, because a thread that waits delivers no responses
either. Takers are threads that wait here, or an event loop that is called when the queue is no
longer empty.
"""

from __future__ import annotations

import collections
import threading
import time
from collections.abc import Callable
from typing import Generic, TypeVar

Item = TypeVar("Item")


class MailboxClosed(Exception):
    """It is closed, and empty."""


class Mailbox(Generic[Item]):
    def __init__(self, limit: int, *, drops: bool) -> None:
        if limit < 1:
            raise ValueError("limit must be at least 1")
        self._limit = limit
        self._drops = drops
        self._items: collections.deque[Item] = collections.deque()
        self._changed = threading.Condition()
        self._closed = False
        self.dropped = 0
        self.on_change: Callable[[], None] | None = None

    def put(self, item: Item) -> None:
        """Drops the item where the mailbox is closed."""
        with self._changed:
            while len(self._items) >= self._limit and not self._closed:
                if self._drops:
                    self._items.popleft()
                    self.dropped += 1
                else:
                    self._changed.wait()
            if self._closed:
                return
            was_empty = not self._items
            self._items.append(item)
            self._changed.notify_all()
        if was_empty and self.on_change is not None:
            self.on_change()

    def poll(self) -> Item | None:
        """The next item, or None; raises MailboxClosed."""
        with self._changed:
            return self._take()

    def get(self, timeout: float | None = None) -> Item | None:
        """Waits for the next item; None when the time, in seconds, is over."""
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._changed:
            while (item := self._take()) is None:
                left = None if deadline is None else deadline - time.monotonic()
                if left is not None and left <= 0:
                    return None
                self._changed.wait(left)
        return item

    def _take(self) -> Item | None:
        if self._items:
            if len(self._items) == self._limit:
                self._changed.notify_all()
            return self._items.popleft()
        if self._closed:
            raise MailboxClosed
        return None

    def close(self) -> None:
        """Wakes everybody; what is in it can still be taken."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()
        if self.on_change is not None:
            self.on_change()
