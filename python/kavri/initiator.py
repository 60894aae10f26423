"""The initiator: requests out, answers and events in.

Answers and outcomes come by callback on the library's thread, which finds by the uuid who waits
for each; so any number of threads may have a request under way at the same time, each gets its
own outcome as soon as it is known, and a waiting thread can be interrupted by a signal.
"""

from __future__ import annotations

import contextlib
import ctypes
import itertools
import os
import threading
import time
import uuid as uuids
import weakref
from collections.abc import Callable, Iterable

from . import _library
from ._endpoint import (
    EndsWithBlock,
    Endpoint,
    Settings,
    encoded_all,
    event_callback,
    response_callback,
)
from ._mailbox import Mailbox, MailboxClosed
from ._text import Text, decoded, encoded
from .errors import Closed, ConnectionLost, Error, NoAnswer, Status, TimedOut
from .messages import ConnectionChange, Event, Response

# What becomes of a request.
Outcome = Response | Error
# Category, identifier, uuid, payload.
Command = tuple[bytes, bytes, bytes, bytes]


class InitiatorEndpoint(Endpoint):
    """The C initiator, and who waits for what of it."""

    def __init__(self, settings: Settings) -> None:
        # Each is called with the outcome of the request of that uuid, once.
        self.waiting: dict[bytes, Callable[[Outcome], None]] = {}
        self._subscribing = threading.Lock()
        # Replaced as a whole: the library's thread reads them without the lock.
        self._subscriptions: dict[bytes, tuple[weakref.ref[Mailbox[Event]], ...]] = {}
        self._uuid_prefix = uuids.uuid4().hex.encode()
        self._uuid_numbers = itertools.count()
        super().__init__(settings)

    def make(self, options: _library.Options) -> int:
        status: int = self.library.ipc_initiator_init(self._cookie, options, self.handle)
        return status

    def install(self) -> int:
        status: int = self.library.ipc_initiator_response_receive_callback(
            self.handle, response_callback, self.number
        ) or self.library.ipc_initiator_event_receive_callback(
            self.handle, event_callback, self.number
        )
        return status

    def wake(self) -> None:
        for uuid in list(self.waiting):
            self.settle(
                uuid,
                ConnectionLost("closed while the request was pending", Status.IPC_CONNECTION_LOST),
            )
        for mailbox in self._mailboxes(*self._subscriptions):
            mailbox.close()

    def end_handle(self) -> None:
        self.library.ipc_deinit(self.handle)

    # --- requests ---

    def new_uuid(self) -> bytes:
        return b"%s-%x" % (self._uuid_prefix, next(self._uuid_numbers))

    def send(self, command: Command) -> None:
        with self.call() as handle:
            status = self.library.ipc_initiator_command_send(handle, *command)
        self.check(status, "the request was not sent")

    def send_batch(self, commands: list[Command]) -> list[Exception | None]:
        """Sends in order; of each None, or why it was not sent."""
        results: list[Exception | None] = []
        with self.call() as handle:
            while len(results) < len(commands):
                rest = commands[len(results) :]
                array = (_library.Command * len(rest))(*(_library.Command(*each) for each in rest))
                sent = ctypes.c_size_t()
                status: int = self.library.ipc_initiator_command_send_batch(
                    handle, array, len(rest), sent
                )
                results += [None] * sent.value
                if status != Status.NO_ERROR:
                    # Only a text that is too large is a matter of one request alone.
                    is_alone = status == Status.IPC_TOO_LARGE
                    failed = 1 if is_alone else len(rest) - sent.value
                    results += [self._not_sent(status) for _ in range(failed)]
        return results

    def _not_sent(self, status: int) -> Error:
        return self.error(status, "the request was not sent")

    def settle(self, uuid: bytes, outcome: Outcome) -> None:
        settle = self.waiting.pop(uuid, None)
        if settle is not None:
            settle(outcome)

    def response_received(self, uuid: bytes, fields: list[bytes]) -> None:
        category, identifier, payload = fields
        self.settle(uuid, Response(decoded(category), decoded(identifier), payload))

    def outcome_received(self, uuid: bytes, status: int) -> None:
        if status == Status.NO_ERROR:
            self.settle(uuid, NoAnswer("the responder gives no answer", Status.NO_ERROR))
        else:
            self.settle(uuid, self.error(status, "the request was not answered"))

    # --- events ---

    def _mailboxes(self, *categories: bytes) -> Iterable[Mailbox[Event]]:
        for category in categories:
            for reference in self._subscriptions.get(category, ()):
                if (mailbox := reference()) is not None:
                    yield mailbox

    def event_received(self, fields: list[bytes]) -> None:
        category, identifier, payload = fields
        event = Event(decoded(category), decoded(identifier), payload)
        for mailbox in self._mailboxes(category):
            mailbox.put(event)

    def subscribe(self, category: bytes, mailbox: Mailbox[Event]) -> None:
        self.expect_may_wait()
        with self._subscribing, self.call() as handle:
            others = tuple(weakref.ref(each) for each in self._mailboxes(category))
            self._subscriptions[category] = (*others, weakref.ref(mailbox))
            status = self.library.ipc_initiator_event_subscribe(handle, category)
            if status != Status.NO_ERROR:
                self._subscriptions[category] = others
        self.check(status, "cannot subscribe")

    def unsubscribe(self, category: bytes, mailbox: Mailbox[Event]) -> None:
        """Whatever becomes of it, the mailbox gets nothing from now on."""
        mailbox.close()
        self.expect_may_wait()
        with self._subscribing, self.call() as handle:
            others = [each for each in self._mailboxes(category) if each is not mailbox]
            self._subscriptions[category] = tuple(weakref.ref(each) for each in others)
            if not others:
                del self._subscriptions[category]
                self.library.ipc_initiator_event_unsubscribe(handle, category)


