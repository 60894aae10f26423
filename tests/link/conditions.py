"""What the way from one machine to another is like, in either form of the network."""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Way:
    """In one direction: whether anything passes, how late, and which share of it is lost."""

    is_open: bool = True
    delay: float = 0.0
    loss: float = 0.0


SOUND = Way()
CUT = Way(is_open=False)


class Ways:
    """The ways between all machines; another thread may read them while they change."""

    def __init__(self, names):
        self._ways = {(sender, receiver): SOUND for sender in names for receiver in names}

    def between(self, sender, receiver):
        return self._ways[sender, receiver]

    def change(self, way, sender=None, receiver=None):
        """Those from `sender`, to `receiver`, or between both; to itself a machine always
        comes through."""
        self._ways = {
            (start, end): way
            if start != end and sender in (start, None) and receiver in (end, None)
            else before
            for (start, end), before in self._ways.items()
        }
