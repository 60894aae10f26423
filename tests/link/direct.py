"""Machines on the loopback with nothing between them: for measuring, since nothing can be cut,
and a server that is started again is not found by the others."""

import socket


class Network:
    """As that of namespaces.py, without ways."""

    def __init__(self, names, folder, seed=0):
        self._ports = {}  # of the servers that were started, by name

    def command(self, name, command):
        return command

    def server_settings(self, name):
        routes = ", ".join(f'"nats://127.0.0.1:{ports["cluster"]}"'
                           for ports in self._ports.values())
        return ("listen: 127.0.0.1:-1\nhttp: 127.0.0.1:-1\n"
                f"cluster {{ name: fleet, listen: 127.0.0.1:-1, routes: [{routes}] }}\n")

    def server_started(self, name, ports):
        self._ports[name] = {kind: int(addresses[0].rpartition(":")[2])
                             for kind, addresses in ports.items()}

    def servers_for(self, name):
        return [f"nats://127.0.0.1:{self._ports[name]['nats']}"]

    def connect(self, name, monitoring=False):
        kind = "monitoring" if monitoring else "nats"
        return socket.create_connection(("127.0.0.1", self._ports[name][kind]), 10)

    def close(self):
        pass
