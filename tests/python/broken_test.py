"""What breaks: killed services and brokers, forked processes, interpreters that exit."""

import concurrent.futures
import os
import signal
import sys
import textwrap
import threading

import kavri
import pytest
from conftest import PATIENCE, Program, eventually, run_python

SERVICE = """
import sys, threading, kavri
with kavri.Responder("victim") as responder:
    print("ready", file=sys.stderr, flush=True)
    responder.receive()
    print("received", file=sys.stderr, flush=True)
    threading.Event().wait()
"""


def program(source, *arguments):
    return Program(sys.executable, "-c", textwrap.dedent(source), *arguments)


def connected_events(changes):
    return [change.event.name for change in changes]


def test_a_killed_service_leaves_its_requests_unknown(initiator):
    service = program(SERVICE)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        waiting = [pool.submit(initiator.request, "victim") for _ in range(3)]
        eventually(lambda: b"received" in os.read(service.process.stderr.fileno(), 4096))
        service.end(signal.SIGKILL)
        for each in waiting:
            with pytest.raises(kavri.ResponderLost):
                each.result(PATIENCE)
    with pytest.raises(kavri.NoResponder):
        initiator.request("victim")


def test_a_killed_broker_leaves_requests_unknown_and_what_follows_undelivered(broker):
    with kavri.Initiator() as initiator, kavri.Responder("slow") as responder:
        with concurrent.futures.ThreadPoolExecutor() as pool:
            waiting = [pool.submit(initiator.request, "slow") for _ in range(4)]
            requests = [responder.receive(PATIENCE) for _ in waiting]
            broker.kill()
            for each in waiting:
                with pytest.raises(kavri.ConnectionLost):
                    each.result(PATIENCE)
        with pytest.raises(kavri.BrokerUnavailable):
            initiator.request("slow")
        for request in requests:
            with pytest.raises(kavri.ConnectionLost):
                request.respond("too late")


def test_after_a_restart_everything_is_as_before(broker):
    changes = []
    with (
        kavri.Initiator(on_connection=changes.append) as initiator,
        kavri.Responder("service") as responder,
        initiator.events("service") as events,
    ):
        threading.Thread(target=responder.serve, args=(lambda request: "answer",)).start()
        assert initiator.request("service").payload == "answer"
        broker.kill()
        eventually(lambda: connected_events(changes) == ["MADE", "BROKEN"])
        broker.start()
        eventually(lambda: connected_events(changes) == ["MADE", "BROKEN", "RESTORED"])
        assert changes[1].status == kavri.Status.IPC_CONNECTION_LOST
        assert changes[1].reason and changes[2].disconnected > 0

        def is_served():
            try:
                return initiator.request("service", timeout=PATIENCE).payload == "answer"
            except kavri.NoResponder:  # it has not come back yet
                return False

        eventually(is_served)
        responder.publish("after")
        assert events.get(PATIENCE).identifier == "after"


def test_a_stopped_broker_says_so(broker):
    changes = []
    with kavri.Initiator(on_connection=changes.append):
        broker.program.end()
        broker.program = None
        eventually(lambda: connected_events(changes) == ["MADE", "CLOSED_BY_BROKER"])
        assert changes[1].status == kavri.Status.IPC_BROKER_UNAVAILABLE


FORK = """
    import os, sys, threading, kavri, kavri.aio
    initiator, responder = kavri.Initiator(), kavri.Responder("parent")
    events = initiator.events("test")
    busy = threading.Event()
    def keep_busy():
        while not busy.is_set():
            initiator.request("test", "echo")
    threads = [threading.Thread(target=keep_busy) for _ in range(3)]
    for thread in threads:
        thread.start()
    for _ in range(20):
        child = os.fork()
        if child == 0:
            calls = [lambda: initiator.request("test", "echo"), lambda: initiator.send("test"),
                     lambda: initiator.events("test"), lambda: events.get(1),
                     lambda: responder.receive(1), lambda: responder.publish("event")]
            for call in calls:
                try:
                    call()
                    os._exit(3)
                except kavri.OtherProcess as error:
                    if error.status != kavri.Status.IPC_OTHER_PROCESS: os._exit(4)
            if sys.argv[1] == "close":
                events.close()
                initiator.close()
                responder.close()
            with kavri.Initiator() as own:
                if own.request("test", "echo", "child").payload != "child": os._exit(5)
            sys.exit(0)
        _, status = os.waitpid(child, 0)
        assert status == 0, status
    busy.set()
    for thread in threads:
        thread.join()
    assert initiator.request("test", "echo", "parent").payload == "parent"
    with initiator.events("parent") as own:
        responder.publish("still there")
        assert own.get(10).identifier == "still there"
"""


@pytest.mark.parametrize("end", ["close", "leave"])
def test_a_forked_child_leaves_the_parents_objects_alone(broker, end):
    assert run_python(textwrap.dedent(FORK), end) == ""


EXITS = {
    "open": "",
    "events arriving": """
        events = initiator.events("test")
        for _ in range(1000): initiator.send("test", "event")
    """,
    "a thread that waits": """
        with kavri.Responder("slow") as responder:
            thread = threading.Thread(target=wait, daemon=True)
            thread.start()
            responder.receive(10)
            responder = None
    """,
    "a thread that sends": """
        def send():
            try:
                while True: initiator.send("test", "inc_repeat_count")
            except kavri.Closed: pass
        threading.Thread(target=send, daemon=True).start()
    """,
    "requests nobody takes": """
        responder = kavri.Responder("idle", limit=1)
        for _ in range(10): initiator.send("idle")
    """,
    "an exception": """
        import atexit; atexit.register(lambda: initiator.request("test", "echo"))
    """,
    "a loop that is gone": """
        import asyncio, kavri.aio
        async def main():
            global kept, events
            kept = await kavri.aio.Initiator().open()
            events = kept.events("test")
            await events.open()
        asyncio.run(main())
        for _ in range(100): initiator.send("test", "event")
        initiator.request("test", "echo")
    """,
}


@pytest.mark.parametrize("work", EXITS.values(), ids=EXITS)
def test_the_interpreter_exits_with_live_objects(broker, work):
    source = """
        import threading, kavri
        def wait():
            try: initiator.request("slow")
            except kavri.Error: pass
        initiator = kavri.Initiator(on_connection=lambda change: None)
    """
    assert run_python(textwrap.dedent(source) + textwrap.dedent(work)) == ""


def test_a_signal_handler_may_close_the_responder(broker):
    service = program("""
        import signal, sys, kavri
        responder = kavri.Responder("service")
        signal.signal(signal.SIGTERM, lambda *_: responder.close())
        print("ready", file=sys.stderr, flush=True)
        responder.serve(lambda request: request.payload)
        responder.close()
    """)
    with kavri.Initiator() as initiator:
        assert initiator.request("service", "", "hello").payload == "hello"
    assert service.end(signal.SIGTERM) == 0
