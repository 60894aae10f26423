"""A responder with threads, and the events that it publishes."""

import concurrent.futures
import logging
import subprocess
import sys
import threading
import time

import kavri
import pytest
from conftest import PATIENCE, eventually


@pytest.fixture
def responder(broker):
    with kavri.Responder("service") as made:
        yield made


def serving(responder, handler, **options):
    thread = threading.Thread(target=responder.serve, args=(handler,), kwargs=options)
    thread.start()
    return thread


def test_a_request_has_the_fields_that_were_sent(initiator, responder):
    with concurrent.futures.ThreadPoolExecutor() as pool:
        answer = pool.submit(initiator.request, "service", "häßlich", b"\xff")
        request = responder.receive(10)
        assert (request.category, request.identifier) == ("service", "häßlich")
        assert (request.payload, request.payload_bytes) == ("\udcff", b"\xff")
        assert request.uuid and not request.is_over
        request.respond("done")
        assert request.is_over
        assert answer.result(10).payload == "done"


CLOSED_BY_SIGNALS = """
import itertools, signal
from kavri._mailbox import Mailbox, MailboxClosed

def close(*_):
    if not mailbox._closed:
        mailbox.close()

signal.signal(signal.SIGALRM, close)
for microseconds in itertools.islice(itertools.cycle(range(20, 80)), 6000):
    mailbox = Mailbox(1, drops=False)
    # The second signal is for Python itself: it runs no handler of a signal that comes when it
    # is about to wait, until another one comes.
    signal.setitimer(signal.ITIMER_REAL, microseconds / 1e6, 0.01)
    try:
        mailbox.get()
        raise SystemExit("it got something")
    except MailboxClosed:
        pass
signal.setitimer(signal.ITIMER_REAL, 0)
"""


def test_a_signal_handler_may_close_just_before_the_wait():
    subprocess.run([sys.executable, "-c", CLOSED_BY_SIGNALS], check=True, timeout=PATIENCE)


def test_nothing_to_receive_is_none(responder):
    assert responder.receive(0) is None
    assert responder.receive(0.01) is None


def test_a_category_is_served_once(responder):
    with pytest.raises(kavri.CategoryTaken):
        kavri.Responder("service")


def test_what_a_handler_returns_is_the_answer(initiator, responder):
    thread = serving(responder, lambda request: request.payload.upper())
    assert initiator.request("service", "", "hello").payload == "HELLO"
    responder.close()
    thread.join(10)
    assert not thread.is_alive()


def test_a_handler_may_answer_itself_or_not_at_all(initiator, responder):
    serving(responder, lambda request: request.respond("itself") if request.payload else None)
    assert initiator.request("service", "", "answer").payload == "itself"
    with pytest.raises(kavri.NoAnswer):
        initiator.request("service", "", "")


def fail(request):
    if request.identifier == "fail":
        raise LookupError("of the handler")
    return 5 if request.identifier == "number" else "good"


def test_a_handler_that_raises_gives_no_answer_and_the_next_is_served(initiator, responder, caplog):
    serving(responder, fail)
    for identifier in ("fail", "number"):
        with pytest.raises(kavri.NoAnswer):
            initiator.request("service", identifier)
    assert initiator.request("service").payload == "good"
    assert [record.exc_info[0] for record in caplog.records] == [LookupError, TypeError]


def test_a_nul_in_an_answer_is_refused_and_the_request_stays(initiator, responder):
    with concurrent.futures.ThreadPoolExecutor() as pool:
        answer = pool.submit(initiator.request, "service")
        request = responder.receive(10)
        with pytest.raises(ValueError, match="NUL"):
            request.respond("a\0b")
        with pytest.raises(kavri.TooLarge):
            request.respond("x" * 1_100_000)
        assert not request.is_over
        request.respond("good")
        assert answer.result(10).payload == "good"


def test_workers_answer_at_the_same_time(initiator, responder):
    together = threading.Barrier(4)

    def answer(request):
        together.wait(10)  # passes only when four handlers run
        return request.payload

    serving(responder, answer, workers=4)
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        answers = pool.map(lambda number: initiator.request("service", "", str(number)), range(40))
        assert [answer.payload for answer in answers] == [str(number) for number in range(40)]


def test_an_interrupt_in_a_handler_ends_the_serving(initiator, responder):
    def interrupted(request):
        raise KeyboardInterrupt

    initiator.send("service")
    with pytest.raises(KeyboardInterrupt):
        responder.serve(interrupted, workers=3)
    with pytest.raises(kavri.Closed):
        responder.publish("event")


def test_requests_that_are_not_answered_are_lost_with_the_responder(initiator, responder):
    with concurrent.futures.ThreadPoolExecutor() as pool:
        answer = pool.submit(initiator.request, "service")
        request = responder.receive(10)
        responder.close()
        with pytest.raises(kavri.ResponderLost):
            answer.result(10)
    with pytest.raises(kavri.Closed):
        request.respond("late")
    assert responder.receive() is None


