"""A service that waits more than it computes, with asyncio: category "relay".

Each request "greet" is passed on to the service of hello_service.py, so that many wait at the
same time; a request "count" is answered with how many that were.
"""

import asyncio

import kavri
from kavri import aio


async def main() -> None:
    greeted = 0

    async def answer(request: aio.Request) -> str | None:
        nonlocal greeted
        if request.identifier == "count":
            return str(greeted)
        try:
            greeting = await initiator.request("greeter", "hello", request.payload, timeout=5)
        except kavri.Error as error:
            return f"no greeting: {error}"
        greeted += 1
        return greeting.payload

    async with aio.Initiator() as initiator, aio.Responder("relay") as responder:
        print("serving", flush=True)
        await responder.serve(answer, concurrency=1000)


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
