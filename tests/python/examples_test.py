"""The examples, run as their descriptions say; and the code of the document."""

import pathlib
import re
import select
import signal
import subprocess
import sys

import kavri
import pytest
from conftest import PATIENCE

SOURCES = pathlib.Path(__file__).parents[2]
EXAMPLES = SOURCES / "examples/python"
DOCUMENT = SOURCES / "docs/python.md"


def run(name, *arguments):
    return subprocess.run(
        [sys.executable, EXAMPLES / name, *arguments], capture_output=True, text=True,
        timeout=PATIENCE,
    )


class Example:
    """One that runs until it is interrupted, as with Ctrl-C."""

    def __init__(self, name, *arguments):
        self.process = subprocess.Popen(
            [sys.executable, EXAMPLES / name, *arguments], stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
        )

    def line(self):
        ready, _, _ = select.select([self.process.stdout], [], [], PATIENCE)
        assert ready, "it prints nothing"
        return self.process.stdout.readline().rstrip("\n")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGINT)
        _, errors = self.process.communicate(timeout=PATIENCE)
        assert (self.process.returncode, errors) == (0, "")


def test_hello_is_answered(broker):
    with Example("hello_service.py") as service:
        assert service.line() == "serving"
        assert run("hello.py").stdout == "Hello, world!\n"
        assert run("hello.py", "Zoë").stdout == "Hello, Zoë!\n"


def test_hello_says_what_became_of_its_request(broker):
    without_service = run("hello.py")
    assert (without_service.returncode, without_service.stdout) == (1, "")
    assert "nobody got it" in without_service.stderr and "no responder" in without_service.stderr
    broker.kill()
    assert run("hello.py").returncode == 1


def test_a_subscriber_prints_what_the_publisher_publishes(broker):
    with Example("publisher.py", "0.01"):
        done = run("subscriber.py", "3")
        assert re.fullmatch(r"(tick \d\d:\d\d:\d\d\n){3}", done.stdout), done.stderr


def test_a_subscriber_says_when_it_has_missed_events(broker):
    publisher, subscriber = Example("publisher.py", "0.01"), Example("subscriber.py")
    assert subscriber.line().startswith("tick")
    broker.kill()
    broker.start()
    ready, _, _ = select.select([subscriber.process.stderr], [], [], PATIENCE)
    assert ready and "missed what came within" in subscriber.process.stderr.readline()
    for example in (publisher, subscriber):
        example.process.send_signal(signal.SIGINT)
        _, errors = example.process.communicate(timeout=PATIENCE)
        assert example.process.returncode == 0
        assert all(line.startswith(("a tick is lost", "missed")) for line in errors.splitlines())


def test_the_workers_derive_keys(broker, initiator):
    with Example("worker_service.py", "4") as service:
        assert service.line() == "serving"
        keys = {initiator.request("keys", "derive", word).payload for word in ("one", "two")}
        assert {len(key) for key in keys} == {64} and len(keys) == 2
        with pytest.raises(kavri.NoAnswer):
            initiator.request("keys", "destroy")


def test_the_asynchronous_service_passes_requests_on(broker, initiator):
    with Example("async_service.py") as relay:
        assert relay.line() == "serving"
        assert initiator.request("relay", "greet", "x").payload.startswith("no greeting")
        with Example("hello_service.py") as service:
            assert service.line() == "serving"
            for name in ("one", "two"):
                assert initiator.request("relay", "greet", name).payload == f"Hello, {name}!"
        assert initiator.request("relay", "count").payload == "2"


def code_of_the_document():
    return re.findall(r"^```python\n(.*?)^```", DOCUMENT.read_text(), re.MULTILINE | re.DOTALL)


def test_the_documents_code_runs_and_prints_what_it_says(broker):
    """All of its blocks, one after the other, as one program. Its comments "# prints: …" are what
    is printed."""
    source = "".join(code_of_the_document())
    expected = re.findall(r"# prints: (.*)", source)
    assert len(expected) >= 5
    done = subprocess.run(
        [sys.executable, "-c", source], capture_output=True, text=True, timeout=PATIENCE
    )
    assert (done.stdout.splitlines(), done.stderr, done.returncode) == (expected, "", 0)


def test_every_example_is_typed():
    subprocess.run(
        ["/usr/bin/mypy", "--strict", "--cache-dir", "/dev/null", *EXAMPLES.glob("*.py")],
        check=True, env={"MYPYPATH": str(SOURCES / "python"), "PATH": "/usr/bin:/bin"},
    )


def test_the_document_names_every_exception():
    text = DOCUMENT.read_text()
    errors = {
        name for name in kavri.__all__
        if isinstance(getattr(kavri, name), type) and issubclass(getattr(kavri, name), kavri.Error)
    }
    assert {name for name in errors if f"`{name}`" not in text} == set()
