"""Initiator and responder for asyncio.

    async with kavri.aio.Initiator() as initiator:
        answer = await initiator.request("greeter", "hello", "world", timeout=5)
        async for event in initiator.events("weather"):
            ...

Nothing here blocks the event loop: what may wait in the C library is called on one further
thread for each initiator or responder, in order, and many requests leave with one call. An
object belongs to the loop in which it was opened. Where an awaiting task is cancelled, a message
that was not sent yet is withdrawn, and the answer to one that was sent is dropped.
"""

from __future__ import annotations

import asyncio
import os
import weakref
from collections.abc import Awaitable, Callable
from typing import Any, Generic, Self, TypeVar

from ._endpoint import Endpoint, Settings, encoded_all, log
from ._loop import Caller, Inbox, Outbox, Relay, settle
from ._mailbox import Mailbox
from ._text import Text, encoded
from .errors import Closed, Error, Status
from .initiator import Command, InitiatorEndpoint, Outcome, timed_out
from .messages import ConnectionChange, Event, Response
from .responder import ReceivedRequest, ResponderEndpoint

__all__ = ["Initiator", "Request", "Responder", "Subscription"]

Some = TypeVar("Some", bound=Endpoint)
Item = TypeVar("Item")

Address = str | bytes | os.PathLike[str] | None


class _Connection(Generic[Some, Item]):
    """What initiators and responders have in common: opening, closing, sending."""

    def __init__(
        self,
        address: Address,
        connect_timeout: float | None,
        send_timeout: float | None,
        on_connection: Callable[[ConnectionChange], object] | None,
        log_name: str,
    ) -> None:
        self._on_connection = on_connection
        self._settings = Settings(
            address,
            connect_timeout,
            send_timeout,
            None if on_connection is None else self._connection_changed,
            log_name,
        )
        self._made: Some | None = None
        self._opened: Some | None = None
        self._is_closed = False

    def _make(self) -> Some:
        raise NotImplementedError

    def _send(self, items: list[Item]) -> list[Exception | None]:
        raise NotImplementedError

    def _connection_changed(self, change: ConnectionChange) -> None:
        assert self._on_connection is not None
        self._relay.post(self._on_connection, change)

    # On the caller's thread, like its counterpart.
    def _make_owned(self) -> None:
        self._made = self._make()
        weakref.finalize(self, self._made.close)

    def _close_made(self) -> None:
        if self._made is not None:
            self._made.close()

    async def open(self) -> Self:
        """Connects; what ``async with`` does at its beginning. Raises as the constructors of
        :mod:`kavri` do."""
        if self._opened is not None or self._is_closed:
            raise RuntimeError("it was opened before")
        self._relay = Relay()
        self._caller = Caller()
        self._outbox: Outbox[Any] = Outbox(self._caller, self._relay, self._send)
        try:
            await self._caller.call(self._make_owned)
        except asyncio.CancelledError:
            self._is_closed = True
            self._caller.submit(self._close_made)  # where it was made all the same
            self._caller.end()
            raise
        self._opened = self._made
        return self

    async def close(self) -> None:
        """Ends it, after what was to be sent before; what ``async with`` does at its end.
        Requests under way raise ConnectionLost, iterations end. A second call does nothing."""
        if self._opened is None or self._is_closed:
            return
        self._is_closed = True
        if self._opened.is_copy():
            self._opened.close()  # the caller's thread is the parent's
            return
        try:
            await self._caller.call(self._opened.close)
        finally:
            self._caller.end()

    @property
    def _endpoint(self) -> Some:
        if self._opened is None or self._is_closed:
            raise Closed("it is not open", Status.NOT_INITIALISED)
        self._opened.expect_mine()
        return self._opened

    async def _post(self, item: Item) -> None:
        future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._outbox.post(item, future, settles=True)
        await future

    async def __aenter__(self) -> Self:
        return await self.open()

    async def __aexit__(self, *_: object) -> None:
        await self.close()


