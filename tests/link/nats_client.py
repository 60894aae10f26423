"""As much of a client of nats-server as an attacker needs: it publishes what it likes where it
likes, and sees what passes."""

import json
import re

PATIENCE = 10


class Client:
    def __init__(self, socket, **options):
        """options: as CONNECT has them, user and pass, say."""
        self._socket = socket
        self._socket.settimeout(PATIENCE)
        self._reader = socket.makefile("rb")
        self._subscriptions = 0
        self._reader.readline()  # what the server says of itself
        self._send(b"CONNECT " + json.dumps({"verbose": False, **options}).encode())
        self.flush()

    def publish(self, subject, data, reply=b""):
        self._send(b"PUB %s %s %d\r\n%s" % (subject, reply, len(data), data))

    def subscribe(self, subject):
        self.ask_for(subject)
        self.flush()

    def ask_for(self, subject):
        """A subscription, which there is after the next flush."""
        self._subscriptions += 1
        self._send(b"SUB %s %d" % (subject, self._subscriptions))

    def flush(self):
        """Until the server has handled everything so far; returns the messages that came, as
        (subject, reply, data)."""
        self._send(b"PING")
        messages = []
        while (line := self._reader.readline()) != b"PONG\r\n":
            if not line:
                raise EOFError("the server closed the connection")
            if heading := re.match(rb"MSG (\S+) \S+ (?:(\S+) )?(\d+)\r\n", line):
                data = self._reader.read(int(heading[3]) + 2)[:-2]
                messages.append((heading[1], heading[2] or b"", data))
            elif line == b"PING\r\n":
                self._send(b"PONG")
        return messages

    def close(self):
        self._reader.close()
        self._socket.close()

    def _send(self, line):
        self._socket.sendall(line + b"\r\n")
