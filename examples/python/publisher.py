"""Publishes each line of standard input as an event of the category "news".

A publisher is the responder of its category. This one answers no requests.
"""

import sys

import kavri


def main() -> None:
    with kavri.Responder("news") as responder:
        for line in sys.stdin:
            try:
                responder.publish("line", line.rstrip("\n"))
            except kavri.Error as error:  # the connection is made again by itself
                print(f"publisher: a line is lost: {error}", file=sys.stderr)


if __name__ == "__main__":
    main()
