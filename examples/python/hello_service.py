"""The service "hello": answers each request with a greeting, until SIGINT or SIGTERM."""

import signal
import sys
import threading

import kavri

ENDING = {signal.SIGINT, signal.SIGTERM}


def close_at_signal(responder: kavri.Responder) -> None:
    signal.sigwait(ENDING)
    responder.close()


def answer(request: kavri.Request) -> str | None:
    if request.identifier == "greet":
        return f"Hello, {request.payload}!"
    return None  # ends the request: its sender learns that there is no answer


def main() -> None:
    signal.pthread_sigmask(signal.SIG_BLOCK, ENDING)  # so only sigwait takes them
    with kavri.Responder("hello") as responder:
        threading.Thread(target=close_at_signal, args=(responder,), daemon=True).start()
        print("hello_service: ready", file=sys.stderr)
        responder.serve(answer)


if __name__ == "__main__":
    main()
