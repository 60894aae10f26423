"""Checks `kavri status`: what it says of a broker in each form, that texts of hostile clients
come out harmless, and what it says and returns where there is no answer.

Usage: status_test.py FOLDER_OF_THE_PROGRAMS FOLDER_OF_THE_SOURCES
"""

import contextlib
import fcntl
import json
import os
import pathlib
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest

import jsonschema

PROGRAMS = pathlib.Path(sys.argv[1])
SCHEMA = json.loads((pathlib.Path(sys.argv[2]) / "docs/status.schema.json").read_text())
PATIENCE = 30

HELLO, WELCOME, REQUEST, SUBSCRIBE, REGISTRATION, ACKNOWLEDGEMENT, NOTICE = 1, 2, 3, 8, 10, 11, 12
GOODBYE, QUERY, REPORT = 15, 16, 17
HEADER = struct.Struct("<IBBHQ4I")

# What a hostile client calls its category: escape sequences, line breaks, quotes, what is not
# UTF-8, what turns the direction of text, and what looks like an escape.
HOSTILE = b'\x1b[31m\n"quoted"\\x41\xff\xc2\x9b\xe2\x80\xae,{}=\r\x07'


def frame(kind, token=0, category=None, identifier=None, uuid=None, payload=None, status=0):
    fields = [category, identifier, uuid, payload]
    present = sum(1 << i for i, field in enumerate(fields) if field is not None)
    fields = [field or b"" for field in fields]
    length = HEADER.size + sum(map(len, fields))
    return HEADER.pack(length, kind, present, status, token, *map(len, fields)) + b"".join(fields)


def receive(peer):
    header = readAll(peer, HEADER.size)
    length, kind, _, status, token = HEADER.unpack(header)[:5]
    return kind, token, status, readAll(peer, length - HEADER.size)


def readAll(peer, count):
    taken = b""
    while len(taken) < count:
        part = peer.recv(count - len(taken))
        if not part:
            raise EOFError
        taken += part
    return taken


def connect(path):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.settimeout(PATIENCE)
    peer.connect(str(path))
    return peer


def join(path, role):
    peer = connect(path)
    peer.sendall(frame(HELLO, 1, identifier=role))
    assert receive(peer)[0] == WELCOME
    return peer


def responder(path, category):
    peer = join(path, b"responder")
    peer.sendall(frame(REGISTRATION, 1, category=category))
    assert receive(peer)[2] == 0
    return peer


def subscriber(path, category):
    peer = join(path, b"initiator")
    peer.sendall(frame(SUBSCRIBE, 1, category=category))
    assert receive(peer)[2] == 0
    return peer


class Broker:
    """A broker of the test's own."""

    def __init__(self, path, *arguments):
        self.path = path
        self.start(*arguments)

    def start(self, *arguments):
        self.process = subprocess.Popen(
            [PROGRAMS / "kavri-broker", "--socket", self.path, "--test-service", *arguments],
            stderr=subprocess.PIPE)
        for line in self.process.stderr:
            if b"ready" in line:
                return
        raise AssertionError("the broker did not become ready")

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stderr.close()


class FakeBroker(threading.Thread):
    """Answers one connection with what it is given, after the hello."""

    def __init__(self, path, answer, stays=False):
        super().__init__()
        self.answer = answer
        self.stays = stays
        self.done = threading.Event()
        self.listening = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listening.bind(str(path))
        self.listening.listen()
        self.start()

    def run(self):
        peer, _ = self.listening.accept()
        with peer, contextlib.suppress(OSError):
            receive(peer)
            for piece in self.answer:
                peer.sendall(piece)
            if self.stays:
                self.done.wait(PATIENCE)

    def end(self):
        self.done.set()
        self.join(PATIENCE)
        self.listening.close()


WELCOMED = frame(WELCOME, 1, uuid=b"identity", payload=b"payload_bytes=1048576\n")
BROKER_REPORT = frame(REPORT, 1, identifier=b"broker", payload=b"format=1\nversion=9.9\n")
END = frame(ACKNOWLEDGEMENT, 1)


class StatusTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.path = self.folder / "broker.sock"

    def broker(self, *arguments):
        broker = Broker(self.path, *arguments)
        self.addCleanup(broker.kill)
        return broker

    def keep(self, peer):
        self.addCleanup(peer.close)
        return peer

    def run_(self, *arguments, path=None):
        return subprocess.run(
            [PROGRAMS / "kavri", "status", "--socket", path or self.path, *arguments],
            capture_output=True, timeout=PATIENCE, check=False)

    def output(self, *arguments):
        ended = self.run_(*arguments)
        self.assertEqual((ended.returncode, ended.stderr), (0, b""))
        return ended.stdout.decode()

    def json(self):
        return json.loads(self.output("--json"))


class Content(StatusTest):
    def test_what_there_is_is_in_the_json_and_fits_its_schema(self):
        broker = self.broker()
        serving = self.keep(responder(self.path, b"news"))
        self.keep(subscriber(self.path, b"news"))
        asking = self.keep(subscriber(self.path, b"unserved"))
        asking.sendall(frame(REQUEST, 1, b"news", b"i", b"u", b"p"))
        receive(serving)
        asking.sendall(frame(REQUEST, 2, b"nobody", b"i", b"u", b"p"))
        self.assertEqual(receive(asking)[0], NOTICE)
        status = self.json()
        jsonschema.Draft7Validator.check_schema(SCHEMA)
        jsonschema.validate(status, strict(SCHEMA))
        self.assertEqual(status["broker"]["process"], broker.process.pid)
        self.assertEqual(status["broker"]["user"], os.getuid())
        self.assertEqual(status["limits"]["connections"], 4096)
        self.assertEqual(status["counts"]["traffic"]["requests"], 1)
        self.assertEqual(status["counts"]["traffic"]["notices_no_responder"], 1)
        categories = {each["name"]: each for each in status["categories"]}
        self.assertEqual(set(categories), {"news", "unserved", "test"})
        self.assertEqual(categories["test"]["served_by"], "broker")
        self.assertEqual(categories["unserved"]["served_by"], "nobody")
        self.assertEqual(categories["news"]["requests_in_flight"], 1)
        self.assertEqual(categories["news"]["subscribers"], 1)
        served = [each for each in status["connections"] if each["category"] == "news"]
        self.assertEqual(served[0]["connection"], categories["news"]["connection"])
        self.assertEqual(served[0]["process"], os.getpid())
        self.assertEqual(served[0]["command"], pathlib.Path("/proc/self/comm").read_text().rstrip())
        self.assertEqual(sorted(each["role"] for each in status["connections"]),
                         ["initiator", "initiator", "manager", "responder"])
        self.assertEqual(status["users"][0]["connections"], 4)

    def test_closings_are_counted_by_reason(self):
        self.broker()
        lost = join(self.path, b"initiator")
        lost.close()
        bad = self.keep(connect(self.path))
        bad.sendall(b"\xff" * 32)
        self.assertEqual(receive(bad)[0], GOODBYE)
        bad.close()
        counts = self.json()["counts"]["connections"]
        self.assertEqual((counts["closed_malformed"], counts["closed_by_peer"]), (1, 1))
        self.assertEqual((counts["accepted"], counts["present"]), (3, 1))
        self.assertIn(counts["most"], (1, 2))

    def test_refused_connections_are_counted(self):
        (self.folder / "config").write_text("[limits]\nconnections_per_user = 2\n")
        self.broker("--config", self.folder / "config")
        kept = [self.keep(join(self.path, b"initiator")) for _ in range(2)]
        third = self.keep(connect(self.path))
        self.assertEqual(receive(third)[2], 14)
        ended = self.run_()
        self.assertEqual(ended.returncode, 1)
        self.assertIn(b"the limit on connections is reached: raise the limit", ended.stderr)
        kept[0].close()
        while (ended := self.run_("--json")).returncode == 1:
            pass
        counts = json.loads(ended.stdout)["counts"]["connections"]
        self.assertGreaterEqual(counts["refused_connections_per_user"], 2)
        self.assertEqual(counts["refused_connections"], 0)

    def test_hostile_names_come_out_harmless_and_told_apart(self):
        self.broker()
        for name in (HOSTILE, b"\\x1b", b"\x1b", b"n" * 60000 + HOSTILE):
            self.keep(responder(self.path, name))
        for arguments in ((), ("--all",), ("--json",), ("--prometheus",)):
            shown = self.output(*arguments)
            self.assertNotRegex(shown, "[\x00-\x08\x0b-\x1f\x7f-\x9f\u202e]")
        names = {each["name"]: each for each in self.json()["categories"]}
        self.assertEqual(len(names), 5)
        self.assertIn("\\x1b", names)
        self.assertIn("\\\\x1b", names)
        self.assertEqual(names["n" * 256]["name_bytes"], 60000 + len(HOSTILE))

    def test_a_crowd_is_shown_in_part_unless_all_is_asked_for(self):
        self.broker()
        for _ in range(30):
            self.keep(join(self.path, b"initiator"))
        self.assertIn("and 11 more: show them with --all", self.output())
        every = self.output("--all")
        self.assertEqual(len(re.findall(" initiator ", every)), 30)
        self.assertNotIn("more:", every)

    def test_who_is_behind_and_who_waits_comes_first(self):
        (self.folder / "config").write_text("[limits]\nsend_queue_bytes = 65536\n"
                                            "stall_ms = 3600000\nprogress_ms = 3600000\n")
        self.broker("--config", self.folder / "config")
        self.keep(responder(self.path, b"slow"))
        for _ in range(5):
            self.keep(join(self.path, b"initiator"))
        asking = self.keep(join(self.path, b"initiator"))
        asking.settimeout(1)
        with contextlib.suppress(TimeoutError):
            for token in range(10000):
                asking.sendall(frame(REQUEST, token, b"slow", b"i", b"u", b"p" * 8000))
        status = self.json()
        slow, waiting = status["connections"][0], status["connections"][6]
        self.assertTrue(slow["congested"])
        self.assertFalse(slow["stalled"])
        self.assertEqual(waiting["waits_for"], slow["connection"])
        self.assertGreater(slow["queued_bytes"], 65536 / 2)
        self.assertEqual(waiting["queued_bytes"], 0)
        self.assertEqual(slow["input_bytes"], 0)
        self.assertGreater(waiting["input_bytes"], 8000)
        held = slow["queued_bytes"] + waiting["input_bytes"]
        user = status["users"][0]
        self.assertGreaterEqual(user["bytes"], held)
        self.assertEqual(user["share_bytes"], status["limits"]["bytes_per_user"])
        rows = self.output().split("PROCESS")[1].splitlines()
        self.assertRegex(rows[1], "serves slow .* congested")
        self.assertRegex(rows[2], f"initiator .* waits for {os.getpid()}$")
        samples = prometheusSamples(self, self.output("--prometheus"))
        for state, count in (("congested", 1), ("waiting", 1), ("stalled", 0)):
            self.assertEqual(samples["kavri_connections_behind", f'state="{state}"'], count)
        self.assertGreaterEqual(samples["kavri_queued_bytes", None], slow["queued_bytes"])
        self.assertEqual(samples["kavri_pending_requests", None], waiting["pending_requests"])
        self.assertGreaterEqual(
            sum(value for (name, _), value in samples.items() if name == "kavri_user_bytes"), held)

    def test_who_reads_too_slowly_is_stalled_and_requests_to_him_are_overloaded(self):
        (self.folder / "config").write_text("[limits]\nsend_queue_bytes = 65536\n"
                                            "stall_ms = 0\nprogress_ms = 3600000\n")
        self.broker("--config", self.folder / "config")
        self.keep(responder(self.path, b"slow"))
        asking = self.keep(join(self.path, b"initiator"))
        refused, token = False, 0
        while not refused:
            token += 1
            asking.sendall(frame(REQUEST, token, b"slow", b"i", b"u", b"p" * 8000))
            refused = select.select([asking], [], [], 0)[0]
        self.assertEqual(receive(asking)[0::2], (NOTICE, 14))
        status = self.json()
        self.assertEqual(status["connections"][0]["category"], "slow")
        self.assertTrue(status["connections"][0]["stalled"])
        self.assertGreaterEqual(status["counts"]["traffic"]["notices_overloaded"], 1)
        shown = self.output()
        self.assertRegex(shown, "\n *notices overloaded +[0-9]+\n")
        self.assertRegex(shown.split("PROCESS")[1].splitlines()[1], "serves slow .* stalled$")
        samples = prometheusSamples(self, self.output("--prometheus"))
        self.assertEqual(samples["kavri_connections_behind", 'state="stalled"'], 1)

    def test_ages_are_those_of_the_broker_and_of_each_connection(self):
        begun = time.monotonic()
        self.broker()
        ready = time.monotonic()
        self.keep(join(self.path, b"initiator"))
        joined = time.monotonic()
        time.sleep(0.01)  # grows an age that is told from none
        asked = time.monotonic()
        status = self.json()
        answered = time.monotonic()

        def expectAge(milliseconds, least, most):
            self.assertGreaterEqual(milliseconds, int(least * 1000))
            self.assertLessEqual(milliseconds, most * 1000)

        expectAge(status["broker"]["uptime_ms"], asked - ready, answered - begun)
        initiator = next(each for each in status["connections"] if each["role"] == "initiator")
        expectAge(initiator["age_ms"], asked - joined, answered - ready)


