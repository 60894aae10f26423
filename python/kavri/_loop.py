"""Between an event loop and threads: results into the loop, blocking calls out of it."""

from __future__ import annotations

import asyncio
import collections
import concurrent.futures
from collections.abc import Callable
from typing import Any, Generic, TypeVar

from ._mailbox import Mailbox, MailboxClosed

Item = TypeVar("Item")
Result = TypeVar("Result")


class Relay:
    """Calls functions in the loop, in the order in which any thread posted them: many with one
    wake-up of the loop. What comes after the loop was closed is dropped."""

    def __init__(self) -> None:
        self._loop = asyncio.get_running_loop()
        self._posted: collections.deque[tuple[Callable[..., object], tuple[Any, ...]]] = (
            collections.deque()
        )
        self._is_scheduled = False

    def post(self, function: Callable[..., object], *arguments: Any) -> None:
        self._posted.append((function, arguments))
        if not self._is_scheduled:
            self._is_scheduled = True
            try:
                self._loop.call_soon_threadsafe(self._run)
            except RuntimeError:  # the loop is closed
                self._posted.clear()

    def _run(self) -> None:
        self._is_scheduled = False  # from here on, a post schedules again
        while self._posted:
            function, arguments = self._posted.popleft()
            try:
                function(*arguments)
            except Exception as error:
                self._loop.call_exception_handler(
                    {"message": "a callback of kavri raised an exception", "exception": error}
                )


def settle(future: asyncio.Future[Result], outcome: Result | BaseException) -> None:
    """In the loop: the result of a future that may have been cancelled."""
    if future.done():
        return
    if isinstance(outcome, BaseException):
        future.set_exception(outcome)
    else:
        future.set_result(outcome)


class Caller:
    """Makes the blocking calls of one initiator or responder, one after the other, on a thread
    of its own: in their order, and without ever blocking the loop."""

    def __init__(self) -> None:
        self._pool = concurrent.futures.ThreadPoolExecutor(1, "kavri-caller")

    async def call(self, function: Callable[..., Result], *arguments: Any) -> Result:
        return await asyncio.get_running_loop().run_in_executor(
            self._pool, function, *arguments
        )

    def submit(self, function: Callable[[], object]) -> None:
        self._pool.submit(function)

    def end(self) -> None:
        self._pool.shutdown(wait=False)


class Outbox(Generic[Item]):
    """Messages of the loop on their way out: those that come while others are sent go together
    with the next call. `send` is called on the caller's thread, and returns of each message
    None, or why it was not sent."""

    def __init__(
        self, caller: Caller, relay: Relay, send: Callable[[list[Item]], list[Exception | None]]
    ) -> None:
        self._caller = caller
        self._relay = relay
        self._send = send
        self._posted: collections.deque[tuple[Item, asyncio.Future[Any], bool]] = (
            collections.deque()
        )
        self._is_scheduled = False

    def post(self, item: Item, future: asyncio.Future[Any], *, settles: bool) -> None:
        """In the loop. A failure becomes the future's exception; success its result, None, if
        the message `settles` it. A message whose future is cancelled before is not sent."""
        self._posted.append((item, future, settles))
        if not self._is_scheduled:
            self._is_scheduled = True
            self._caller.submit(self._drain)

    def _drain(self) -> None:
        self._is_scheduled = False  # from here on, a post schedules again
        posted: list[tuple[Item, asyncio.Future[Any], bool]] = []
        while self._posted:
            each = self._posted.popleft()
            if not each[1].cancelled():
                posted.append(each)
        try:
            results = self._send([item for item, _, _ in posted]) if posted else []
        except Exception as error:
            results = [error] * len(posted)
        for (_, future, settles), failure in zip(posted, results, strict=True):
            if failure is not None or settles:
                self._relay.post(settle, future, failure)


class Inbox(Generic[Item]):
    """A mailbox, for tasks of the loop."""

    def __init__(self, mailbox: Mailbox[Item], relay: Relay) -> None:
        self.mailbox = mailbox
        self._waiting: list[asyncio.Future[None]] = []
        mailbox.on_change = lambda: relay.post(self._wake)

    def _wake(self) -> None:
        waiting, self._waiting = self._waiting, []
        for future in waiting:
            settle(future, None)

    async def get(self) -> Item | None:
        """The next item; None where the mailbox is closed."""
        try:
            while (item := self.mailbox.poll()) is None:
                future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
                self._waiting.append(future)
                await future
        except MailboxClosed:
            return None
        return item
