"""The service "primes", with a worker for each core: counts the primes below the number that a
request has as its payload, until SIGINT or SIGTERM.

Within one process, Python computes on one core at a time. So the workers are processes; this one
receives and answers for them, with asyncio. They are made by "spawn", since what was forked would
inherit the connection.

Usage: primes_service.py [WORKERS]
"""

import asyncio
import concurrent.futures
import math
import multiprocessing
import os
import signal
import sys

from kavri import aio


def primes_below(limit: int) -> int:
    return sum(
        all(number % divisor for divisor in range(2, math.isqrt(number) + 1))
        for number in range(2, limit)
    )


async def serve(pool: concurrent.futures.Executor) -> None:
    loop = asyncio.get_running_loop()

    async def answer(request: aio.Request) -> str:
        return str(await loop.run_in_executor(pool, primes_below, int(request.payload)))

    async with aio.Responder("primes") as responder:
        serving = asyncio.create_task(responder.serve(answer))
        for number in (signal.SIGINT, signal.SIGTERM):
            loop.add_signal_handler(number, serving.cancel)
        print("primes_service: ready", file=sys.stderr)
        try:
            await serving
        except asyncio.CancelledError:
            pass


def main() -> None:
    workers = int(sys.argv[1]) if len(sys.argv) > 1 else len(os.sched_getaffinity(0))
    with concurrent.futures.ProcessPoolExecutor(
        workers,
        mp_context=multiprocessing.get_context("spawn"),
        initializer=signal.signal,  # Ctrl-C is for this process
        initargs=(signal.SIGINT, signal.SIG_IGN),
    ) as pool:
        asyncio.run(serve(pool))


if __name__ == "__main__":
    main()
