"""Answers requests of the category "greeter": "hello" with a greeting, others not at all.

Try it with hello.py. Ends with Ctrl-C.
"""

import kavri


def answer(request: kavri.Request) -> str | None:
    if request.identifier == "hello":
        return f"Hello, {request.payload}!"
    return None  # the sender learns that there is no answer


def main() -> None:
    with kavri.Responder("greeter") as responder:
        print("serving", flush=True)
        responder.serve(answer)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
