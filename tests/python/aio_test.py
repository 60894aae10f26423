"""Initiator and responder for asyncio."""

import asyncio
import concurrent.futures
import gc
import logging
import os
import threading
import time

import kavri
import kavri.aio
import pytest
from conftest import PATIENCE, eventually, settled_thread_count, thread_count


def run(main, *arguments):
    """Runs it in a loop whose own exception handler must not be needed."""

    async def watched():
        asyncio.get_running_loop().set_exception_handler(lambda _, context: failures.append(context))
        return await asyncio.wait_for(main(*arguments), PATIENCE)

    failures = []
    result = asyncio.run(watched())
    gc.collect()
    assert failures == []
    return result


async def until(holds):
    deadline = time.monotonic() + PATIENCE
    while not holds():
        assert time.monotonic() < deadline, "it never came true"
        await asyncio.sleep(0.002)


def test_a_request_is_answered(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            return await initiator.request("test", "echo", "häßlich")

    assert run(main) == kavri.Response("test", "echo", "häßlich".encode())


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

    run(main)


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

    run(main)


def test_one_that_is_too_large_does_not_keep_the_others_back(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            payloads = ["first", "x" * 1_100_000, "last"]
            return await asyncio.gather(
                *(initiator.request("test", "echo", payload) for payload in payloads),
                return_exceptions=True,
            )

    first, large, last = run(main)
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

    assert run(main) == "kept"


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

    assert run(main) == "0"


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

    assert run(main) == []


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

    assert run(main) == "rain"


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

    assert run(main) == [str(number) for number in range(50)]


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

    assert run(main) == 3


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

    run(main)
    assert [record.exc_info[0] for record in caplog.records] == [LookupError, TypeError]


def test_the_loop_goes_on_while_the_library_blocks(broker, monkeypatch):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            os.kill(broker.program.process.pid, 19)  # stopped: it acknowledges nothing
            try:
                subscribing = asyncio.create_task(initiator.events("test").open())
                for _ in range(20):
                    await asyncio.sleep(0.001)
                assert not subscribing.done()
            finally:
                os.kill(broker.program.process.pid, 18)
            await subscribing

    run(main)


def test_a_killed_broker_and_its_return_are_noticed(broker):
    changes = []

    async def main():
        async with kavri.aio.Initiator(on_connection=changes.append) as initiator:
            async with kavri.aio.Responder("slow") as responder, initiator.events("slow") as events:
                waiting = [asyncio.create_task(initiator.request("slow")) for _ in range(100)]
                for _ in waiting:
                    await responder.receive()
                broker.kill()
                results = await asyncio.gather(*waiting, return_exceptions=True)
                assert {type(result) for result in results} == {kavri.ConnectionLost}
                with pytest.raises(kavri.BrokerUnavailable):
                    await initiator.request("slow")
                broker.start()
                await until(lambda: len(changes) == 3)
                while True:
                    try:
                        await responder.publish("after")
                        break
                    except kavri.Error:
                        await asyncio.sleep(0.005)
                assert (await anext(events)).identifier == "after"

    run(main)
    assert [change.event.name for change in changes] == ["MADE", "BROKEN", "RESTORED"]


def test_a_connection_callback_that_raises_reaches_the_loops_handler(broker):
    def fail(change):
        raise LookupError("of the callback")

    async def main():
        contexts = []
        asyncio.get_running_loop().set_exception_handler(lambda _, context: contexts.append(context))
        async with kavri.aio.Initiator(on_connection=fail) as initiator:
            await initiator.request("test", "echo")
            await until(lambda: contexts)
        return contexts[0]["exception"]

    assert isinstance(asyncio.run(main()), LookupError)


def test_what_is_closed_or_was_never_opened_refuses_calls(broker):
    async def main():
        closed = await kavri.aio.Initiator().open()
        await closed.close()
        await closed.close()
        for initiator in (closed, kavri.aio.Initiator()):
            for call in (initiator.request("test"), initiator.send("test"),
                         anext(initiator.events("test"))):
                with pytest.raises(kavri.Closed):
                    await call
        with pytest.raises(RuntimeError):
            await closed.open()
        async with kavri.aio.Responder("service") as responder:
            pass
        for call in (responder.publish("event"), responder.receive()):
            with pytest.raises(kavri.Closed):
                await call
        assert [request async for request in responder] == []

    run(main)


def test_closing_ends_requests_under_way(broker):
    async def main():
        async with kavri.aio.Responder("slow") as responder:
            async with kavri.aio.Initiator() as initiator:
                waiting = [asyncio.create_task(initiator.request("slow")) for _ in range(20)]
                for _ in waiting:
                    await responder.receive()
            results = await asyncio.gather(*waiting, return_exceptions=True)
            assert {type(result) for result in results} == {kavri.ConnectionLost}

    run(main)


def test_a_failure_to_open_is_the_callers(tmp_path):
    async def main():
        with pytest.raises(kavri.BrokerUnavailable):
            async with kavri.aio.Initiator(address=tmp_path / "nobody.sock"):
                pass

    run(main)


def test_opening_that_was_cancelled_leaves_no_connection(broker):
    async def main():
        for _ in range(10):
            opening = asyncio.create_task(kavri.aio.Responder("service").open())
            await asyncio.sleep(0)
            opening.cancel()
            await asyncio.gather(opening, return_exceptions=True)

    gc.disable()  # it does not depend on who collects when
    try:
        asyncio.run(main())
    finally:
        gc.enable()

    def is_free():
        try:
            kavri.Responder("service").close()
        except kavri.CategoryTaken:
            return False
        return True

    eventually(is_free)


def test_events_that_arrive_after_the_loop_was_closed_are_dropped(broker):
    async def main():
        initiator = await kavri.aio.Initiator().open()
        await initiator.events("weather").open()
        events = initiator.events("weather")
        await events.open()
        return initiator, events

    kept, events = asyncio.run(main())
    with kavri.Responder("weather") as responder, kavri.Initiator() as sync:
        with sync.events("weather") as others:
            for _ in range(100):
                responder.publish("rain")
            assert all(others.get(PATIENCE) for _ in range(100))
            eventually(lambda: len(events._mailbox._items) == 100)


def test_threads_end_with_their_objects(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            await initiator.request("test", "echo")

    before = settled_thread_count()
    for _ in range(10):
        run(main)
    eventually(lambda: thread_count() == before)


def test_a_forked_child_is_refused(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            await initiator.request("test", "echo")
            child = os.fork()
            if child == 0:
                try:
                    await initiator.request("test", "echo")
                except kavri.OtherProcess:
                    await initiator.close()
                    os._exit(0)
                os._exit(1)
            return os.waitpid(child, 0)[1]

    assert run(main) == 0


def test_blocking_and_asynchronous_objects_work_together(broker):
    async def answer(request):
        return request.payload * 2

    async def main():
        with kavri.Initiator() as initiator, concurrent.futures.ThreadPoolExecutor() as pool:
            async with kavri.aio.Responder("service") as responder:
                serving = asyncio.create_task(responder.serve(answer))
                loop = asyncio.get_running_loop()
                call = loop.run_in_executor(pool, initiator.request, "service", "", "ab")
                payload = (await call).payload
            await serving
        return payload

    assert run(main) == "abab"


def test_a_late_answer_of_a_handler_is_a_warning(broker, caplog):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            async with kavri.aio.Responder("service") as responder:
                begun, closed = asyncio.Event(), asyncio.Event()

                async def answer(request):
                    begun.set()
                    await closed.wait()
                    return "late"

                serving = asyncio.create_task(responder.serve(answer))
                waiting = asyncio.create_task(initiator.request("service"))
                await begun.wait()
                await responder.close()
                closed.set()
                await serving
                with pytest.raises(kavri.ResponderLost):
                    await waiting

    with caplog.at_level(logging.WARNING, "kavri"):
        run(main)
    assert len(caplog.records) == 1