def strict(schema):
    """The schema without what it leaves open for later versions: a key must be described."""
    for definition in schema["definitions"].values():
        if "required" in definition:
            definition["additionalProperties"] = False
            assert set(definition["required"]) == set(definition["properties"]), definition
    return schema


def prometheusSamples(test, text):
    """The samples by name and labels; checks the text format strictly."""
    value = r'"(?:[^"\\\n]|\\[\\n"])*"'
    label = rf"[a-zA-Z_][a-zA-Z0-9_]*={value}"
    sample = re.compile(rf"([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{{({label}(?:,{label})*)\}})? ([0-9]+)")
    test.assertTrue(text.endswith("\n"))
    samples, described, typed, present = {}, set(), {}, None
    for line in text[:-1].split("\n"):
        if match := re.fullmatch(r"# HELP ([a-zA-Z_:][a-zA-Z0-9_:]*) (\S[^\\]*)", line):
            present = match[1]
            test.assertNotIn(present, described)
            described.add(present)
        elif match := re.fullmatch(r"# TYPE ([a-zA-Z_:][a-zA-Z0-9_:]*) (counter|gauge)", line):
            test.assertEqual(match[1], present)
            test.assertNotIn(present, typed)
            typed[present] = match[2]
        else:
            match = sample.fullmatch(line)
            test.assertIsNotNone(match, line)
            test.assertEqual(match[1], present)
            test.assertIn(present, typed)
            test.assertNotIn((match[1], match[2]), samples)
            samples[match[1], match[2]] = int(match[3])
    for name, kind in typed.items():
        test.assertEqual(kind == "counter", name.endswith("_total"), name)
        test.assertTrue(any(key[0] == name for key in samples), name)
    return samples