class Subscription:
    """The events of a category, from :meth:`Initiator.events`: an asynchronous iterator that
    ends when the subscription or its initiator is closed.

    The subscription begins with ``async with``, and else with the first iteration. Without
    ``async with`` or ``close`` the broker goes on sending the events to the initiator until that
    is closed, though nobody gets them any more."""

    def __init__(self, initiator: Initiator, category: bytes, limit: int) -> None:
        self._initiator = initiator
        self._category = category
        self._mailbox: Mailbox[Event] = Mailbox(limit, drops=True)
        self._inbox: Inbox[Event] | None = None

    @property
    def dropped(self) -> int:
        """How many events were dropped because they were not taken fast enough."""
        return self._mailbox.dropped

    async def open(self) -> None:
        """Subscribes; in effect on return. Raises as :meth:`kavri.Initiator.events`."""
        endpoint = self._initiator._endpoint
        self._inbox = Inbox(self._mailbox, self._initiator._relay)
        await self._initiator._caller.call(endpoint.subscribe, self._category, self._mailbox)

    async def close(self) -> None:
        """Ends the subscription; events that have arrived can still be taken."""
        self._mailbox.close()
        if self._inbox is not None and not self._initiator._is_closed:
            endpoint = self._initiator._endpoint
            await self._initiator._caller.call(endpoint.unsubscribe, self._category, self._mailbox)

    def __aiter__(self) -> Subscription:
        return self

    async def __anext__(self) -> Event:
        if self._inbox is None:
            await self.open()
        assert self._inbox is not None
        event = await self._inbox.get()
        if event is None:
            raise StopAsyncIteration
        return event

    async def __aenter__(self) -> Subscription:
        await self.open()
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()


class Initiator(_Connection[InitiatorEndpoint, Command]):
    """As :class:`kavri.Initiator`, with the same parameters, for any number of tasks at the same
    time. on_connection is called in the loop, and may do what it likes."""

    def __init__(
        self,
        *,
        address: Address = None,
        connect_timeout: float | None = None,
        send_timeout: float | None = None,
        on_connection: Callable[[ConnectionChange], object] | None = None,
        log_name: str = "kavri",
    ) -> None:
        super().__init__(address, connect_timeout, send_timeout, on_connection, log_name)

    def _make(self) -> InitiatorEndpoint:
        return InitiatorEndpoint(self._settings)

    def _send(self, items: list[Command]) -> list[Exception | None]:
        assert self._opened is not None
        return self._opened.send_batch(items)

    async def request(
        self,
        category: Text,
        identifier: Text = "",
        payload: Text = "",
        *,
        timeout: float | None = None,
    ) -> Response:
        """Sends a request and waits for its answer; as :meth:`kavri.Initiator.request`."""
        endpoint, relay = self._endpoint, self._relay
        texts = encoded_all(category=category, identifier=identifier, payload=payload)
        future: asyncio.Future[Response] = asyncio.get_running_loop().create_future()

        def settled(outcome: Outcome) -> None:
            relay.post(settle, future, outcome)

        uuid = endpoint.new_uuid()
        endpoint.waiting[uuid] = settled
        try:
            self._outbox.post((texts[0], texts[1], uuid, texts[2]), future, settles=False)
            async with asyncio.timeout(timeout):
                return await future
        except TimeoutError:
            raise timed_out() from None
        finally:
            endpoint.waiting.pop(uuid, None)

    async def send(self, category: Text, identifier: Text = "", payload: Text = "") -> None:
        """Sends a request whose answer is not waited for; as :meth:`kavri.Initiator.send`."""
        uuid = self._endpoint.new_uuid()
        texts = encoded_all(category=category, identifier=identifier, payload=payload)
        await self._post((texts[0], texts[1], uuid, texts[2]))

    def events(self, category: Text, *, limit: int = 10_000) -> Subscription:
        """The events of a category, for ``async for``, or ``async with`` where it matters from
        when on; parameters as of :meth:`kavri.Initiator.events`."""
        return Subscription(self, encoded(category, "category"), limit)


