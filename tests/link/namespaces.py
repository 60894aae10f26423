"""Machines as network namespaces, joined by a switch that loses and delays frames as it is told.

The test becomes the first process of namespaces of its own (users, processes, mounts, network),
so that it needs no rights on most systems, never touches the network of its host, and whatever
it started ends with it. In it each machine has a network namespace with one device, a TAP,
whose frames the switch reads and passes on. Delays and losses are made here and not by the
kernel's netem, which not every kernel has.
"""

import contextlib
import ctypes
import fcntl
import heapq
import itertools
import os
import random
import select
import socket
import struct
import subprocess
import sys
import threading
import time

from conditions import Ways

MARK = "KAVRI_TEST_IN_NAMESPACES"
UNSHARE = ["unshare", "--user", "--map-root-user", "--net", "--mount", "--pid", "--fork",
           "--kill-child", "--mount-proc"]
# What machines need, tried in namespaces like theirs: a folder to name theirs in, and a device.
TRIAL = "mount -t tmpfs none /run && ip netns add trial && ip tuntap add dev trial mode tap"

CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TAP, IFF_NO_PI = 0x0002, 0x1000
FRAME_BYTES = 65536
DEVICE = "eth0"


def reason_against():
    """Why this form is not possible here; None where it is."""
    try:
        tried = subprocess.run([*UNSHARE, "sh", "-c", TRIAL], capture_output=True, text=True,
                               timeout=20)
    except (OSError, subprocess.TimeoutExpired) as failure:
        return str(failure)
    return None if tried.returncode == 0 else tried.stderr.strip().replace("\n", "; ")


def is_entered():
    return MARK in os.environ


def enter():
    """Runs this program again, in namespaces of its own. Does not return."""
    os.execvpe(UNSHARE[0], [*UNSHARE, sys.executable, *sys.argv], {**os.environ, MARK: "1"})


def run(*command):
    subprocess.run(command, check=True)


def enter_network(descriptor):
    """Of the calling thread alone."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


class Namespace:
    """The network of one machine: its name, its address, and its end of the wire."""

    def __init__(self, name, number):
        self.name = name
        self.path = f"/run/netns/{name}"
        self.address = f"10.77.0.{number}"
        self.hardware_address = bytes([2, 0, 0, 0, 0, number])
        run("ip", "netns", "add", name)
        with self.entered():
            self.device = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
            fcntl.ioctl(self.device, TUNSETIFF,
                        struct.pack("16sH", DEVICE.encode(), IFF_TAP | IFF_NO_PI))
        self.ip("link", "set", DEVICE, "address", self.hardware_address.hex(":"))
        self.ip("address", "add", f"{self.address}/24", "dev", DEVICE)
        self.ip("link", "set", DEVICE, "up")
        self.ip("link", "set", "lo", "up")

    def ip(self, *arguments):
        run("ip", "-netns", self.name, *arguments)

    @contextlib.contextmanager
    def entered(self):
        with open("/proc/thread-self/ns/net") as before, open(self.path) as ours:
            enter_network(ours.fileno())
            try:
                yield
            finally:
                enter_network(before.fileno())

    def close(self):
        os.close(self.device)
        run("ip", "netns", "delete", self.name)


class Switch(threading.Thread):
    """Passes frames from machine to machine."""

    def __init__(self, namespaces, ways, seed):
        super().__init__(name="switch")
        self._ways = ways
        self._by_device = {each.device: each for each in namespaces}
        self._by_address = {each.hardware_address: each for each in namespaces}
        self._random = random.Random(seed)
        self._waiting = []  # (when, number, receiver, frame): a heap
        self._numbers = itertools.count()
        self._end, self._ended = os.pipe()
        self.start()

    def run(self):
        poll = select.poll()
        for descriptor in (*self._by_device, self._end):
            poll.register(descriptor, select.POLLIN)
        while True:
            for descriptor, _ in poll.poll(self._until_next()):
                if descriptor == self._end:
                    return
                self._take(self._by_device[descriptor])
            self._pass_on()

    def close(self):
        os.close(self._ended)
        self.join()
        os.close(self._end)

    def _until_next(self):
        if not self._waiting:
            return None
        return max(0.0, self._waiting[0][0] - time.monotonic()) * 1000

    def _take(self, sender):
        with contextlib.suppress(BlockingIOError):
            while frame := os.read(sender.device, FRAME_BYTES):
                receiver = self._by_address.get(frame[:6])
                receivers = self._by_device.values() if receiver is None else [receiver]
                for each in receivers:
                    if each is not sender:
                        self._send(sender, each, frame)

    def _send(self, sender, receiver, frame):
        way = self._ways.between(sender.name, receiver.name)
        if not way.is_open or (way.loss and self._random.random() < way.loss):
            return
        if way.delay:
            heapq.heappush(self._waiting, (time.monotonic() + way.delay, next(self._numbers),
                                           receiver, frame))
        else:
            self._write(receiver, frame)

    def _pass_on(self):
        now = time.monotonic()
        while self._waiting and self._waiting[0][0] <= now:
            _, _, receiver, frame = heapq.heappop(self._waiting)
            self._write(receiver, frame)

    @staticmethod
    def _write(receiver, frame):
        # A device that is down takes nothing; one that is full drops, as any does.
        with contextlib.suppress(OSError):
            os.write(receiver.device, frame)


class Network:
    """Machines with addresses of their own; where servers of NATS listen, and how to start
    programs there."""

    CLIENT_PORT, ROUTE_PORT, MONITOR_PORT = 4222, 6222, 8222

    def __init__(self, names, folder, seed=0):
        assert is_entered()
        self.ways = Ways(names)
        if not os.path.ismount("/run"):
            run("mount", "-t", "tmpfs", "none", "/run")
        self._namespaces = {name: Namespace(name, number)
                            for number, name in enumerate(names, start=1)}
        self._switch = Switch(self._namespaces.values(), self.ways, seed)

    def command(self, name, command):
        """As it is to be started on the machine of that name."""
        return ["nsenter", f"--net={self._namespaces[name].path}", *command]

    def server_settings(self, name):
        """Lines of the server's configuration."""
        address = self._namespaces[name].address
        routes = ", ".join(f'"nats://{each.address}:{self.ROUTE_PORT}"'
                           for each in self._namespaces.values() if each.name != name)
        return (f"listen: 0.0.0.0:{self.CLIENT_PORT}\n"
                f"http: 127.0.0.1:{self.MONITOR_PORT}\n"
                f"cluster {{ name: fleet, listen: {address}:{self.ROUTE_PORT},"
                f" no_advertise: true, routes: [{routes}] }}\n")

    def server_started(self, name, ports):
        """The server listens; `ports` are those it says."""

    def servers_for(self, name):
        """The addresses of all servers for a client on that machine, its own server's first."""
        others = [each.address for each in self._namespaces.values() if each.name != name]
        return [f"nats://{address}:{self.CLIENT_PORT}" for address in ("127.0.0.1", *others)]

    def connect(self, name, monitoring=False):
        """A socket to the machine's own server, from within the machine."""
        with self._namespaces[name].entered():
            return socket.create_connection(
                ("127.0.0.1", self.MONITOR_PORT if monitoring else self.CLIENT_PORT), 10)

    def set_link(self, name, is_up):
        """Takes the machine's device down, or up again."""
        self._namespaces[name].ip("link", "set", DEVICE, "up" if is_up else "down")

    def close(self):
        self._switch.close()
        for each in self._namespaces.values():
            each.close()
