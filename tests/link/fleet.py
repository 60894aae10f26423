"""A fleet: machines, each with a nats-server and a broker, the servers joined to a cluster.

The network is one of two forms with the same interface: namespaces.py, or loopback.py where
namespaces may not be made. Everything lives in one temporary folder, and ends with `close`.
"""

import contextlib
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

import loopback
import namespaces
from conditions import CUT, SOUND

# Only ever reached by a test that fails.
PATIENCE = 30.0
POLL_INTERVAL = 0.02
NAMES = ("alpha", "beta", "gamma")


def eventually(holds, what="it", within=PATIENCE):
    """Waits until `holds()`, and returns what it returns."""
    deadline = time.monotonic() + within
    while not (result := holds()):
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} did not come true within {within:.0f} s")
        time.sleep(POLL_INTERVAL)
    return result


def best_network():
    """The form that is possible here; says why where it is the lesser one. A program that calls
    this is run a second time, in namespaces of its own."""
    if namespaces.is_entered():
        return namespaces.Network
    reason = namespaces.reason_against()
    if reason is None:
        namespaces.enter()
    print(f"no network namespaces, skipped, on the loopback instead: {reason}", file=sys.stderr,
          flush=True)
    return loopback.Network


class Process:
    """A program whose standard error is a file, in which it says when it is ready."""

    def __init__(self, command, log, ready, **options):
        self.log = log
        self._said = log.stat().st_size if log.exists() else 0
        with open(log, "ab") as file:
            self._process = subprocess.Popen(command, stderr=file, **options)
        try:
            eventually(lambda: ready in self.output() or not self.is_running(), f"{command}")
        except BaseException:
            self.end(signal.SIGKILL)
            raise
        if not self.is_running():
            raise AssertionError(f"{command} ended: {self.output()}")

    @property
    def pid(self):
        return self._process.pid

    @property
    def stdin(self):
        return self._process.stdin

    def output(self):
        """What it has said so far."""
        with open(self.log, encoding="utf-8", errors="replace") as file:
            file.seek(self._said)
            return file.read()

    def is_running(self):
        return self._process.poll() is None

    def send(self, number):
        self._process.send_signal(number)

    def wait(self):
        return self._process.wait(PATIENCE)

    def end(self, number=signal.SIGTERM):
        """Its exit status."""
        self._process.send_signal(number)
        self._process.send_signal(signal.SIGCONT)  # where it was stopped
        try:
            return self.wait()
        except subprocess.TimeoutExpired:
            self._process.kill()
            raise
        finally:
            if self._process.stdin is not None:
                self._process.stdin.close()


