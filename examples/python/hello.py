"""Asks the service of hello_service.py for a greeting, and tells the outcomes apart.

Usage: hello.py [NAME]
"""

import sys

import kavri


def main() -> int:
    name = sys.argv[1] if len(sys.argv) > 1 else "world"
    try:
        with kavri.Initiator() as initiator:
            print(initiator.request("greeter", "hello", name, timeout=5).payload)
    except kavri.NotDelivered as error:
        print(f"nobody got it, try again later: {error}", file=sys.stderr)
        return 1
    except kavri.OutcomeUnknown as error:
        print(f"perhaps it was done, perhaps not: {error}", file=sys.stderr)
        return 2
    return 0


if __name__ == "__main__":
    sys.exit(main())
