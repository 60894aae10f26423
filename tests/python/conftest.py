"""What the tests of the Python package share: a broker of their own, in a folder of its own.

Environment: KAVRI_BIN_DIR, the folder of kavri-broker; KAVRI_LIBRARY, as for users.
"""

import asyncio
import gc
import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import time

import kavri
import pytest

BIN = pathlib.Path(os.environ["KAVRI_BIN_DIR"])
# Long enough for a loaded machine, and only ever reached by a test that fails.
PATIENCE = 20.0


def eventually(holds):
    """Waits until `holds()`, and returns what it returns."""
    deadline = time.monotonic() + PATIENCE
    while not (result := holds()):
        assert time.monotonic() < deadline, "it never came true"
        time.sleep(0.002)
    return result


def settled_thread_count():
    """How many threads there are once those of other tests have ended: their own one."""
    gc.collect()
    eventually(lambda: thread_count() == 1)
    return 1


def thread_count():
    return len(os.listdir("/proc/self/task"))


class Program:
    """A program that says on standard error when it is ready."""

    def __init__(self, *command, ready="ready"):
        self.process = subprocess.Popen(command, stderr=subprocess.PIPE)
        said, deadline = b"", time.monotonic() + PATIENCE
        while ready.encode() not in said:
            select.select([self.process.stderr], [], [], deadline - time.monotonic())
            read = os.read(self.process.stderr.fileno(), 4096)
            assert read, f"{command[0]} ended: {said.decode()}"
            said += read

    def end(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        self.process.stderr.close()
        return self.process.wait(PATIENCE)


class Broker:
    def __init__(self, folder):
        self.address = os.path.join(folder, "broker.sock")
        self.program = None
        self.start()

    def start(self):
        self.program = Program(BIN / "kavri-broker", "--socket", self.address, "--test-service")

    def kill(self):
        self.program.end(signal.SIGKILL)
        self.program = None

    def end(self):
        if self.program is not None:
            self.program.end()


@pytest.fixture
def broker(monkeypatch):
    """A broker with the test service, at the address that everybody uses."""
    with tempfile.TemporaryDirectory() as folder:
        made = Broker(folder)
        monkeypatch.setenv("KAVRI_BROKER", made.address)
        monkeypatch.setenv("KAVRI_LOG", "off")
        yield made
        made.end()


@pytest.fixture
def initiator(broker):
    with kavri.Initiator() as made:
        yield made


def run_python(source, *arguments, **options):
    """Runs a program of its own, as a user would; returns what it printed."""
    done = subprocess.run(
        [sys.executable, "-c", source, *arguments], capture_output=True, text=True,
        timeout=PATIENCE, **options
    )
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout + done.stderr


def run_loop(main, *arguments):
    """Runs it in a loop whose own exception handler must not be needed."""

    async def watched():
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(lambda _, context: failures.append(context))
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
