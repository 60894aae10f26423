"""The service "hello": answers each request with a greeting, until SIGINT or SIGTERM."""

import signal
import sys

import kavri


def answer(request: kavri.Request) -> str | None:
    if request.identifier == "greet":
        return f"Hello, {request.payload}!"
    return None  # ends the request: its sender learns that there is no answer


def main() -> None:
    with kavri.Responder("hello") as responder:
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: responder.close())
        print("hello_service: ready", file=sys.stderr)
        responder.serve(answer)


if __name__ == "__main__":
    main()