class Prometheus(StatusTest):
    def test_the_format_is_kept_whatever_the_names(self):
        self.broker()
        self.keep(responder(self.path, HOSTILE))
        self.keep(responder(self.path, b"n" * 1000))
        self.keep(responder(self.path, b"n" * 1001))  # alike as far as they are told
        for number in range(50):
            self.keep(subscriber(self.path, b"unserved %d" % number))
        samples = prometheusSamples(self, self.output("--prometheus"))
        self.assertEqual(samples["kavri_connections", 'role="responder"'], 3)
        self.assertEqual(samples["kavri_connections", 'role="initiator"'], 50)
        self.assertEqual(samples["kavri_categories", 'served_by="nobody"'], 50)
        self.assertEqual(samples["kavri_limit", 'name="connections"'], 4096)
        self.assertEqual(samples["kavri_connections_closed_total", 'reason="malformed"'], 0)
        series = [labels for name, labels in samples if name == "kavri_category_subscribers"]
        self.assertEqual(len(series), 3)  # "test", the hostile one, and the two together

    def test_counters_only_grow(self):
        self.broker()
        before = prometheusSamples(self, self.output("--prometheus"))
        asking = self.keep(join(self.path, b"initiator"))
        asking.sendall(frame(REQUEST, 1, b"test", b"echo", b"u", b"p"))
        receive(asking)
        after = prometheusSamples(self, self.output("--prometheus"))
        self.assertEqual(after["kavri_requests_total", None],
                         before["kavri_requests_total", None] + 1)
        for key, value in before.items():
            if key[0].endswith("_total"):
                self.assertGreaterEqual(after[key], value)