class _Waiter:
    """A thread that waits for the outcome of one request."""

    def __init__(self) -> None:
        self._outcome: Outcome | None = None
        self._done = threading.Lock()
        self._done.acquire()

    def settle(self, outcome: Outcome) -> None:
        self._outcome = outcome
        self._done.release()

    def wait(self, deadline: float | None) -> Response:
        timeout = -1.0 if deadline is None else max(0.0, deadline - time.monotonic())
        self._done.acquire(timeout=min(timeout, threading.TIMEOUT_MAX))
        match self._outcome:
            case None:
                raise timed_out()
            case Error() as error:
                raise error
            case response:
                return response


def timed_out() -> TimedOut:
    return TimedOut("no answer within the time limit", Status.IPC_NO_MESSAGE)


class Subscription(EndsWithBlock):
    """The events of a category, from :meth:`Initiator.events`: an iterator that waits for the
    next event and ends when the subscription or its initiator is closed. For a ``with``
    statement; one that is dropped without ``close`` gets no events, but the broker goes on
    sending them to the initiator until that is closed."""

    def __init__(self, endpoint: InitiatorEndpoint, category: Text, limit: int) -> None:
        self._endpoint = endpoint
        self._category = encoded(category, "category")
        self._events: Mailbox[Event] = Mailbox(limit, drops=True)
        endpoint.subscribe(self._category, self._events)

    @property
    def dropped(self) -> int:
        """How many events were dropped because they were not taken fast enough."""
        return self._events.dropped

    def get(self, timeout: float | None = None) -> Event | None:
        """Waits for the next event; None when `timeout` seconds are over, or when there will be
        none since it is closed."""
        self._endpoint.expect_may_wait()
        try:
            return self._events.get(timeout)
        except MailboxClosed:
            return None

    def close(self) -> None:
        """Ends the subscription; events that have arrived can still be taken. Waits for the
        broker's acknowledgement."""
        if not self._endpoint.is_copy():
            with contextlib.suppress(Closed):  # which has ended it already
                self._endpoint.unsubscribe(self._category, self._events)

    def __iter__(self) -> Subscription:
        return self

    def __next__(self) -> Event:
        event = self.get()
        if event is None:
            raise StopIteration
        return event


