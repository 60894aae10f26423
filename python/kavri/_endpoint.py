"""One initiator or responder of the C library: its life, calls to it, and callbacks from it.

**Life.** The C library is initialised once for each endpoint, and so is counted by itself. An
endpoint ends when it is closed, when its owner is collected as garbage, or when the interpreter
exits, while the library's thread can still call back. No call may be under way when the handle
ends: the calls are counted, and the last one ends it.

**Callbacks.** The C functions that the library calls are a few that live as long as the
process. Their context is a number, by which they find the endpoint here: a late call finds
none, instead of memory that is gone. The library calls them on a thread of its own, in which
no exception may escape.

**Fork.** In a child the endpoint is a copy, whose locks may be held by threads that the child
does not have. Every call there is refused before it takes a lock, except the end of the copy.
"""

from __future__ import annotations

import contextlib
import ctypes
import itertools
import logging
import os
import threading
from collections.abc import Callable, Iterator
from typing import Any, Self

from . import _library
from ._library import Options, library, take
from ._text import Text, decoded, encoded
from ._thread_state import ThreadState
from .errors import Closed, Error, OtherProcess, Status, error_for
from .messages import ConnectionChange, ConnectionEvent

log = logging.getLogger("kavri")

_endpoints: dict[int, Endpoint] = {}
_numbers = itertools.count(1)


def milliseconds(seconds: float | None, name: str) -> int:
    """As the options have it: 0 is the library's default."""
    if seconds is None:
        return 0
    if not 0 < seconds <= 4_000_000:
        raise ValueError(f"{name} must be more than 0 seconds, and at most 4,000,000")
    return max(1, round(seconds * 1000))


class Settings:
    """How an endpoint reaches its broker; the parameters of Initiator and Responder."""

    def __init__(
        self,
        address: str | bytes | os.PathLike[str] | None,
        connect_timeout: float | None,
        send_timeout: float | None,
        on_connection: Callable[[ConnectionChange], object] | None,
        log_name: str,
    ) -> None:
        self.address = None if address is None else encoded(os.fsencode(address), "address")
        self.connect_timeout_ms = milliseconds(connect_timeout, "connect_timeout")
        self.send_timeout_ms = milliseconds(send_timeout, "send_timeout")
        self.on_connection = on_connection
        self.log_name = encoded(log_name, "log_name")