class NoAnswer(StatusTest):
    def expect(self, status, *texts, arguments=()):
        ended = self.run_(*arguments)
        said = ended.stderr.decode()
        self.assertEqual((ended.returncode, ended.stdout), (status, b""), said)
        self.assertEqual(said.count("\n"), 1, said)
        self.assertTrue(said.startswith(f"kavri status: broker at {self.path}: "), said)
        for text in texts:
            self.assertIn(text, said)

    def fake(self, *answer, stays=False):
        broker = FakeBroker(self.path, answer, stays)
        self.addCleanup(broker.end)

    def test_nobody_listens(self):
        self.expect(3, "No such file or directory: start one with 'kavri-broker'")

    def test_a_socket_that_was_left_behind(self):
        self.broker().kill()
        self.assertTrue(self.path.exists())
        self.expect(3, "Connection refused: start one")

    @unittest.skipUnless(os.getuid() == 0, "only root can act as somebody else")
    def test_another_user_in_earnest(self):
        def ask():
            try:
                return subprocess.run([PROGRAMS / "kavri", "status", "--socket", self.path],
                                      user=65534, capture_output=True, timeout=PATIENCE,
                                      check=False)
            except PermissionError:
                self.skipTest("others may not enter the folder of the programs")

        self.folder.chmod(0o755)
        config = self.folder / "config"
        config.write_text("# nobody else may connect\n")
        broker = self.broker("--config", config)
        ended = ask()
        self.assertEqual(ended.returncode, 1)
        self.assertIn(b": Permission denied: run this as root or as the broker's", ended.stderr)
        for text, status in (("connect = [65534]", 1), ("connect = [65534]\nmanage = [65534]", 0)):
            broker.kill()
            config.write_text(f"[access]\n{text}\n")
            broker.start("--config", config)
            ended = ask()
            self.assertEqual(ended.returncode, status, ended.stderr)
            self.assertEqual(b"this user may not manage the broker: run" in ended.stderr,
                             status == 1)

    def test_a_user_without_the_right(self):
        self.fake(frame(GOODBYE, payload=b"this user may not manage the broker", status=9))
        self.expect(1, "this user may not manage the broker: run this as root or as the broker's")

    def test_an_older_broker(self):
        self.fake(frame(GOODBYE, status=9,
                        payload=b"malformed: its role is neither initiator nor responder"))
        self.expect(1, "it is of an older version, which has no managers: install")

    def test_another_version_of_the_protocol(self):
        self.fake(frame(GOODBYE, payload=b"the broker speaks protocol version 2", status=8))
        self.expect(1, "speaks protocol version 2: install the same version of both")

    def test_another_form_of_the_report(self):
        self.fake(WELCOMED, frame(REPORT, 1, identifier=b"broker", payload=b"format=2\n"))
        self.expect(1, "it reports in a form that this version does not know: install")

    def test_a_reason_of_any_bytes_is_harmless(self):
        self.fake(frame(GOODBYE, payload=HOSTILE * 100, status=6))
        ended = self.run_()
        self.assertEqual(ended.returncode, 3)
        self.assertNotRegex(ended.stderr.decode(), "[\x00-\x08\x0b-\x1f\x7f-\x9f\u202e]")
        self.assertLess(len(ended.stderr), 500)

    def test_what_is_no_protocol_of_ours(self):
        for answer in ((b"HTTP/1.1 400 Bad Request\r\nServer: something\r\n\r\n",),
                       (WELCOMED, frame(REPORT, 1, identifier=b"broker", payload=b"format\n")),
                       (WELCOMED, frame(REPORT, 1, identifier=b"user", payload=b"user=-\n")),
                       (WELCOMED, frame(REPORT, 1, identifier=b"user",
                                        payload=b"user=99999999999999999999999\n")),
                       (WELCOMED, frame(REPORT, 1, identifier=b"connection",
                                        payload=b"role=\x1b[31m\n")),
                       (WELCOMED, frame(REPORT, 2, identifier=b"broker", payload=b"format=1\n")),
                       (WELCOMED, END),
                       (WELCOMED, frame(ACKNOWLEDGEMENT, 1, status=14)),
                       (frame(WELCOME, 7, uuid=b"u", payload=b""),),
                       (END,)):
            with self.subTest(answer=answer):
                fake = FakeBroker(self.path, answer)
                self.expect(3, "what it says is not kavri's protocol: name the socket")
                fake.end()
                self.path.unlink()

    def test_a_connection_that_breaks(self):
        self.fake(WELCOMED, BROKER_REPORT)
        self.expect(3, "it closed the connection: see its log")

    def test_one_that_says_nothing(self):
        self.fake(stays=True)
        self.expect(2, "no answer within 0.2 s: see whether", arguments=("--timeout", "0.2"))

    def test_one_that_never_ends(self):
        self.fake(WELCOMED, BROKER_REPORT, stays=True)
        self.expect(2, "no answer within 0.2 s", arguments=("--timeout", "0.2"))

    def test_a_stopped_broker(self):
        broker = self.broker()
        broker.process.send_signal(signal.SIGSTOP)
        self.expect(2, "no answer within 0.2 s", arguments=("--timeout", "0.2"))

    def test_reports_and_names_that_are_not_known_are_left_out(self):
        self.fake(WELCOMED, BROKER_REPORT,
                  frame(REPORT, 1, identifier=b"weather", payload=b"rain=1\n"),
                  frame(REPORT, 1, identifier=b"traffic", payload=b"requests=7\nnew_ones=8\n"),
                  frame(REPORT, 1, identifier=b"user", payload=b"user=4294967293\nshoes=2\n"), END)
        status = self.json()
        self.assertEqual(status["counts"]["traffic"], {"requests": 7, "new_ones": 8})
        self.assertIsNone(status["users"][0]["user_name"])
        jsonschema.validate(status, strict(SCHEMA))

    def test_nowhere_to_write(self):
        self.broker()
        for arguments in (("status",), ("status", "--json"), ("monitor", "--count", "1"),
                          ("bench", "--seconds", "0.01")):
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full, \
                    subprocess.Popen([PROGRAMS / "kavri", *arguments, "--socket", self.path],
                                     stdout=full, stderr=subprocess.PIPE) as tool:
                if arguments[0] == "monitor":
                    self.assertIn(b"shows what passes", tool.stderr.readline())
                    join(self.path, b"initiator").close()
                said = tool.communicate(timeout=PATIENCE)[1]
                self.assertIn(b"cannot write all results to standard output", said)
                self.assertEqual(tool.returncode, 74)

    def test_a_link_in_every_form(self):
        answers = (WELCOMED, BROKER_REPORT,
                   frame(REPORT, 1, b"nats://h:1", b"link",
                         payload=b"connected=1\nconnections=2\nmessage_bytes=1048576\n"
                                 b"queued_bytes=5\nbrokers=1\nchannels=2\ncategories_out=0\n"
                                 b"events_in=1\n"),
                   frame(REPORT, 1, identifier=b"user", payload=b"user=4294967294\n"),
                   frame(REPORT, 1, b"news", b"remote", payload=b"connection=9\nway=events_in\n"),
                   *(frame(REPORT, 1, b"test", b"remote",
                           payload=b"connection=%d\nway=requests_out\nbroker=00ff\n"
                                   b"broker_name=host-1\nround_trip_us=40\n"
                                   b"requests_in_flight=3\n" % number)
                     for number in (7, 8)), END)
        self.fake(*answers)
        status = self.json()
        jsonschema.validate(status, strict(SCHEMA))
        self.assertEqual(status["users"][0]["user_name"], "@link")
        self.assertEqual(status["link"]["server"], "nats://h:1")
        self.assertIs(status["link"]["connected"], True)
        self.assertEqual([(each["category"], each["way"], each["broker_name"])
                          for each in status["remote"]],
                         [("news", "events_in", None), *[("test", "requests_out", "host-1")] * 2])
        self.path.unlink()
        self.fake(*answers)
        samples = prometheusSamples(self, self.output("--prometheus"))
        for name, label, count in (("up", None, 1), ("connections_total", None, 2),
                                   ("queued_bytes", None, 5), ("channels", 'broker="host-1"', 2),
                                   ("round_trip_microseconds", 'broker="host-1"', 40)):
            self.assertEqual(samples["kavri_link_" + name, label], count)
        self.path.unlink()
        self.fake(*answers)
        shown = self.output()
        self.assertRegex(shown, "link: by nats://h:1  reconnected 1 times")
        self.assertRegex(shown, "test +requests out +host-1 +40 us +2 +6 +0 B\n")

    def test_a_wrong_command_line(self):
        for arguments in (("--watch", "0"), ("--prometheus", "--json"), ("--timeout", "x"),
                          ("--watch", "--prometheus"), ("--jason",)):
            self.assertEqual(self.run_(*arguments).returncode, 64, arguments)


