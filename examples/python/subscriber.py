"""Prints the events of the category "news", until SIGINT or SIGTERM. Survives the restart of the
broker, and says so, since events may have been missed then.
"""

import signal
import sys

import kavri


def connection_changed(change: kavri.ConnectionChange) -> None:
    if change.event == kavri.ConnectionEvent.RESTORED:
        seconds = f"{change.disconnected:.1f} s"
        print(f"subscriber: connected again after {seconds}: events may be missing", file=sys.stderr)
    elif change.event != kavri.ConnectionEvent.MADE:
        print(f"subscriber: lost the connection: {change.reason}", file=sys.stderr)


def main() -> None:
    with kavri.Initiator(on_connection=connection_changed) as initiator:
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: initiator.close())  # ends the iteration
        with initiator.events("news") as events:
            print("subscriber: ready", file=sys.stderr)
            for event in events:
                print(f"{event.category} {event.identifier}: {event.payload}", flush=True)


if __name__ == "__main__":
    main()
