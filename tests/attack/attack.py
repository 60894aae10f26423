#!/usr/bin/env python3
"""Attacks on a running broker by programs that know only the wire protocol.

    tests/attack/attack.py [--broker PROGRAM] ATTACK [NUMBER]

starts the broker in a folder of its own, attacks it, and prints what the attack
did to the broker and to a bystander who pings on an established connection. The
numbers in docs/reliability.md are from these commands:

    attack.py reader RATE      a subscriber that reads RATE MB/s, events without a pause
    attack.py large            a 20 KB request beside two senders of 4 KB requests
    attack.py senders COUNT    senders of 1 MB requests to one responder
    attack.py names COUNT      connections that subscribe to 1024 names of 64 KiB
    attack.py partial COUNT    connections that stay a byte short of a 1 MB frame
    attack.py leavers COUNT    initiators that leave while their requests are pending
    attack.py starved MB       names again, under a limit of the address space
"""
import argparse, os, resource, socket, statistics, struct, subprocess, sys, tempfile, threading, time

HELLO, WELCOME, REQUEST, RESPONSE, EVENT, PUBLISH, SUBSCRIBE = 1, 2, 3, 4, 6, 7, 8
REGISTRATION, ACKNOWLEDGEMENT, NOTICE, PING, PONG, GOODBYE = 10, 11, 12, 13, 14, 15
HEADER = struct.Struct("<IBBHQ4I")


def frame(kind, token=0, category=None, identifier=None, uuid=None, payload=None):
    fields = [category, identifier, uuid, payload]
    present = sum(1 << i for i, field in enumerate(fields) if field is not None)
    fields = [b"" if field is None else field for field in fields]
    length = HEADER.size + sum(map(len, fields))
    return HEADER.pack(length, kind, present, 0, token, *map(len, fields)) + b"".join(fields)


class Peer:
    def __init__(self, path, role=None):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(path)
        self.input = b""
        if role:
            self.send(frame(HELLO, 1, identifier=role))
            self.receive()

    def send(self, data):
        self.socket.sendall(data)

    def receive(self):
        """Kind, status, token and payload of the next frame; None at the end."""
        while True:
            if len(self.input) >= HEADER.size:
                length, kind, _, status, token, *lengths = HEADER.unpack(self.input[: HEADER.size])
                if len(self.input) >= length:
                    payload = self.input[length - lengths[3] : length]
                    self.input = self.input[length:]
                    return kind, status, token, payload
            try:
                data = self.socket.recv(1 << 18)
            except ConnectionError:
                return None
            if not data:
                return None
            self.input += data

    def close(self):
        self.socket.close()


class Broker:
    def __init__(self, program, memory_limit=None):
        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "broker.sock")
        self.log = open(os.path.join(self.folder.name, "log"), "w+")
        self.process = subprocess.Popen([program, "--socket", self.path], stderr=self.log)
        while "ready" not in self.text():
            time.sleep(0.001)
        if memory_limit:
            resource.prlimit(self.process.pid, resource.RLIMIT_AS, (memory_limit, memory_limit))

    def text(self):
        with open(self.log.name) as log:
            return log.read()

    def resident(self):
        with open(f"/proc/{self.process.pid}/statm") as statm:
            return int(statm.read().split()[1]) * 4096

    def processor_time(self):
        with open(f"/proc/{self.process.pid}/stat") as stat:
            fields = stat.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def end(self):
        alive = self.process.poll() is None
        if alive:
            self.process.terminate()
        self.process.wait()
        self.log.close()
        return alive


class Bystander(threading.Thread):
    """Pings every 2 ms."""

    def __init__(self, broker):
        super().__init__(daemon=True)
        self.peer = Peer(broker.path, b"initiator")
        self.times, self.stopping = [], False
        self.start()

    def run(self):
        while not self.stopping:
            begin = time.perf_counter()
            try:
                self.peer.send(frame(PING, 1))
                answer = self.peer.receive()
            except ConnectionError:
                answer = None
            if answer is None:
                self.times.append(float("inf"))
                return
            self.times.append(time.perf_counter() - begin)
            time.sleep(0.002)

    def restart(self):
        earlier, self.times = self.times, []
        return earlier


def describe_pings(times):
    ms = sorted(1000 * t for t in times)
    return f"{len(ms)} pings, median {statistics.median(ms):.2f} ms, worst {ms[-1]:.1f} ms"


