"""Initiator and responder for asyncio: requests, events and services."""

import asyncio
import threading

import kavri
import kavri.aio
import pytest
from conftest import run_loop


def test_a_request_is_answered(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            return await initiator.request("test", "echo", "häßlich")

    assert run_loop(main) == kavri.Response("test", "echo", "häßlich".encode())


def test_thousands_at_the_same_time_each_get_their_own_outcome(broker):
    async def one(initiator, number):
        if number % 100 == 0:
            with pytest.raises(kavri.NoResponder):
                await initiator.request("nobody")
            return str(number)
        return (await initiator.request("test", "echo", str(number))).payload

    async def main():
        async with kavri.aio.Initiator() as initiator:
            payloads = await asyncio.gather(*(one(initiator, number) for number in range(5000)))
            assert payloads == [str(number) for number in range(5000)]
            assert not initiator._endpoint.waiting

    run_loop(main)


def test_the_outcomes_are_told_apart(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator, kavri.aio.Responder("service") as responder:
            for raised, call in {
                kavri.NoResponder: initiator.request("nobody"),
                kavri.TooLarge: initiator.request("test", "echo", "x" * 1_100_000),
                kavri.TimedOut: initiator.request("service", timeout=0.01),
                ValueError: initiator.request("test", "a\0b"),
                TypeError: initiator.send("test", 5),
            }.items():
                with pytest.raises(raised):
                    await call
            await (await responder.receive()).respond("late")
            waiting = asyncio.create_task(initiator.request("service"))
            await (await responder.receive()).end()
            with pytest.raises(kavri.NoAnswer):
                await waiting

    run_loop(main)


def test_one_that_is_too_large_does_not_keep_the_others_back(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            payloads = ["first", "x" * 1_100_000, "last"]
            return await asyncio.gather(
                *(initiator.request("test", "echo", payload) for payload in payloads),
                return_exceptions=True,
            )

    first, large, last = run_loop(main)
    assert (first.payload, type(large), last.payload) == ("first", kavri.TooLarge, "last")


def test_a_request_that_was_cancelled_leaves_nothing_behind(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator, kavri.aio.Responder("service") as responder:
            waiting = asyncio.create_task(initiator.request("service", "cancelled"))
            request = await responder.receive()
            waiting.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiting
            assert not initiator._endpoint.waiting
            await request.respond("nobody waits for it")
            waiting = asyncio.create_task(initiator.request("service", "kept"))
            await (await responder.receive()).respond("kept")
            return (await waiting).payload

    assert run_loop(main) == "kept"


def test_a_request_that_is_cancelled_at_once_is_never_sent(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            await initiator.send("test", "clr_repeat_count")
            caller_is_free = threading.Event()
            initiator._caller.submit(caller_is_free.wait)  # what is posted now has to wait
            waiting = asyncio.create_task(initiator.request("test", "inc_repeat_count"))
            await asyncio.sleep(0)
            waiting.cancel()
            await asyncio.gather(waiting, return_exceptions=True)
            caller_is_free.set()
            return (await initiator.request("test", "get_repeat_count")).payload

    assert run_loop(main) == "0"


def test_events_are_iterated_over(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator, kavri.aio.Responder("weather") as responder:
            async with initiator.events("weather") as events:
                for number in range(100):
                    await responder.publish("rain", str(number))
                got = [(await anext(events)).payload for _ in range(100)]
            assert got == [str(number) for number in range(100)]
            assert initiator._endpoint._subscriptions == {}
            return [event async for event in events]

    assert run_loop(main) == []


def test_iterating_subscribes_by_itself_and_ends_with_the_initiator(broker):
    async def listen(initiator, got):
        async for event in initiator.events("weather"):
            got.append(event.identifier)

    async def main():
        got = []
        async with kavri.aio.Responder("weather") as responder:
            async with kavri.aio.Initiator() as initiator:
                listening = asyncio.create_task(listen(initiator, got))
                while not got:
                    await responder.publish("rain")
                    await asyncio.sleep(0.001)
            await listening
        return got[0]

    assert run_loop(main) == "rain"


def test_a_service_answers_at_the_same_time(broker):
    async def main():
        all_there = asyncio.Event()
        running = set()

        async def answer(request):
            running.add(request.payload)
            if len(running) == 50:
                all_there.set()
            await all_there.wait()
            return request.payload

        async with kavri.aio.Initiator() as initiator:
            async with kavri.aio.Responder("service") as responder:
                serving = asyncio.create_task(responder.serve(answer))
                calls = (initiator.request("service", "", str(number)) for number in range(50))
                answers = [answer.payload for answer in await asyncio.gather(*calls)]
            await serving
        return answers

    assert run_loop(main) == [str(number) for number in range(50)]


def test_no_more_are_handled_at_the_same_time_than_was_said(broker):
    async def main():
        running = 0
        most = 0

        async def answer(request):
            nonlocal running, most
            running += 1
            most = max(most, running)
            await asyncio.sleep(0.001)
            running -= 1
            return ""

        async with kavri.aio.Initiator() as initiator, kavri.aio.Responder("service") as responder:
            serving = asyncio.create_task(responder.serve(answer, concurrency=3))
            await asyncio.gather(*(initiator.request("service") for _ in range(50)))
            await responder.close()
            await serving
        return most

    assert run_loop(main) == 3


def test_a_handler_that_raises_gives_no_answer_and_the_next_is_served(broker, caplog):
    async def answer(request):
        match request.identifier:
            case "raise":
                raise LookupError("of the handler")
            case "number":
                return 5
            case "itself":
                await request.respond("itself")
        return "good" if request.identifier == "good" else None

    async def main():
        async with kavri.aio.Initiator() as initiator, kavri.aio.Responder("service") as responder:
            serving = asyncio.create_task(responder.serve(answer))
            for identifier in ("raise", "number", "none"):
                with pytest.raises(kavri.NoAnswer):
                    await initiator.request("service", identifier)
            for identifier in ("itself", "good"):
                assert (await initiator.request("service", identifier)).payload == identifier
            serving.cancel()
            await asyncio.gather(serving, return_exceptions=True)

    run_loop(main)
    assert [record.exc_info[0] for record in caplog.records] == [LookupError, TypeError]
