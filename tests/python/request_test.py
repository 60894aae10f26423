"""Requests that wait: their answers, the exceptions that a caller tells apart, texts, threads."""

import concurrent.futures
import gc
import os
import signal
import threading
import time

import kavri
import pytest
from conftest import eventually, settled_thread_count, thread_count


def test_an_answer_has_the_fields_of_the_response(initiator):
    answer = initiator.request("test", "echo", "hello", timeout=10)
    assert answer == kavri.Response("test", "echo", b"hello")
    assert answer.payload == "hello"


def test_an_answer_without_a_payload_differs_from_an_empty_one(initiator):
    with kavri.Responder("service") as responder:
        threading.Thread(target=responder.serve, args=(answer_without_payload,)).start()
        assert initiator.request("service", "none").payload_bytes is None
        assert initiator.request("service", "none").payload == ""
        assert initiator.request("service", "empty").payload_bytes == b""


def answer_without_payload(request):
    request.respond(None if request.identifier == "none" else "")


TEXTS = {
    "empty": "",
    "letters": "häßlich",
    "beyond the first plane": "\U0001f980",
    "not UTF-8": "\udcff\udc80",
    "long": "x" * 900_000,
}


@pytest.mark.parametrize("text", TEXTS.values(), ids=TEXTS)
def test_any_text_comes_back_unchanged(initiator, text):
    assert initiator.request("test", "echo", text).payload == text


def test_any_bytes_but_nul_come_back_unchanged(initiator):
    payload = bytes(range(1, 256))
    answer = initiator.request("test", "echo", payload)
    assert answer.payload_bytes == payload
    assert answer.payload.encode("utf-8", "surrogateescape") == payload


@pytest.mark.parametrize("position", range(3))
@pytest.mark.parametrize("nul", ["a\0b", b"\0"], ids=["text", "bytes"])
def test_a_nul_is_refused_before_anything_is_sent(initiator, position, nul):
    texts = ["test", "inc_repeat_count", ""]
    texts[position] = nul
    initiator.send("test", "clr_repeat_count")
    for call in (initiator.request, initiator.send):
        with pytest.raises(ValueError, match="NUL"):
            call(*texts)
    assert initiator.request("test", "get_repeat_count").payload == "0"


def test_what_is_no_text_is_refused(initiator):
    with pytest.raises(TypeError, match="payload must be str or bytes, not int"):
        initiator.request("test", "echo", 5)


def test_a_request_that_nobody_serves_was_not_delivered(initiator):
    with pytest.raises(kavri.NoResponder) as raised:
        initiator.request("nobody", "hello")
    assert isinstance(raised.value, kavri.NotDelivered)
    assert raised.value.status is kavri.Status.IPC_NO_RESPONDER


def test_a_text_that_is_too_large_was_not_delivered(initiator):
    with pytest.raises(kavri.TooLarge):
        initiator.request("test", "echo", "x" * 1_100_000)
    with pytest.raises(kavri.TooLarge):
        initiator.request("test", "x" * 70_000)
    assert initiator.request("test", "echo", "still there").payload == "still there"


def test_no_broker_is_told_from_no_address(tmp_path):
    with pytest.raises(kavri.BrokerUnavailable):
        kavri.Initiator(address=tmp_path / "nobody.sock")
    with pytest.raises(kavri.AddressInvalid):
        kavri.Initiator(address="/" + "x" * 200)
    with pytest.raises(ValueError):
        kavri.Initiator(address="")


@pytest.mark.parametrize("seconds", [0, -1, 5_000_000])
def test_a_time_that_is_none_is_refused(seconds):
    with pytest.raises(ValueError, match="send_timeout"):
        kavri.Initiator(send_timeout=seconds)


def test_an_answer_that_comes_too_late_is_nobodys(initiator):
    with kavri.Responder("slow") as responder:
        with pytest.raises(kavri.TimedOut) as raised:
            initiator.request("slow", "first", timeout=0.01)
        assert isinstance(raised.value, kavri.OutcomeUnknown)
        assert isinstance(raised.value, TimeoutError)
        late = responder.receive(10)
        late.respond("late")
        threading.Thread(target=lambda: responder.receive(10).respond("in time")).start()
        assert initiator.request("slow", "second").payload == "in time"
        assert not initiator._endpoint.waiting


