"""What is received: responses, events, and changes of the connection."""

from __future__ import annotations

import dataclasses
import enum

from ._text import decoded


@dataclasses.dataclass(frozen=True, slots=True)
class Response:
    """The answer to a request.

    payload_bytes: as received; None where the answer has no payload.
    """

    category: str
    identifier: str
    payload_bytes: bytes | None

    @property
    def payload(self) -> str:
        """The payload as text; empty where there is none."""
        return decoded(self.payload_bytes or b"")


@dataclasses.dataclass(frozen=True, slots=True)
class Event:
    """An event of a category that was subscribed to."""

    category: str
    identifier: str
    payload_bytes: bytes

    @property
    def payload(self) -> str:
        """The payload as text."""
        return decoded(self.payload_bytes)


class ConnectionEvent(enum.IntEnum):
    """What happened to a connection; ``kavri/ipc.h`` says more of each."""

    MADE = 0
    BROKEN = 1
    CLOSED_BY_BROKER = 2
    RESTORED = 3


@dataclasses.dataclass(frozen=True, slots=True)
class ConnectionChange:
    """A change of the connection to the broker.

    status: 0, or why the connection is gone. reason: the same in words. disconnected: of a
    restored connection, for how many seconds there was none; events of that time were missed.
    """

    event: ConnectionEvent | int
    status: int
    reason: str
    disconnected: float
