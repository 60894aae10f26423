"""Prints the events of the category "clock", and when some may have been missed.

Usage: subscriber.py [COUNT]
"""

import itertools
import sys

import kavri


def connection_changed(change: kavri.ConnectionChange) -> None:
    if change.event == kavri.ConnectionEvent.RESTORED:
        print(f"missed what came within {change.disconnected:.1f} s", file=sys.stderr)


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else None
    with (
        kavri.Initiator(on_connection=connection_changed) as initiator,
        initiator.events("clock") as events,
    ):
        for event in itertools.islice(events, count):
            print(event.identifier, event.payload, flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