def test_a_request_that_is_ended_has_no_answer(initiator):
    with kavri.Responder("service") as responder:
        threading.Thread(target=lambda: responder.receive(10).end()).start()
        with pytest.raises(kavri.NoAnswer) as raised:
            initiator.request("service", "hello")
        assert not isinstance(raised.value, (kavri.NotDelivered, kavri.OutcomeUnknown))


def test_threads_share_an_initiator_and_each_gets_its_own_outcome(initiator):
    def one(number):
        if number % 10 == 0:
            with pytest.raises(kavri.NoResponder):
                initiator.request(f"nobody {number}", "hello", timeout=60)
            return str(number)
        return initiator.request("test", "echo", str(number), timeout=60).payload

    with concurrent.futures.ThreadPoolExecutor(16) as pool:
        assert list(pool.map(one, range(2000))) == [str(number) for number in range(2000)]


def test_a_failure_does_not_wait_for_requests_sent_later(initiator):
    with kavri.Responder("slow") as responder, concurrent.futures.ThreadPoolExecutor() as pool:
        before = pool.submit(initiator.request, "slow", "before")
        first = responder.receive(10)
        with pytest.raises(kavri.NoResponder):
            initiator.request("nobody", "hello", timeout=10)
        assert not before.done()
        first.respond("done")
        assert before.result(10).payload == "done"


def test_a_signal_interrupts_a_request_that_waits(initiator):
    def interrupt():
        assert responder.receive(10) is not None  # so it is sent
        signal.pthread_kill(main, signal.SIGINT)

    main = threading.main_thread().ident
    with kavri.Responder("slow") as responder:
        threading.Thread(target=interrupt).start()
        with pytest.raises(KeyboardInterrupt):
            initiator.request("slow", "hello")
    assert not initiator._endpoint.waiting


def test_a_closed_initiator_refuses_calls(broker):
    initiator = kavri.Initiator()
    events = initiator.events("test")
    initiator.close()
    initiator.close()
    for call in (initiator.request, initiator.send, initiator.events):
        with pytest.raises(kavri.Closed):
            call("test")
    assert list(events) == []
    events.close()


def test_closing_ends_requests_under_way(broker):
    initiator = kavri.Initiator()
    with kavri.Responder("slow") as responder, concurrent.futures.ThreadPoolExecutor() as pool:
        waiting = [pool.submit(initiator.request, "slow", "hello") for _ in range(4)]
        for _ in waiting:
            assert responder.receive(10) is not None
        initiator.close()
        for each in waiting:
            with pytest.raises(kavri.ConnectionLost):
                each.result(10)


def test_closing_while_threads_send_is_orderly(broker):
    for _ in range(20):
        initiator = kavri.Initiator()
        sending = threading.Barrier(5)

        def send_until_closed(initiator=initiator, sending=sending):
            sending.wait()
            while True:
                initiator.send("test", "inc_repeat_count")

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            threads = [pool.submit(send_until_closed) for _ in range(4)]
            sending.wait()
            initiator.close()
            for thread in threads:
                with pytest.raises(kavri.Closed):
                    thread.result(20)


def test_an_initiator_that_is_garbage_ends(broker):
    before = settled_thread_count()
    initiator = kavri.Initiator()
    initiator.events("test")
    assert thread_count() == before + 1  # the library's
    del initiator
    gc.collect()
    eventually(lambda: thread_count() == before)


def test_a_refusal_of_the_constructor_leaves_nothing_behind(broker, tmp_path):
    with kavri.Responder("taken"):
        before = thread_count(), len(os.listdir("/proc/self/fd"))
        for _ in range(5):
            with pytest.raises(kavri.CategoryTaken):
                kavri.Responder("taken")
            with pytest.raises(kavri.BrokerUnavailable):
                kavri.Initiator(address=tmp_path / "nobody.sock")
        eventually(lambda: (thread_count(), len(os.listdir("/proc/self/fd"))) == before)


def test_a_request_does_not_wait_longer_than_it_may(initiator):
    with kavri.Responder("slow"):
        begin = time.monotonic()
        with pytest.raises(kavri.TimedOut):
            initiator.request("slow", "hello", timeout=0.05)
        assert time.monotonic() - begin >= 0.05