class Watch(StatusTest):
    def watch(self, *arguments, **settings):
        watching = subprocess.Popen(
            [PROGRAMS / "kavri", "status", "--socket", self.path, "--watch", "0.1", *arguments],
            **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **settings})
        self.addCleanup(watching.wait)
        self.addCleanup(watching.kill)
        for output in (watching.stdout, watching.stderr):
            if output is not None:
                self.addCleanup(output.close)
        return watching

    def test_one_object_a_line_before_and_after_a_restart_which_it_says(self):
        broker = self.broker()
        watching = self.watch("--json")
        first = json.loads(watching.stdout.readline())
        broker.kill()
        self.assertRegex(watching.stderr.readline().decode(), "UTC: broker at .*; trying again\n")
        broker.start()
        self.assertRegex(watching.stderr.readline().decode(), "the broker was started anew: its ")
        while (status := json.loads(watching.stdout.readline())) and \
                status["broker"]["identity"] == first["broker"]["identity"]:
            pass
        self.assertEqual(status["broker"]["process"], broker.process.pid)
        self.assertIsNone(watching.poll())

    def test_rates_are_shown_from_the_second_look_on(self):
        self.broker()
        watching = self.watch()
        shown = b""
        while shown.count(b"\nconnections:") < 2:
            shown += watching.stdout.readline()
        self.assertNotIn(b"PER SECOND", shown)
        while b"PER SECOND" not in shown:
            shown += watching.stdout.readline()

    def test_each_look_is_a_new_one(self):
        self.broker()
        asking = self.keep(join(self.path, b"initiator"))
        watching = self.watch("--json")
        first = json.loads(watching.stdout.readline())
        asking.sendall(frame(REQUEST, 1, b"test", b"echo", b"u", b"p"))
        receive(asking)
        watching.stdout.readline()  # may have been taken before the request
        later = json.loads(watching.stdout.readline())
        for name in ("requests", "responses"):
            self.assertEqual(later["counts"]["traffic"][name],
                             first["counts"]["traffic"][name] + 1)
        self.assertGreater(later["broker"]["uptime_ms"], first["broker"]["uptime_ms"])

    def test_it_ends_where_nobody_reads(self):
        self.broker()
        watching = self.watch("--json")
        watching.stdout.readline()
        watching.stdout.close()
        self.assertEqual(watching.wait(PATIENCE), 0)

    def test_the_first_look_must_be_answered(self):
        self.assertEqual(self.watch().wait(PATIENCE), 3)

    def test_a_terminal_is_written_over_and_never_overflows(self):
        self.broker()
        for number in range(40):
            self.keep(responder(self.path, b"%d " % number + HOSTILE * 5))
        controlling, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 60, 0, 0))
        self.watch("--all", stdout=terminal, stderr=terminal,
                   env={**os.environ, "TERM": "xterm"})
        os.close(terminal)
        shown = b""
        while shown.count(b"\x1b[H") < 4 and select.select([controlling], [], [], PATIENCE)[0]:
            shown += os.read(controlling, 65536)
        os.close(controlling)
        for screen in shown.split(b"\x1b[H")[1:3]:
            self.assertTrue(screen.endswith(b"\x1b[J"), screen)
            lines = screen[:-3].decode().split("\x1b[K\r\n")[:-1]
            self.assertEqual(len(lines), 23)
            for line in lines:
                self.assertNotRegex(line, "[\x00-\x1f\x7f-\x9f\u202e]")
                self.assertLessEqual(len(line), 60)

    def test_what_fits_80_columns_and_60_columns_is_all_there(self):
        self.broker()
        self.keep(responder(self.path, b"a category with a long name that cannot be all there"))
        for columns in (80, 60):
            controlling, terminal = pty.openpty()
            fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
            subprocess.run([PROGRAMS / "kavri", "status", "--socket", self.path], stdout=terminal,
                           env={**os.environ, "TERM": "xterm"}, check=True, timeout=PATIENCE)
            os.close(terminal)
            shown = b""
            with contextlib.suppress(OSError):
                while piece := os.read(controlling, 65536):
                    shown += piece
            os.close(controlling)
            lines = shown.decode().split("\r\n")
            path = str(self.path)
            self.assertTrue(all(len(line) <= columns or path in line for line in lines), lines)
            self.assertTrue(any(re.search(r"serves a .*…", line) for line in lines), lines)
            self.assertIn("STATE", next(line for line in lines if "PROCESS" in line))
            for title in ("TRAFFIC", "USER", "CATEGORY", "PROCESS", "STATE"):
                self.assertTrue(any(title in line for line in lines), title)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
