"""Asks the service "hello" for a greeting, and prints it.

Usage: hello.py [NAME]
Exit status 1 where the request was certainly not delivered, 2 where that is unknown.
"""

import sys

import kavri


def main() -> int:
    name = sys.argv[1] if len(sys.argv) > 1 else "world"
    try:
        with kavri.Initiator() as initiator:
            print(initiator.request("hello", "greet", name, timeout=5).payload)
    except kavri.NotDelivered as error:
        print(f"hello: try again later: {error}", file=sys.stderr)
        return 1
    except kavri.OutcomeUnknown as error:
        print(f"hello: perhaps it was done, perhaps not: {error}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
