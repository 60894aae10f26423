"""The life of what asyncio uses: opening, closing, lost connections, loops, threads, forks."""

import asyncio
import concurrent.futures
import gc
import logging
import os
import signal

import kavri
import kavri.aio
import pytest
from conftest import PATIENCE, eventually, run_loop, settled_thread_count, thread_count, until


def test_the_loop_goes_on_while_the_library_blocks(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            os.kill(broker.program.process.pid, signal.SIGSTOP)  # stopped: it acknowledges nothing
            try:
                subscribing = asyncio.create_task(initiator.events("test").open())
                for _ in range(20):
                    await asyncio.sleep(0.001)
                assert not subscribing.done()
            finally:
                os.kill(broker.program.process.pid, signal.SIGCONT)
            await subscribing

    run_loop(main)


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

    run_loop(main)
    assert [change.event.name for change in changes] == ["MADE", "BROKEN", "RESTORED"]


def test_a_connection_callback_that_raises_reaches_the_loops_handler(broker):
    def fail(change):
        raise LookupError("of the callback")

    async def main():
        contexts = []
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(lambda _, context: contexts.append(context))
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

    run_loop(main)


def test_closing_ends_requests_under_way(broker):
    async def main():
        async with kavri.aio.Responder("slow") as responder:
            async with kavri.aio.Initiator() as initiator:
                waiting = [asyncio.create_task(initiator.request("slow")) for _ in range(20)]
                for _ in waiting:
                    await responder.receive()
            results = await asyncio.gather(*waiting, return_exceptions=True)
            assert {type(result) for result in results} == {kavri.ConnectionLost}

    run_loop(main)


def test_a_failure_to_open_is_the_callers(tmp_path):
    async def main():
        with pytest.raises(kavri.BrokerUnavailable):
            async with kavri.aio.Initiator(address=tmp_path / "nobody.sock"):
                pass

    run_loop(main)


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
            eventually(lambda: events._mailbox._items.qsize() == 100)


def test_threads_end_with_their_objects(broker):
    async def main():
        async with kavri.aio.Initiator() as initiator:
            await initiator.request("test", "echo")

    before = settled_thread_count()
    for _ in range(10):
        run_loop(main)
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

    assert run_loop(main) == 0


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

    assert run_loop(main) == "abab"


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
        run_loop(main)
    assert len(caplog.records) == 1
