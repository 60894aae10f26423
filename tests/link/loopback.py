"""Machines on the loopback, for systems without network namespaces: whatever one machine's
programs send to another's server goes through a relay, which delays it, or keeps it while the
way is cut, as TCP would. What netem would lose comes later here, by what a retransmission takes.
"""

import asyncio
import contextlib
import random
import socket
import threading

from conditions import CUT, SOUND, Ways

RETRANSMISSION = 0.2
CHUNK_BYTES = 65536
POLL_INTERVAL = 0.005
MOST_CHUNKS = 64
CLIENT, ROUTE = "nats", "cluster"


class Relay:
    """One port that leads from one machine to a server of another, or of the same."""

    def __init__(self, network, sender, receiver, kind):
        self._network, self._sender, self._receiver = network, sender, receiver
        self._kind = kind
        self.listening = socket.create_server(("127.0.0.1", 0))
        self.port = self.listening.getsockname()[1]

    async def serve(self):
        await asyncio.start_server(self._join, sock=self.listening)

    async def _join(self, reader, writer):
        # asyncio does this for the sockets that it opens, not for those that it accepts.
        writer.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # Joined without waiting: a connection attempt that the way loses is repeated later.
        await self._until_open(self._sender, self._receiver)
        try:
            far_reader, far_writer = await asyncio.open_connection(
                "127.0.0.1", self._network.port(self._receiver, self._kind))
        except (OSError, KeyError):
            writer.transport.abort()
            return
        with contextlib.suppress(asyncio.CancelledError):  # at the network's end
            await asyncio.gather(self._carry(reader, far_writer, self._sender, self._receiver),
                                 self._carry(far_reader, writer, self._receiver, self._sender))

    async def _carry(self, reader, writer, sender, receiver):
        queue = asyncio.Queue(MOST_CHUNKS)
        await asyncio.gather(self._read(reader, queue, sender, receiver),
                             self._write(writer, queue, sender, receiver))

    async def _read(self, reader, queue, sender, receiver):
        loop = asyncio.get_running_loop()
        chunk = b"-"
        while chunk:
            try:
                chunk = await reader.read(CHUNK_BYTES)
            except OSError:
                chunk = b""
            way = self._network.ways.between(sender, receiver)
            lost = way.loss and self._network.random.random() < way.loss
            await queue.put((loop.time() + way.delay + (RETRANSMISSION if lost else 0), chunk))

    async def _write(self, writer, queue, sender, receiver):
        loop = asyncio.get_running_loop()
        while True:
            when, chunk = await queue.get()
            if when > loop.time():
                await asyncio.sleep(when - loop.time())
            await self._until_open(sender, receiver)
            if not chunk or writer.transport.is_closing():
                writer.transport.abort()
                return
            try:
                writer.write(chunk)
                await writer.drain()
            except OSError:
                writer.transport.abort()  # and what else is read is of no use

    async def _until_open(self, sender, receiver):
        while not self._network.ways.between(sender, receiver).is_open:
            await asyncio.sleep(POLL_INTERVAL)


class Network:
    """As that of namespaces.py, over relays."""

    def __init__(self, names, folder, seed=0):
        self.ways = Ways(names)
        self.random = random.Random(seed)
        self._names = list(names)
        self._ports = {}
        self._relays = {(sender, receiver, kind): Relay(self, sender, receiver, kind)
                        for sender in names for receiver in names for kind in (CLIENT, ROUTE)}
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._run, name="relays")
        self._thread.start()

    def _run(self):
        for relay in self._relays.values():
            self._loop.run_until_complete(relay.serve())
        self._loop.run_forever()
        self._loop.run_until_complete(self._end_tasks())
        self._loop.close()

    async def _end_tasks(self):
        left = asyncio.all_tasks() - {asyncio.current_task()}
        for task in left:
            task.cancel()
        await asyncio.gather(*left, return_exceptions=True)

    def command(self, name, command):
        return command

    def server_settings(self, name):
        routes = ", ".join(f'"nats://127.0.0.1:{self._relays[name, each, ROUTE].port}"'
                           for each in self._names if each != name)
        # Servers tell each other where others listen, and would connect past the relays. An
        # address where nobody listens keeps them from it.
        return ("listen: 127.0.0.1:-1\nhttp: 127.0.0.1:-1\n"
                f"cluster {{ name: fleet, listen: 127.0.0.1:-1, no_advertise: true,"
                f" advertise: \"127.0.0.1:1\", routes: [{routes}] }}\n")

    def server_started(self, name, ports):
        for kind in (CLIENT, ROUTE, "monitoring"):
            self._ports[name, kind] = int(ports[kind][0].rpartition(":")[2])

    def port(self, name, kind):
        return self._ports[name, kind]

    def servers_for(self, name):
        order = [name, *(each for each in self._names if each != name)]
        return [f"nats://127.0.0.1:{self._relays[name, each, CLIENT].port}" for each in order]

    def connect(self, name, monitoring=False):
        kind = "monitoring" if monitoring else CLIENT
        return socket.create_connection(("127.0.0.1", self.port(name, kind)), 10)

    def set_link(self, name, is_up):
        for which in ({"sender": name}, {"receiver": name}):
            self.ways.change(SOUND if is_up else CUT, **which)

    def close(self):
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        for relay in self._relays.values():
            relay.listening.close()
