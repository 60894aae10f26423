"""Requests, answers and events through the kavri broker of this machine.

    import kavri

    with kavri.Initiator() as initiator:
        print(initiator.request("greeter", "hello", "world", timeout=5).payload)

:class:`Initiator` and :class:`Responder` block, and may be shared by threads; the classes of the
same names in :mod:`kavri.aio` are for asyncio. Nothing happens at import: the C library is
loaded when it is first needed, from the folder (or the file) that the environment variable
KAVRI_LIBRARY names, else as the loader finds it. It has to be of the package's version or later.

Texts are ``str``, as UTF-8; bytes that are not UTF-8 are kept, as lone surrogates. Where a
payload is binary, give ``bytes``, and read ``payload_bytes``. No text holds a NUL.

In a forked child, what was made before the fork raises OtherProcess; make new objects there.
"""

from .errors import (
    AddressInvalid,
    BrokerUnavailable,
    CategoryTaken,
    Closed,
    ConnectionLost,
    Error,
    Incompatible,
    LibraryMissing,
    NoAnswer,
    NoResponder,
    NotDelivered,
    OtherProcess,
    OutcomeUnknown,
    Overloaded,
    Refused,
    ResponderLost,
    Status,
    TimedOut,
    TooLarge,
)
from .initiator import Initiator, Subscription
from .messages import ConnectionChange, ConnectionEvent, Event, Response
from .responder import Request, Responder

__all__ = [
    "AddressInvalid",
    "BrokerUnavailable",
    "CategoryTaken",
    "Closed",
    "ConnectionChange",
    "ConnectionEvent",
    "ConnectionLost",
    "Error",
    "Event",
    "Incompatible",
    "Initiator",
    "LibraryMissing",
    "NoAnswer",
    "NoResponder",
    "NotDelivered",
    "OtherProcess",
    "OutcomeUnknown",
    "Overloaded",
    "Refused",
    "Request",
    "Responder",
    "ResponderLost",
    "Response",
    "Status",
    "Subscription",
    "TimedOut",
    "TooLarge",
]
