"""Asks the service "primes" how many primes there are below 1000, 2000 and so on, and prints the
answers in this order. All requests are under way at the same time, so that the service can use
all cores.

Usage: primes.py [COUNT]   10 where it is not given
"""

import asyncio
import sys

import kavri
from kavri import aio


async def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    limits = [str(1000 * number) for number in range(1, count + 1)]
    async with aio.Initiator() as initiator:
        answers = await asyncio.gather(*(initiator.request("primes", "", each) for each in limits))
    for limit, answer in zip(limits, answers, strict=True):
        print(f"{answer.payload} primes below {limit}")


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except kavri.Error as error:
        sys.exit(f"primes: {error}")
