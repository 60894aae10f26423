"""Publishes an event of the category "clock" each second, until Ctrl-C.

A publisher is the responder of its category. This one answers no requests.

Usage: publisher.py [SECONDS]
"""

import sys
import time

import kavri


def main() -> None:
    pause = float(sys.argv[1]) if len(sys.argv) > 1 else 1.0
    with kavri.Responder("clock") as responder:
        while True:
            try:
                responder.publish("tick", time.strftime("%H:%M:%S"))
            except kavri.Error as error:  # the broker is away; the connection is made again
                print(f"a tick is lost: {error}", file=sys.stderr)
            time.sleep(pause)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