class Initiator(EndsWithBlock):
    """A connection to the broker that sends requests and receives events.

    All methods may be called from any thread, any number at the same time. The connection is
    made again by itself when it is lost, with the subscriptions there were. An initiator ends
    with ``close``, with the ``with`` statement, as garbage, or with the interpreter.

    address: the path of the broker's socket; None: the environment variable KAVRI_BROKER, else
    the user's broker, else the system's. connect_timeout, send_timeout: in seconds, how long
    connecting, and a call that sends, may take (5 and 10 unless given). on_connection: called
    on the library's thread with each :class:`ConnectionChange`, the first perhaps before the
    constructor returns; it may send, but not wait for an answer, and what it raises is logged.
    log_name: what the library's log lines call this.

    Raises BrokerUnavailable, Refused, Overloaded, Incompatible, AddressInvalid, LibraryMissing;
    ValueError for a time that is none.
    """

    def __init__(
        self,
        *,
        address: str | bytes | os.PathLike[str] | None = None,
        connect_timeout: float | None = None,
        send_timeout: float | None = None,
        on_connection: Callable[[ConnectionChange], object] | None = None,
        log_name: str = "kavri",
    ) -> None:
        self._endpoint = InitiatorEndpoint(
            Settings(address, connect_timeout, send_timeout, on_connection, log_name)
        )
        weakref.finalize(self, self._endpoint.close)

    def request(
        self,
        category: Text,
        identifier: Text = "",
        payload: Text = "",
        *,
        timeout: float | None = None,
    ) -> Response:
        """Sends a request and waits for its answer.

        Texts are str, as UTF-8, or bytes, without NUL; category and identifier have at most
        64 KiB, the payload what the broker allows (1 MiB unless configured). timeout: in
        seconds; None waits until the outcome is known, which without a hanging responder it
        always is.

        Raises NotDelivered (BrokerUnavailable, NoResponder, Refused, TooLarge, Overloaded),
        OutcomeUnknown (ResponderLost, ConnectionLost, TimedOut), NoAnswer, Closed,
        OtherProcess; ValueError for a NUL; RuntimeError within on_connection.
        """
        self._endpoint.expect_may_wait()
        texts = encoded_all(category=category, identifier=identifier, payload=payload)
        deadline = None if timeout is None else time.monotonic() + timeout
        waiter = _Waiter()
        uuid = self._endpoint.new_uuid()
        self._endpoint.waiting[uuid] = waiter.settle
        try:
            self._endpoint.send((texts[0], texts[1], uuid, texts[2]))
            return waiter.wait(deadline)
        finally:
            self._endpoint.waiting.pop(uuid, None)

    def send(self, category: Text, identifier: Text = "", payload: Text = "") -> None:
        """Sends a request without waiting for an answer, which is dropped; so is its outcome.
        Returns when it is written to the broker's socket. Raises as ``request``."""
        texts = encoded_all(category=category, identifier=identifier, payload=payload)
        self._endpoint.send((texts[0], texts[1], self._endpoint.new_uuid(), texts[2]))

    def events(self, category: Text, *, limit: int = 10_000) -> Subscription:
        """Subscribes to the events of a category; in effect when it returns.

        limit: how many events may wait to be taken; of more, the oldest are dropped. Several
        subscriptions to one category get every event each.

        Raises Refused, Overloaded, TooLarge, BrokerUnavailable, ConnectionLost, Closed,
        OtherProcess; ValueError for a NUL; RuntimeError within on_connection.
        """
        return Subscription(self._endpoint, category, limit)

    def close(self) -> None:
        """Ends the initiator. Requests under way raise ConnectionLost, subscriptions end. Waits
        for calls of other threads that are sending. A second call does nothing."""
        self._endpoint.close()
