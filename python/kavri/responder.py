"""The responder: requests in, answers and events out."""

from __future__ import annotations

import os
import threading
import weakref
from collections.abc import Callable, Iterator

from . import _library
from ._endpoint import EndsWithBlock, Endpoint, Settings, encoded_all, log, request_callback
from ._mailbox import Mailbox, MailboxClosed
from ._text import Text, decoded, encoded
from .errors import Error
from .messages import ConnectionChange

# A request as the library names it, and category, identifier, uuid, payload.
Received = tuple[_library.Request, list[bytes]]


class ResponderEndpoint(Endpoint):
    """The C responder, and the requests that nobody has taken yet."""

    def __init__(self, settings: Settings, category: bytes, limit: int) -> None:
        self.category = category
        self.requests: Mailbox[Received] = Mailbox(limit, drops=False)
        super().__init__(settings)

    def make(self, options: _library.Options) -> int:
        status: int = self.library.ipc_responder_init(
            self._cookie, options, self.category, self.handle
        )
        return status

    def install(self) -> int:
        status: int = self.library.ipc_responder_request_receive_callback(
            self.handle, request_callback, self.number
        )
        return status

    def wake(self) -> None:
        self.requests.close()

    def end_handle(self) -> None:
        self.library.ipc_responder_deinit(self.handle)

    def request_received(self, token: _library.Request, fields: list[bytes]) -> None:
        self.requests.put((token, fields))

    def respond(self, received: Received, payload: bytes | None) -> None:
        token, (category, identifier, uuid, _) = received
        with self.call() as handle:
            status = self.library.ipc_responder_response_send(
                handle, token, category, identifier, uuid, payload
            )
        self.check(status, "the answer was not sent")

    def end_request(self, received: Received) -> None:
        with self.call() as handle:
            status = self.library.ipc_responder_request_end(handle, received[0])
        self.check(status, "the request was not ended")

    def publish(self, identifier: bytes, payload: bytes) -> None:
        with self.call() as handle:
            status = self.library.ipc_responder_event_publish(
                handle, self.category, identifier, payload
            )
        self.check(status, "the event was not published")


class ReceivedRequest:
    """What a request of either kind of responder has."""

    def __init__(self, endpoint: ResponderEndpoint, received: Received) -> None:
        self._endpoint = endpoint
        self._received = received
        self._is_over = False

    @property
    def category(self) -> str:
        return decoded(self._received[1][0])

    @property
    def identifier(self) -> str:
        return decoded(self._received[1][1])

    @property
    def uuid(self) -> str:
        """The sender's name for the request; an answer carries it by itself."""
        return decoded(self._received[1][2])

    @property
    def payload(self) -> str:
        return decoded(self.payload_bytes)

    @property
    def payload_bytes(self) -> bytes:
        return self._received[1][3]

    @property
    def is_over(self) -> bool:
        """Whether it was answered or ended."""
        return self._is_over


class Request(ReceivedRequest):
    """A request from :meth:`Responder.receive`. It is to be answered or ended, once, from any
    thread: until then its sender waits, and the broker keeps it."""

    def respond(self, payload: Text | None = "") -> None:
        """Answers; None is an answer without a payload.

        Raises TooLarge and Overloaded (it can be answered again), ConnectionLost (the
        connection over which it came is gone, or broke now), Closed, OtherProcess; ValueError
        for a NUL.
        """
        text = None if payload is None else encoded(payload, "payload")
        self._endpoint.respond(self._received, text)
        self._is_over = True

    def end(self) -> None:
        """Ends the request without an answer; its sender gets NoAnswer. Raises as
        ``respond``."""
        self._endpoint.end_request(self._received)
        self._is_over = True


# Its result is the answer; with None, the request is ended unless the handler has answered.
Handler = Callable[[Request], Text | None]


class Responder(EndsWithBlock):
    """A connection to the broker that serves a category.

    All methods may be called from any thread, any number at the same time. A lost connection is
    made again by itself, and the category served again. A responder ends as an
    :class:`Initiator` does; requests that it has not answered come to their senders as
    ResponderLost.

    category: what it serves, not empty. limit: how many requests may wait here to be taken;
    more wait in the broker and at their senders. The others are those of an initiator.

    Raises CategoryTaken, and what an initiator raises.
    """

    def __init__(
        self,
        category: Text,
        *,
        limit: int = 1000,
        address: str | bytes | os.PathLike[str] | None = None,
        connect_timeout: float | None = None,
        send_timeout: float | None = None,
        on_connection: Callable[[ConnectionChange], object] | None = None,
        log_name: str = "kavri",
    ) -> None:
        self._endpoint = ResponderEndpoint(
            Settings(address, connect_timeout, send_timeout, on_connection, log_name),
            encoded(category, "category"),
            limit,
        )
        weakref.finalize(self, self._endpoint.close)

    def receive(self, timeout: float | None = None) -> Request | None:
        """Waits for the next request, for at most `timeout` seconds; each request goes to one
        caller. None when the time is over, or the responder is closed."""
        self._endpoint.expect_may_wait()
        try:
            received = self._endpoint.requests.get(timeout)
        except MailboxClosed:
            return None
        return None if received is None else Request(self._endpoint, received)

    def __iter__(self) -> Iterator[Request]:
        """The requests, until the responder is closed."""
        while (request := self.receive()) is not None:
            yield request

    def serve(self, handler: Handler, *, workers: int = 1) -> None:
        """Answers requests with what the handler returns, until the responder is closed, which
        it is on return.

        workers: how many threads call the handler. A request whose handler raises an exception
        is ended without an answer, and the exception is logged; KeyboardInterrupt and others
        that are no Exception end the serving, and are raised here.
        """
        failures: list[BaseException] = []

        def work() -> None:
            try:
                for request in self:
                    finish(request, call_handler(handler, request))
            except BaseException as error:
                failures.append(error)
            self.close()  # so the other workers end too

        threads = [
            threading.Thread(target=work, name=f"kavri-worker-{number}")
            for number in range(1, workers)
        ]
        for thread in threads:
            thread.start()
        work()
        for thread in threads:
            thread.join()
        if failures:
            raise failures[0]

    def publish(self, identifier: Text = "", payload: Text = "") -> None:
        """Publishes an event of the category to all who are subscribed now.

        Raises TooLarge, Overloaded, BrokerUnavailable, ConnectionLost, Closed, OtherProcess;
        ValueError for a NUL.
        """
        self._endpoint.publish(*encoded_all(identifier=identifier, payload=payload))

    def close(self) -> None:
        """Ends the responder. Waits for calls of other threads that are sending. A second call
        does nothing."""
        self._endpoint.close()


def call_handler(handler: Handler, request: Request) -> Text | None:
    try:
        return handler(request)
    except Exception:
        log.exception("the handler raised an exception; %r gets no answer", request.identifier)
        return None


def finish(request: Request, answer: Text | None) -> None:
    """Answers, or ends what is not over. Where that fails, the sender learns what became of the
    request without us; an answer that cannot be one is the handler's mistake."""
    try:
        if answer is not None:
            request.respond(answer)
        elif not request.is_over:
            request.end()
    except Error as error:
        log.warning("%r: %s", request.identifier, error)
        end_quietly(request)
    except (TypeError, ValueError):
        log.exception("the handler's result is no answer; %r gets none", request.identifier)
        end_quietly(request)


def end_quietly(request: Request) -> None:
    try:
        request.end()
    except Error:
        pass  # it is gone already, with its connection
