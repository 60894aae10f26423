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


def run(name, *arguments, **options):
    return subprocess.run(
        [sys.executable, EXAMPLES / name, *arguments], capture_output=True, text=True,
        timeout=PATIENCE, **options
    )


class Example:
    """One that runs until it is told to end, and says when it is ready."""

    def __init__(self, name, *arguments):
        self.process = subprocess.Popen(
            [sys.executable, EXAMPLES / name, *arguments], stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, bufsize=0,
        )
        assert self.error_line() == f"{name.removesuffix('.py')}: ready"

    def error_line(self):
        return self.line(self.process.stderr)

    def line(self, stream=None):
        stream = stream or self.process.stdout
        ready, _, _ = select.select([stream], [], [], PATIENCE)
        assert ready, "it prints nothing"
        return stream.readline().decode().rstrip("\n")  # unbuffered: what follows stays there

    def end(self, number):
        self.process.send_signal(number)
        _, errors = self.process.communicate(timeout=PATIENCE)
        assert (self.process.returncode, errors) == (0, b"")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end(signal.SIGTERM)


def test_hello_is_answered(broker):
    with Example("hello_service.py"):
        assert run("hello.py").stdout == "Hello, world!\n"
        assert run("hello.py", "Zoë").stdout == "Hello, Zoë!\n"


def test_hello_says_what_became_of_its_request(broker):
    without_service = run("hello.py")
    assert (without_service.returncode, without_service.stdout) == (1, "")
    assert "try again later" in without_service.stderr and "no responder" in without_service.stderr
    broker.kill()
    assert run("hello.py").returncode == 1


def test_a_subscriber_prints_what_the_publisher_publishes(broker):
    with Example("subscriber.py") as subscriber:
        assert run("publisher.py", input="one\ntwo\n").returncode == 0
        assert [subscriber.line() for _ in range(2)] == ["news line: one", "news line: two"]


def test_a_subscriber_survives_the_broker_and_says_so(broker):
    with Example("subscriber.py") as subscriber:
        broker.kill()
        assert subscriber.error_line().startswith("subscriber: lost the connection: ")
        broker.start()
        assert "events may be missing" in subscriber.error_line()
        run("publisher.py", input="three\n")
        assert subscriber.line() == "news line: three"


def test_a_publisher_survives_the_broker_too(broker, initiator):
    publisher = subprocess.Popen(
        [sys.executable, EXAMPLES / "publisher.py"], stdin=subprocess.PIPE,
        stderr=subprocess.PIPE, text=True, bufsize=1,
    )
    with initiator.events("news") as events:
        while events.get(0.01) is None:  # until it is there
            publisher.stdin.write("before\n")
        broker.kill()
        publisher.stdin.write("lost\n")
        assert "a line is lost" in publisher.stderr.readline()
        broker.start()
        while (event := events.get(0.01)) is None or event.payload != "after":
            publisher.stdin.write("after\n")
    publisher.communicate(timeout=PATIENCE)
    assert publisher.returncode == 0


PRIMES = "168 primes below 1000\n303 primes below 2000\n430 primes below 3000\n"


def test_the_workers_count_primes(broker):
    with Example("primes_service.py", "3"):
        assert run("primes.py", "3").stdout == PRIMES
    without_service = run("primes.py")
    assert (without_service.returncode, without_service.stdout) == (1, "")
    assert "no responder" in without_service.stderr


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("name", ["hello_service.py", "subscriber.py", "primes_service.py"])
def test_it_ends_with_either_signal(broker, name, number):
    Example(name).end(number)


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
