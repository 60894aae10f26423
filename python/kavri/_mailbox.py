"""A queue of limited length between the library's thread and those who take from it.

Where it is full, the library's thread waits, which the senders notice as back-pressure; or, for
events, the oldest is dropped and counted, because a thread that waits delivers no responses
either. Takers are threads that wait here, or an event loop that is called when the queue is no
longer empty.
"""

from __future__ import annotations

import queue
import threading
from collections.abc import Callable
from typing import Final, Generic, TypeVar

Item = TypeVar("Item")


class MailboxClosed(Exception):
    """It is closed, and empty."""


class _End:
    """Follows the last item of a closed mailbox, for every taker."""


_END: Final = _End()


class Mailbox(Generic[Item]):
    """It may be closed by a signal handler, also while the main thread waits here or is about
    to. So takers wait in a SimpleQueue, which keeps what was put before they waited; a
    condition would not wake the thread that is about to wait for it.
    """

    def __init__(self, limit: int, *, drops: bool) -> None:
        if limit < 1:
            raise ValueError("limit must be at least 1")
        self._limit = limit
        self._drops = drops
        self._items: queue.SimpleQueue[Item | _End] = queue.SimpleQueue()
        self._has_room = threading.Condition()
        self._is_putting = False
        self._closed = False
        self.dropped = 0
        self.on_change: Callable[[], None] | None = None

    def put(self, item: Item) -> None:
        """Drops the item where the mailbox is closed. For one thread."""
        with self._has_room:
            self._is_putting = True  # before the look at the length; see _taken
            while self._items.qsize() >= self._limit and not self._closed:
                self._make_room()
            self._is_putting = False
            if self._closed:
                return
            was_empty = self._items.empty()
            self._items.put(item)
        if was_empty and self.on_change is not None:
            self.on_change()

    def _make_room(self) -> None:
        if not self._drops:
            self._has_room.wait()
            return
        try:
            self._items.get_nowait()
        except queue.Empty:
            return  # a taker was quicker
        self.dropped += 1

    def poll(self) -> Item | None:
        """The next item, or None; raises MailboxClosed."""
        try:
            return self._taken(self._items.get_nowait())
        except queue.Empty:
            return None

    def get(self, timeout: float | None = None) -> Item | None:
        """Waits for the next item; None when the time, in seconds, is over."""
        try:
            return self._taken(self._items.get(timeout=None if timeout is None else max(0, timeout)))
        except queue.Empty:
            return None

    def _taken(self, item: Item | _End) -> Item:
        if isinstance(item, _End):
            self._items.put(_END)
            raise MailboxClosed
        if self._is_putting:
            with self._has_room:
                self._has_room.notify_all()
        return item

    def close(self) -> None:
        """Wakes everybody; what is in it can still be taken."""
        with self._has_room:
            if not self._closed:
                self._closed = True
                self._items.put(_END)
            self._has_room.notify_all()
        if self.on_change is not None:
            self.on_change()
