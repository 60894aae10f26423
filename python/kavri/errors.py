"""What a call can come to: the statuses of the C library, and an exception for each that a
caller would handle differently.

Every exception of the library is a :class:`Error` with the ``status``. Of a request, a caller
tells three outcomes apart: answered (there is no exception), :class:`NotDelivered` (certainly
not delivered, it may be sent again) and :class:`OutcomeUnknown` (the service may have acted on
it, or not).
"""

from __future__ import annotations

import enum


class Status(enum.IntEnum):
    """``kavri_core_status``; ``kavri/core.h`` says of each what it means."""

    NO_ERROR = 0
    INVALID_ARGUMENT = 1
    NOT_INITIALISED = 2
    OUT_OF_RESOURCES = 3
    IPC_FAILED = 4
    IPC_NO_MESSAGE = 5
    IPC_BROKER_UNAVAILABLE = 6
    IPC_ADDRESS_INVALID = 7
    IPC_INCOMPATIBLE = 8
    IPC_REFUSED = 9
    IPC_NO_RESPONDER = 10
    IPC_RESPONDER_LOST = 11
    IPC_CONNECTION_LOST = 12
    IPC_TOO_LARGE = 13
    IPC_OVERLOADED = 14
    IPC_CATEGORY_TAKEN = 15
    IPC_OTHER_PROCESS = 16


class Error(Exception):
    """A call did not succeed.

    status: why, as a :class:`Status`; as a plain number where a later library has a status that
    this package does not know.
    """

    def __init__(self, message: str, status: int) -> None:
        super().__init__(message)
        self.status = status

    def __reduce__(self) -> tuple[type[Error], tuple[str, int]]:
        return type(self), (str(self), self.status)


class NotDelivered(Error):
    """Certainly not delivered: nobody has acted on the message, and it may be sent again."""


class BrokerUnavailable(NotDelivered):
    """No broker answers at the address. Each call tries again."""


class NoResponder(NotDelivered):
    """Nobody serves the category."""


class Refused(NotDelivered):
    """The broker's configuration does not allow this to the user."""


class TooLarge(NotDelivered):
    """A text is longer than the broker allows."""


class Overloaded(NotDelivered):
    """A limit is reached: too much is pending, or the responder does not keep up. Try later."""


class OutcomeUnknown(Error):
    """Whether the message was delivered, and acted on, is unknown."""


class ResponderLost(OutcomeUnknown):
    """The responder went away while it had the request."""


class ConnectionLost(OutcomeUnknown):
    """The connection to the broker broke, or was closed here, after the message was sent."""


class TimedOut(OutcomeUnknown, TimeoutError):
    """No answer came within the caller's time limit; one that comes later is dropped."""


class NoAnswer(Error):
    """The request was delivered, and its responder ended it without an answer."""


class CategoryTaken(Error):
    """Another responder serves the category."""


class AddressInvalid(Error, ValueError):
    """The broker's address is empty, or longer than the path of a socket may be."""


class Incompatible(Error):
    """The broker speaks another version of the protocol."""


class OtherProcess(Error):
    """The object belongs to the process that forked this one. Make a new one."""


class Closed(Error):
    """The initiator or responder was closed before the call. Nothing was done."""


class LibraryMissing(Error):
    """The C library cannot be loaded; the message says what was tried."""


_CLASSES: dict[int, type[Error]] = {
    Status.IPC_BROKER_UNAVAILABLE: BrokerUnavailable,
    Status.IPC_ADDRESS_INVALID: AddressInvalid,
    Status.IPC_INCOMPATIBLE: Incompatible,
    Status.IPC_REFUSED: Refused,
    Status.IPC_NO_RESPONDER: NoResponder,
    Status.IPC_RESPONDER_LOST: ResponderLost,
    Status.IPC_CONNECTION_LOST: ConnectionLost,
    Status.IPC_TOO_LARGE: TooLarge,
    Status.IPC_OVERLOADED: Overloaded,
    Status.IPC_CATEGORY_TAKEN: CategoryTaken,
    Status.IPC_OTHER_PROCESS: OtherProcess,
}


def error_for(status: int, text: str, what: str) -> Error:
    """The exception for a status, with its text, of what was tried."""
    known = Status(status) if status in Status.__members__.values() else status
    return _CLASSES.get(status, Error)(f"{what}: {text}", known)
