"""A service whose work takes the processor, with a worker for each: category "keys".

A request "derive" is answered with a key that is derived from its payload. hashlib lets go of
the interpreter's lock while it computes, so the workers, which are threads, use all processors.
Work that is Python code itself belongs into processes: see concurrent.futures.

Usage: worker_service.py [WORKERS]
"""

import hashlib
import os
import sys

import kavri

ROUNDS = 20_000


def answer(request: kavri.Request) -> str | None:
    if request.identifier != "derive":
        return None
    return hashlib.pbkdf2_hmac("sha256", request.payload_bytes, b"salt", ROUNDS).hex()


def main() -> None:
    workers = int(sys.argv[1]) if len(sys.argv) > 1 else len(os.sched_getaffinity(0))
    with kavri.Responder("keys") as responder:
        print("serving", flush=True)
        responder.serve(answer, workers=workers)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