def serve(path, category, seconds_each=0.0):
    """A responder on a thread of its own that answers everything; counts it."""
    peer = Peer(path, b"responder")
    peer.send(frame(REGISTRATION, 1, category))
    peer.receive()
    peer.count = 0

    def run():
        while (got := peer.receive()) is not None:
            kind, _, token, _ = got
            if kind == REQUEST:
                peer.count += 1
                if seconds_each:
                    time.sleep(seconds_each)
                try:
                    peer.send(frame(RESPONSE, token, category, b"", b"", b""))
                except ConnectionError:
                    return

    threading.Thread(target=run, daemon=True).start()
    return peer


def attack_reader(broker, rate):
    rate = rate * 1e6
    slow, quick = Peer(broker.path, b"initiator"), Peer(broker.path, b"initiator")
    for peer in (slow, quick):
        peer.send(frame(SUBSCRIBE, 1, b"news"))
        peer.receive()
    publisher = Peer(broker.path, b"responder")
    publisher.send(frame(REGISTRATION, 1, b"news"))
    publisher.receive()
    event = frame(PUBLISH, 0, b"news", b"e", None, b"x" * 200)
    burst = event * 500
    total = int(max(4e6, rate * 5)) // len(burst) * len(burst) if rate >= 1e6 else 60_000_000 // len(burst) * len(burst)
    begin, done = time.monotonic(), {}

    def publish():
        for _ in range(total // len(burst)):
            publisher.send(burst)
        done["published"] = time.monotonic() - begin

    def read(name, peer, speed):
        got, started = 0, time.monotonic()
        while got < total:
            if speed:
                due = got / speed - (time.monotonic() - started)
                if due > 0:
                    time.sleep(due)
            try:
                data = peer.socket.recv(max(4096, int(speed / 100)) if speed else 1 << 18)
            except ConnectionError:
                data = b""
            if not data:
                break
            got += len(data)
        done[name] = (got, time.monotonic() - begin)

    threads = [
        threading.Thread(target=publish, daemon=True),
        threading.Thread(target=read, args=("slow", slow, rate), daemon=True),
        threading.Thread(target=read, args=("quick", quick, 0), daemon=True),
    ]
    for thread in threads:
        thread.start()
    threads[2].join()
    if rate >= 1e6:
        threads[1].join()
    published = done.get("published", float("nan"))
    got = done.get("slow", (0, 0))[0]
    print(f"published {total / 1e6:.0f} MB in {published:.2f} s; the quick reader got all of it: "
          f"{done['quick'][0] == total} after {done['quick'][1]:.2f} s")
    if rate >= 1e6:
        print(f"the reader at {rate / 1e6:g} MB/s got {got / total:.1%} of it")
    print("broker:", [line for line in broker.text().splitlines() if "closing" in line])


def attack_large(broker, _):
    serve(broker.path, b"work", 0.0)
    small = frame(REQUEST, 1, b"work", b"", b"", b"s" * 4096)

    def flood():
        peer = Peer(broker.path, b"initiator")
        threading.Thread(target=lambda: [None for _ in iter(peer.receive, None)], daemon=True).start()
        try:
            while True:
                peer.send(small * 16)
        except OSError:
            pass

    for _ in range(2):
        threading.Thread(target=flood, daemon=True).start()
    time.sleep(1)
    peer, times = Peer(broker.path, b"initiator"), []
    peer.socket.settimeout(20)
    for _ in range(20):
        begin = time.monotonic()
        peer.send(frame(REQUEST, 2, b"work", b"", b"", b"l" * 20_000))
        try:
            peer.receive()
        except TimeoutError:
            print("a 20 KB request got no answer in 20 s")
            return
        times.append(time.monotonic() - begin)
    print(f"20 KB requests answered: median {statistics.median(times):.3f} s, worst {max(times):.3f} s")


def attack_senders(broker, count):
    service = serve(broker.path, b"work")
    large = frame(REQUEST, 1, b"work", b"", b"", b"l" * 1_000_000)

    def flood():
        peer = Peer(broker.path, b"initiator")
        threading.Thread(target=lambda: [None for _ in iter(peer.receive, None)], daemon=True).start()
        try:
            while True:
                peer.send(large)
        except OSError:
            pass

    for _ in range(count):
        threading.Thread(target=flood, daemon=True).start()
    time.sleep(3)
    before, begin, served = broker.processor_time(), time.monotonic(), service.count
    time.sleep(5)
    seconds = time.monotonic() - begin
    used = broker.processor_time() - before
    print(f"{count} senders: {(service.count - served) / seconds:.0f} requests/s, "
          f"{used / seconds:.0%} of a core, {1000 * used / max(1, service.count - served):.2f} ms of it a request, "
          f"{broker.resident() / 1e6:.0f} MB; closed: {broker.text().count('closing')}")


def subscribe_to_names(broker, count):
    peers, granted = [], 0
    for number in range(count):
        peer = Peer(broker.path, b"initiator")
        peers.append(peer)
        try:
            for i in range(1024):
                name = b"%08d%08d" % (number, i)
                peer.send(frame(SUBSCRIBE, 1, name + b"n" * (65536 - len(name))))
                answer = peer.receive()
                if answer is None:
                    break
                granted += answer[0] == ACKNOWLEDGEMENT and answer[1] == 0
        except ConnectionError:
            pass
    return peers, granted


def attack_names(broker, count):
    peers, granted = subscribe_to_names(broker, count)
    print(f"{count} connections: {granted} subscriptions, {broker.resident() / 1e6:.0f} MB")
    return peers


def attack_starved(broker, _):
    peers, granted = subscribe_to_names(broker, 8)
    print(f"8 connections: {granted} subscriptions; the broker is alive: {broker.process.poll() is None}")
    return peers


def attack_partial(broker, count):
    whole = frame(REQUEST, 1, b"nobody", b"", b"", b"p" * 1_000_000)
    peers = []
    for _ in range(count):
        peer = Peer(broker.path, b"initiator")
        peers.append(peer)
        try:
            peer.send(whole[:-1])
        except OSError:
            pass
    time.sleep(0.5)
    print(f"{count} connections: {broker.resident() / 1e6:.0f} MB, closed at once: {broker.text().count('closing')}")
    time.sleep(14)
    print(f"14 s later: {broker.resident() / 1e6:.0f} MB, closed: {broker.text().count('closing')}")
    return peers


def attack_leavers(broker, count):
    deaf = Peer(broker.path, b"responder")
    deaf.send(frame(REGISTRATION, 1, b"work"))
    deaf.receive()
    threading.Thread(target=lambda: [None for _ in iter(lambda: deaf.socket.recv(1 << 18), b"")], daemon=True).start()
    small = frame(REQUEST, 1, b"work", b"", b"", b"")
    for _ in range(count):
        peer = Peer(broker.path, b"initiator")
        for _ in range(60):
            peer.send(small * 1000)
        peer.send(frame(PING, 1))
        while (got := peer.receive()) is not None and got[0] != PONG:
            pass
        peer.close()
    peer = Peer(broker.path, b"initiator")
    peer.send(small + frame(PING, 1))
    refused = peer.receive()[0] == NOTICE
    print(f"{count} initiators left 60000 requests each: an innocent one is "
          f"{'refused' if refused else 'delivered'}; {broker.resident() / 1e6:.0f} MB")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--broker", default="build/release/bin/kavri-broker")
    parser.add_argument("attack")
    parser.add_argument("number", type=float, nargs="?", default=0)
    arguments = parser.parse_args()
    attack = globals().get("attack_" + arguments.attack)
    if attack is None:
        parser.error(f"there is no attack {arguments.attack}")
    number = arguments.number if arguments.attack == "reader" else int(arguments.number)
    limit = int(number) << 20 if arguments.attack == "starved" else None
    broker = Broker(arguments.broker, limit)
    bystander = Bystander(broker)
    time.sleep(0.5)
    undisturbed = bystander.restart()
    start = broker.resident()
    peers = attack(broker, number) or []
    during = bystander.restart()
    for peer in peers:
        peer.close()
    print("undisturbed:", describe_pings(undisturbed))
    print("attacked:   ", describe_pings(during))
    bystander.stopping = True
    time.sleep(2.5)
    if broker.process.poll() is None:
        print(f"resident: {start / 1e6:.1f} MB at the start, {broker.resident() / 1e6:.1f} MB after the attack")
    print("broker survived:", broker.end())
    sys.stdout.flush()
    os._exit(0)  # the attackers' threads go with the process


if __name__ == "__main__":
    main()