def test_more_requests_than_the_limit_wait_without_being_lost(initiator):
    with kavri.Responder("narrow", limit=2) as narrow:
        for number in range(500):
            initiator.send("narrow", "", str(number))
        eventually(lambda: narrow._endpoint.requests._items.qsize() == 2)
        assert [narrow.receive(10).payload for _ in range(500)] == [str(n) for n in range(500)]


def test_a_responder_whose_queue_is_full_can_be_closed(initiator):
    with kavri.Responder("narrow", limit=1) as narrow:
        for _ in range(5):
            initiator.send("narrow")
        eventually(lambda: narrow._endpoint._callback_thread != 0)  # its thread waits for room


def test_every_subscription_gets_every_event_in_order(initiator, responder):
    with initiator.events("service") as first, initiator.events("service") as second:
        for number in range(100):
            responder.publish("count", str(number))
        for events in (first, second):
            assert [events.get(10).payload for _ in range(100)] == [str(n) for n in range(100)]
            assert events.get(0) is None


def test_events_are_of_the_category_alone(initiator, responder):
    with initiator.events("service") as events, initiator.events("test") as others:
        initiator.request("test", "echo")
        responder.publish("mine", b"\xfe")
        assert events.get(10) == kavri.Event("service", "mine", b"\xfe")
        assert others.get(0) is None


def test_a_closed_subscription_ends_and_the_other_goes_on(initiator, responder):
    first, second = initiator.events("service"), initiator.events("service")
    responder.publish("one")
    eventually(lambda: first._events._items.qsize() == 1)
    first.close()
    first.close()
    responder.publish("two")
    assert [event.identifier for event in first] == ["one"]
    assert [second.get(10).identifier for _ in range(2)] == ["one", "two"]
    second.close()
    assert initiator._endpoint._subscriptions == {}


def test_closing_a_subscription_while_its_initiator_is_closed_is_no_error(broker):
    for _ in range(50):
        initiator = kavri.Initiator()
        events = initiator.events("service")
        closing = threading.Thread(target=initiator.close)
        closing.start()
        events.close()
        closing.join()
        assert list(events) == []


def test_of_too_many_events_the_oldest_are_dropped_and_counted(initiator, responder):
    with initiator.events("service", limit=10) as events:
        for number in range(100):
            responder.publish("count", str(number))
        eventually(lambda: events.dropped == 90)
        assert [events.get(10).payload for _ in range(10)] == [str(n) for n in range(90, 100)]


def test_a_subscription_that_was_dropped_gets_nothing(initiator, responder):
    events = initiator.events("service")
    del events
    with initiator.events("service") as others:
        responder.publish("one")
        assert others.get(10).identifier == "one"
    assert initiator._endpoint._subscriptions == {}


@pytest.mark.parametrize("text", ["", "a\0b"], ids=["empty", "NUL"])
def test_what_is_no_category_is_refused(initiator, text):
    with pytest.raises((ValueError, kavri.Error)):
        initiator.events(text)
    with pytest.raises((ValueError, kavri.Error)):
        kavri.Responder(text)


def test_waiting_for_an_event_ends_in_time(initiator):
    with initiator.events("service") as events:
        begin = time.monotonic()
        assert events.get(0.02) is None
        assert time.monotonic() - begin >= 0.02


def test_a_connection_callback_that_raises_is_logged_and_harmless(broker, caplog):
    def fail(change):
        raise LookupError("of the callback")

    with caplog.at_level(logging.ERROR, "kavri"), kavri.Initiator(on_connection=fail) as initiator:
        assert initiator.request("test", "echo", "hello").payload == "hello"
        eventually(lambda: caplog.records)
    assert caplog.records[0].exc_info[0] is LookupError


def test_a_connection_callback_may_send_but_not_wait(broker):
    caught = []

    def wait(change):
        initiator_is_there.wait(10)
        initiator.send("test", "clr_repeat_count")
        for call in (lambda: initiator.request("test", "echo"), lambda: initiator.events("test")):
            try:
                call()
            except RuntimeError as error:
                caught.append(error)

    initiator_is_there = threading.Event()
    with kavri.Initiator(on_connection=wait) as initiator:
        initiator_is_there.set()
        eventually(lambda: len(caught) == 2)


def test_an_initiator_may_be_closed_in_its_connection_callback(broker):
    def close(change):
        initiator_is_there.wait(10)
        initiator.close()

    initiator_is_there = threading.Event()
    initiator = kavri.Initiator(on_connection=close)
    initiator_is_there.set()
    eventually(lambda: initiator._endpoint._ended.is_set())
    with pytest.raises(kavri.Closed):
        initiator.send("test")
