"""Every string of the library's is freed, once: what is held does not grow with what is sent."""

import asyncio
import gc
import os
import threading

import kavri
import kavri.aio
from conftest import run_python

PAYLOAD = "x" * 4096
# What each round would leave behind, if one of its strings were not freed, in bytes.
ROUND = 2000 * len(PAYLOAD)


def resident_bytes():
    gc.collect()
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def expect_flat(work):
    """The least growth of a few rounds is far below a round's strings."""
    for _ in range(2):
        work()
    sizes = [resident_bytes()]
    for _ in range(4):
        work()
        sizes.append(resident_bytes())
    growth = min(after - before for before, after in zip(sizes, sizes[1:]))
    assert growth < ROUND / 8, sizes


def test_requests_and_answers(broker):
    with kavri.Initiator() as initiator, kavri.Responder("service") as responder:
        threading.Thread(target=responder.serve, args=(lambda request: request.payload,)).start()

        def work():
            for _ in range(2000):
                initiator.request("service", "", PAYLOAD)

        expect_flat(work)


def test_events(broker):
    with kavri.Initiator() as initiator, kavri.Responder("weather") as responder:
        events = initiator.events("weather")

        def work():
            for _ in range(2000):
                responder.publish("rain", PAYLOAD)
                events.get(10)

        expect_flat(work)


def test_events_that_nobody_takes(broker):
    with kavri.Initiator() as initiator, kavri.Responder("weather") as responder:
        events = initiator.events("weather", limit=10)

        def work():
            for _ in range(2000):
                responder.publish("rain", PAYLOAD)
            initiator.request("test", "echo")  # behind all of them

        expect_flat(work)
        assert events.dropped > 0


def test_failures_and_answers_that_come_too_late(broker):
    with kavri.Initiator() as initiator, kavri.Responder("slow") as responder:

        def work():
            for _ in range(1000):
                try:
                    initiator.request("nobody", "", PAYLOAD)
                except kavri.NoResponder:
                    pass
                try:
                    initiator.request("slow", "", PAYLOAD, timeout=0)
                except kavri.TimedOut:
                    responder.receive(10).respond(PAYLOAD)
            initiator.request("test", "echo")

        expect_flat(work)
        assert not initiator._endpoint.waiting


def test_asyncio(broker):
    async def batch():
        async with kavri.aio.Initiator() as initiator:
            for _ in range(4):
                await asyncio.gather(
                    *(initiator.request("test", "echo", PAYLOAD) for _ in range(500))
                )

    expect_flat(lambda: asyncio.run(batch()))


def test_initiators_that_come_and_go(broker):
    def work():
        for _ in range(200):
            with kavri.Initiator() as initiator, initiator.events("test"):
                initiator.request("test", "echo", PAYLOAD)

    work()
    descriptors = len(os.listdir("/proc/self/fd"))
    before = resident_bytes()
    work()
    assert len(os.listdir("/proc/self/fd")) == descriptors
    assert resident_bytes() - before < ROUND / 4


def test_no_string_is_freed_twice_or_used_afterwards(broker):
    # The allocator checks each block that is freed, and fills it at once.
    run_python(
        """if True:
        import kavri, threading
        with kavri.Initiator() as initiator, kavri.Responder("service") as responder:
            serving = {"target": responder.serve, "args": (lambda request: request.payload,)}
            threading.Thread(**serving).start()
            with initiator.events("service") as events:
                for number in range(500):
                    assert initiator.request("service", "", str(number)).payload == str(number)
                    responder.publish("event", str(number))
                    assert events.get(10).payload == str(number)
        """,
        env={**os.environ, "LD_PRELOAD": "libc_malloc_debug.so.0",
             "GLIBC_TUNABLES": "glibc.malloc.check=3:glibc.malloc.perturb=165"},
    )
