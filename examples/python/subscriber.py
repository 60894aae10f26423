"""Prints the events of the category "news", until SIGINT or SIGTERM. Survives the restart of the
broker, and says so, since events may have been missed then.
"""

import signal
import sys
import threading

import kavri

ENDING = {signal.SIGINT, signal.SIGTERM}


def close_at_signal(initiator: kavri.Initiator) -> None:
    signal.sigwait(ENDING)
    initiator.close()


def connection_changed(change: kavri.ConnectionChange) -> None:
    if change.event == kavri.ConnectionEvent.RESTORED:
        seconds = f"{change.disconnected:.1f} s"
        print(f"subscriber: connected again after {seconds}: events may be missing", file=sys.stderr)
    elif change.event != kavri.ConnectionEvent.MADE:
        print(f"subscriber: lost the connection: {change.reason}", file=sys.stderr)


def main() -> None:
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)  # so only sigwait takes them
    with kavri.Initiator(on_connection=connection_changed) as initiator:
        # To close it ends the iteration.
        threading.Thread(target=close_at_signal, args=(initiator,), daemon=True).start()
        with initiator.events("news") as events:
            print("subscriber: ready", file=sys.stderr)
            for event in events:
                print(f"{event.category} {event.identifier}: {event.payload}", flush=True)


if __name__ == "__main__":
    main()