class Machine:
    """One machine of a fleet; its parts are started and ended one by one."""

    def __init__(self, fleet, name):
        self.fleet, self.name = fleet, name
        self.folder = fleet.folder / name
        self.folder.mkdir()
        self.socket = self.folder / "broker.sock"
        self.record = self.folder / "record"
        self.server = self.broker = None

    def start_server(self, further=""):
        for old in self.folder.glob("*.ports"):
            old.unlink()
        configuration = self.folder / "nats.conf"
        configuration.write_text(
            f"server_name: {self.name}\nports_file_dir: \"{self.folder}\"\n"
            + self.fleet.network.server_settings(self.name) + self.fleet.server_settings + further)
        self.server = self._start("server", ["nats-server", "--config", configuration],
                                  "Server is ready")
        ports = eventually(self._ports, "the server's ports file")
        self.fleet.network.server_started(self.name, ports)

    def start_broker(self, *arguments, link=""):
        """link: further lines of its [link]."""
        configuration = self.folder / "broker.toml"
        configuration.write_text(self.fleet.broker_settings(self, link))
        self.broker = self._start(
            "broker", [self.fleet.programs / "kavri-broker", "--socket", self.socket, "--config",
                       configuration, *arguments], "ready")

    def start_test_service(self):
        """As a program of its own, with a record. Returns the process."""
        return self._start(
            "service", [self.fleet.programs / "kavri-test-service", "--socket", self.socket,
                        "--service-record", self.record], "ready")

    def broker_starts(self):
        return (self.folder / "broker.log").read_text().count("kavri-broker: ready")

    def linked_to(self):
        """The machine whose server the broker is connected to."""
        address = eventually(lambda: re.findall(r"the link is up, by server (\S+)",
                                                self.broker.output()), "a link")[-1]
        others = [name for name in self.fleet.machines if name != self.name]
        servers = self.fleet.network.servers_for(self.name)
        return self.fleet[[self.name, *others][servers.index(address)]]

    def kavri(self, *arguments, **options):
        """Runs the tool, which talks to this machine's broker."""
        command, *further = arguments
        return subprocess.run(
            self.fleet.network.command(
                self.name, [self.fleet.programs / "kavri", command, "--socket", self.socket,
                            *further]),
            capture_output=True, text=True, timeout=120, **options)

    def request(self, category, command, payload="", timeout=10):
        return self.kavri("request", category, command, payload, "--timeout", str(timeout))

    def answers(self, category="test"):
        """Whether a request from here to the category is answered."""
        return self.request(category, "echo", "x", 2).stdout.rstrip("\n") == "x"

    def serves(self, category="test"):
        """Whether a responder for the category is connected here."""
        status = json.loads(self.kavri("status", "--json").stdout)
        return any(each["name"] == category and each["served_by"] == "responder"
                   for each in status["categories"])

    def monitored(self, what):
        """A page of what the server says of itself: "routez", say."""
        with self.fleet.network.connect(self.name, monitoring=True) as peer:
            peer.sendall(b"GET /%s HTTP/1.0\r\n\r\n" % what.encode())
            with peer.makefile("rb") as answer:
                return json.loads(answer.read().partition(b"\r\n\r\n")[2])

    def end(self, part, number=signal.SIGTERM):
        """part: "server" or "broker"."""
        process = getattr(self, part)
        setattr(self, part, None)
        return process.end(number)

    def _start(self, title, command, ready):
        return self.fleet.start(self.name, command, self.folder / f"{title}.log", ready)

    def _ports(self):
        for file in self.folder.glob("*.ports"):
            with contextlib.suppress(ValueError):
                return json.loads(file.read_text())
        return None


class Fleet:
    """Machines with servers that have found each other; brokers are started by the tests.

    programs: the folder of kavri-broker and the tool. server_settings: further lines of each
    server's configuration."""

    def __init__(self, programs, network, names=NAMES, server_settings="", seed=0):
        self.programs = pathlib.Path(programs)
        self.server_settings = server_settings
        self._started = []
        with contextlib.ExitStack() as undo:
            self.folder = pathlib.Path(undo.enter_context(tempfile.TemporaryDirectory()))
            self.network = network(names, self.folder, seed)
            undo.callback(self.network.close)
            undo.callback(self._end_all)
            self.machines = {name: Machine(self, name) for name in names}
            for machine in self:
                machine.start_server()
            self.wait_for_cluster()
            self._ending = undo.pop_all()

    def __iter__(self):
        return iter(self.machines.values())

    def __getitem__(self, name):
        return self.machines[name]

    def close(self):
        self._ending.close()

    def start(self, name, command, log, ready, **options):
        """A program on a machine. It ends with the fleet at the latest."""
        process = Process(self.network.command(name, command), log, ready, **options)
        self._started.append(process)
        return process

    def _end_all(self):
        for process in reversed(self._started):
            if process.is_running():
                process.end(signal.SIGKILL)

    def wait_for_cluster(self):
        others = sum(machine.server is not None for machine in self) - 1
        for machine in self:
            if machine.server is not None:
                eventually(lambda: machine.monitored("routez")["num_routes"] >= others, f"the routes of {machine.name}")

    def broker_settings(self, machine, link="", name=None):
        """Of a broker on that machine, which has the machine's name unless it is given one."""
        servers = json.dumps(self.network.servers_for(machine.name))
        return (f"[link]\nservers = {servers}\nname = \"{name or machine.name}\"\n"
                f"export = [\"test\"]\nimport = [\"test\"]\n{link}\n"
                "[access.category.\"test\"]\nserve = [\"*\", \"@link\"]\n"
                "send = [\"*\", \"@link\"]\nsubscribe = [\"*\", \"@link\"]\n")

    def cut_off(self, name, outgoing=True, incoming=True):
        """Nothing comes from that machine, or reaches it, any more."""
        self._change(CUT, name, outgoing, incoming)

    def restore(self, name):
        self._change(SOUND, name, True, True)

    def change_all(self, way):
        self.network.ways.change(way)

    def _change(self, way, name, outgoing, incoming):
        if outgoing:
            self.network.ways.change(way, sender=name)
        if incoming:
            self.network.ways.change(way, receiver=name)