# A call of the responder's endpoint, to be made by the caller.
Call = Callable[[], None]


class Request(ReceivedRequest):
    """A request from :meth:`Responder.receive`, to be answered or ended, once."""

    def __init__(self, responder: Responder, received: Any) -> None:
        super().__init__(responder._endpoint, received)
        self._responder = responder

    async def respond(self, payload: Text | None = "") -> None:
        """Answers; as :meth:`kavri.Request.respond`."""
        text = None if payload is None else encoded(payload, "payload")
        await self._responder._call(lambda: self._endpoint.respond(self._received, text))
        self._is_over = True

    async def end(self) -> None:
        """Ends the request without an answer."""
        await self._responder._call(lambda: self._endpoint.end_request(self._received))
        self._is_over = True


# Its result is the answer; with None, the request is ended unless the handler has answered.
Handler = Callable[[Request], Awaitable[Text | None]]


class Responder(_Connection[ResponderEndpoint, Call]):
    """As :class:`kavri.Responder`, with the same parameters. on_connection is called in the
    loop, and may do what it likes."""

    def __init__(
        self,
        category: Text,
        *,
        limit: int = 1000,
        address: Address = None,
        connect_timeout: float | None = None,
        send_timeout: float | None = None,
        on_connection: Callable[[ConnectionChange], object] | None = None,
        log_name: str = "kavri",
    ) -> None:
        super().__init__(address, connect_timeout, send_timeout, on_connection, log_name)
        self._category = encoded(category, "category")
        self._limit = limit

    def _make(self) -> ResponderEndpoint:
        made = ResponderEndpoint(self._settings, self._category, self._limit)
        self._inbox = Inbox(made.requests, self._relay)
        return made

    def _send(self, items: list[Call]) -> list[Exception | None]:
        return [_attempt(item) for item in items]

    async def _call(self, call: Call) -> None:
        self._endpoint
        await self._post(call)

    async def receive(self) -> Request | None:
        """Waits for the next request; each goes to one caller. None where the responder is
        closed. For a time limit, use ``asyncio.timeout``: no request is lost by it."""
        self._endpoint
        received = await self._inbox.get()
        return None if received is None or self._is_closed else Request(self, received)

    def __aiter__(self) -> Responder:
        return self

    async def __anext__(self) -> Request:
        request = None if self._is_closed else await self.receive()
        if request is None:
            raise StopAsyncIteration
        return request

    async def serve(self, handler: Handler, *, concurrency: int = 100) -> None:
        """Answers requests with what the handler returns, until the responder is closed.

        concurrency: how many requests are handled at the same time; others wait. A request
        whose handler raises an exception is ended without an answer, and the exception is
        logged.
        """
        free = asyncio.Semaphore(concurrency)
        async with asyncio.TaskGroup() as tasks:
            await free.acquire()
            async for request in self:
                task = tasks.create_task(self._answer(handler, request))
                task.add_done_callback(lambda _: free.release())
                await free.acquire()

    async def _answer(self, handler: Handler, request: Request) -> None:
        answer: Text | None = None
        try:
            answer = await handler(request)
        except Exception:
            log.exception("the handler raised an exception; %r gets no answer", request.identifier)
        try:
            if answer is not None:
                await request.respond(answer)
            elif not request.is_over:
                await request.end()
        except Error as error:
            log.warning("%r: %s", request.identifier, error)
        except (TypeError, ValueError):
            log.exception("the handler's result is no answer; %r gets none", request.identifier)
            await request.end()

    async def publish(self, identifier: Text = "", payload: Text = "") -> None:
        """Publishes an event; as :meth:`kavri.Responder.publish`."""
        endpoint = self._endpoint
        texts = encoded_all(identifier=identifier, payload=payload)
        await self._post(lambda: endpoint.publish(*texts))


def _attempt(call: Call) -> Exception | None:
    try:
        call()
    except Exception as error:
        return error
    return None