class Endpoint:
    """What initiators and responders have in common. Subclasses make the handle, install their
    callbacks, and end it."""

    def __init__(self, settings: Settings) -> None:
        self.library = library()
        self._on_connection = settings.on_connection
        self._process = os.getpid()
        self._lock = threading.RLock()
        self._ended = threading.Event()
        self._closing = False
        self._is_over = False
        self._callers: list[int] = []  # the threads with a call under way
        self.thread_state = ThreadState()
        self._callback_thread = 0  # the library's, while it is in a callback
        self._cookie = ctypes.c_void_p()
        self.handle = ctypes.c_void_p()
        self.number = next(_numbers)
        _endpoints[self.number] = self
        try:
            self._open(settings)
        except BaseException:
            self.close()
            raise

    # --- what a subclass does ---

    def make(self, options: Options) -> int:
        """Makes the handle; returns the status."""
        raise NotImplementedError

    def install(self) -> int:
        """Installs the callbacks; returns the status."""
        raise NotImplementedError

    def wake(self) -> None:
        """Ends the waits of threads, the library's among them, since the end is near."""

    def end_handle(self) -> None:
        raise NotImplementedError

    # --- life ---

    def _open(self, settings: Settings) -> None:
        check = self.library.check
        check(self.library.init(), "init")
        check(self.library.logging_init(settings.log_name, self._cookie), "logging")
        options = Options(
            sizeBytes=ctypes.sizeof(Options),
            brokerAddress=settings.address,
            connectTimeoutMs=settings.connect_timeout_ms,
            sendTimeoutMs=settings.send_timeout_ms,
            connectionCallback=_connection_callback,
            connectionContext=self.number,
            outcomeCallback=_outcome_callback,
            outcomeContext=self.number,
        )
        check(self.make(options), "cannot connect to the broker")
        check(self.install(), "cannot install a callback")

    def close(self) -> None:
        """Ends the endpoint, once; returns when it has ended, except to a call of this thread
        that is under way, which ends it as soon as it is over."""
        if self.is_copy():
            self._end_copy()
            return
        with self._lock:
            is_first, self._closing = not self._closing, True
            is_last = self._ends_now()
            is_waiter = threading.get_ident() not in (*self._callers, self._callback_thread)
        if is_first:
            self.wake()
        if is_last:
            self._end()
        elif is_waiter:
            self._ended.wait()

    def _ends_now(self) -> bool:
        """True once: where it is closed, and no call is under way. With the lock held."""
        if not self._closing or self._callers or self._is_over:
            return False
        self._is_over = True
        return True

    def _end(self) -> None:
        if self.handle:
            self.end_handle()
        self.thread_state.drop()
        _endpoints.pop(self.number, None)
        if self._cookie:
            self.library.logging_deinit(self._cookie)
        self.library.deinit()
        self._ended.set()

    # The library releases the copy; the logging context stays, whose lock the parent may hold.
    def _end_copy(self) -> None:
        if _endpoints.pop(self.number, None) is not None and self.handle:
            self.end_handle()

    def is_copy(self) -> bool:
        return os.getpid() != self._process

    @property
    def is_closing(self) -> bool:
        return self._closing

    # --- calls ---

    @contextlib.contextmanager
    def call(self) -> Iterator[ctypes.c_void_p]:
        """The handle, which does not end before the block does."""
        self.expect_mine()
        thread = threading.get_ident()
        # First of all, since a signal handler of this thread may close it at any point.
        self._callers.append(thread)
        try:
            if self._closing:
                raise Closed("it is closed", Status.NOT_INITIALISED)
            yield self.handle
        finally:
            with self._lock:
                self._callers.remove(thread)
                is_last = self._ends_now()
            if is_last:
                self._end()

    def check(self, status: int, what: str) -> None:
        self.library.check(status, what)

    def error(self, status: int, what: str) -> Error:
        return error_for(status, self.library.status_text(status), what)

    def expect_mine(self) -> None:
        """Raises OtherProcess for a copy."""
        if self.is_copy():
            status = Status.IPC_OTHER_PROCESS
            raise OtherProcess(self.library.status_text(status), status)

    def expect_may_wait(self) -> None:
        """Likewise, and RuntimeError on the library's thread, which would wait for itself."""
        self.expect_mine()
        if threading.get_ident() == self._callback_thread:
            raise RuntimeError("a callback would wait for itself; use another thread")

    # --- callbacks ---

    def connection_changed(self, change: ConnectionChange) -> None:
        if self._on_connection is not None:
            self._on_connection(change)

    def outcome_received(self, uuid: bytes, status: int) -> None:
        """A request of an initiator got no response."""

    def response_received(self, uuid: bytes, fields: list[bytes]) -> None:
        """`fields`: category, identifier, payload, which may be None."""

    def event_received(self, fields: list[bytes]) -> None:
        """`fields`: category, identifier, payload."""

    def request_received(self, token: _library.Request, fields: list[bytes]) -> None:
        """`fields`: category, identifier, uuid, payload."""


class EndsWithBlock:
    """What a ``with`` statement closes at its end."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


def encoded_all(**texts: Text) -> list[bytes]:
    return [encoded(text, name) for name, text in texts.items()]


def _deliver(number: int, work: Callable[[Endpoint], None]) -> None:
    endpoint = _endpoints.get(number)
    if endpoint is None:
        return
    endpoint.thread_state.keep()
    if endpoint.is_closing:
        return
    endpoint._callback_thread = threading.get_ident()
    try:
        work(endpoint)
    except BaseException:  # the caller is C code, which cannot take it
        log.exception("a callback raised an exception; what it was called for is dropped")
    finally:
        endpoint._callback_thread = 0


def _on_connection(change: Any, number: int) -> None:
    given = change.contents
    known = given.event in ConnectionEvent.__members__.values()
    kept = ConnectionChange(
        ConnectionEvent(given.event) if known else given.event,
        given.status,
        decoded(given.reason),
        given.disconnectedMs / 1000,
    )
    _deliver(number, lambda endpoint: endpoint.connection_changed(kept))


def _on_outcome(uuid: bytes, status: int, number: int) -> None:
    _deliver(number, lambda endpoint: endpoint.outcome_received(uuid, status))


def _on_response(category: Any, identifier: Any, uuid: Any, payload: Any, number: int) -> None:
    taken: Any = take(category, identifier, payload, uuid)
    _deliver(number, lambda endpoint: endpoint.response_received(taken.pop(), taken))


def _on_event(category: Any, identifier: Any, payload: Any, number: int) -> None:
    taken: Any = take(category, identifier, payload)
    _deliver(number, lambda endpoint: endpoint.event_received(taken))


def _on_request(
    request: Any, category: Any, identifier: Any, uuid: Any, payload: Any, number: int
) -> None:
    taken: Any = take(category, identifier, uuid, payload)
    _deliver(number, lambda endpoint: endpoint.request_received(request, taken))


# They live as long as the process.
_connection_callback = _library.ConnectionCallback(_on_connection)
_outcome_callback = _library.OutcomeCallback(_on_outcome)
response_callback = _library.ResponseCallback(_on_response)
event_callback = _library.EventCallback(_on_event)
request_callback = _library.RequestCallback(_on_request)
