"""Load on a fleet, listeners to its events, and what must be true of both whatever breaks.

The test services record each request before they answer it. So what the load was told, what
the services did and what the listeners got are three accounts of the same thing, and must agree.
"""

import bisect
import collections
import json
import re
import subprocess

from fleet import eventually

ANSWERED = "0"
# By number, as in core.h: certainly not delivered, and unknown.
NOT_DELIVERED = {"6": "BROKER_UNAVAILABLE", "9": "REFUSED", "10": "NO_RESPONDER",
                 "14": "OVERLOADED"}
UNKNOWN = {"11": "RESPONDER_LOST", "12": "CONNECTION_LOST"}
# How long an outcome may take, whatever is lost, and what a busy machine adds.
OUTCOME_LIMIT_MS = 3000
SLACK_MS = 500
# Of a record's text that is longer than it holds, and never here.
PAYLOAD = re.compile(r"what (\S+) asks")

# Between two requests of a load: more of them would only be more to judge.
PAUSE = 0.0005

Request = collections.namedtuple("Request", "uuid identifier sent_ms outcome_ms outcome")
CLOSED, RESTORED = "2", "3"
NO_OUTCOMES = collections.Counter()


class Program:
    """A program beside this one, whose lines of output are kept."""

    def __init__(self, machine, name, *command):
        self.name, self.machine = name, machine
        self._output = machine.folder / f"{name}.out"
        with open(self._output, "wb") as output:
            self.process = machine.fleet.start(
                machine.name, command, machine.folder / f"{name}.log", "ready", stdout=output,
                stdin=subprocess.PIPE)

    def lines(self):
        """The whole ones so far."""
        return self._output.read_text(encoding="utf-8").rpartition("\n")[0].splitlines()

    def finish(self):
        self.process.stdin.close()
        status = self.process.wait()
        assert status == 0, f"{self.name} ended with {status}: {self.process.output()}"


class Load(Program):
    """Requests from one machine to category "test", a number of them always under way."""

    def __init__(self, machine, number=0, in_flight=16, pause=PAUSE):
        name = f"{machine.name}{number}"
        super().__init__(machine, name, machine.fleet.programs / "link_load", machine.socket,
                         name, str(in_flight), str(round(pause * 1e6)))

    def requests(self):
        return [Request(uuid, identifier, int(sent), int(outcome_ms), outcome)
                for uuid, identifier, sent, outcome_ms, outcome in map(str.split, self.lines())]

    def outcomes(self):
        return collections.Counter(each.outcome for each in self.requests())

    def wait_for(self, outcome=ANSWERED, further=100):
        """Until so many more requests have come to this."""
        before = self.outcomes()[outcome]
        eventually(lambda: self.outcomes()[outcome] >= before + further,
                   f"{further} more of outcome {outcome} for {self.name}")


class Listener(Program):
    """A subscriber to the events of category "test"."""

    def __init__(self, machine, number=0):
        super().__init__(machine, f"listener{number}", machine.fleet.programs / "link_listener",
                         machine.socket)

    def events(self):
        """The uuids of the requests that had them published."""
        return [PAYLOAD.fullmatch(line[6:])[1] for line in self.lines()
                if line.startswith("event ")]

    def changes(self):
        """(event, status, reason), as texts."""
        return [tuple(line.split(" ", 3)[1:]) for line in self.lines()
                if line.startswith("change ")]


def shown(outcomes):
    """How often each, in words."""
    names = {ANSWERED: "answered", **NOT_DELIVERED, **UNKNOWN}
    return ", ".join(f"{count} {names.get(outcome, outcome)}"
                     for outcome, count in sorted(outcomes.items()))


def recorded(machine):
    """The requests that the test services of a machine have handled, in order."""
    if not machine.record.exists():
        return []
    return [json.loads(line) for line in machine.record.read_text().splitlines()]


def wrong_with(loads, machines, limit_ms=OUTCOME_LIMIT_MS + SLACK_MS):
    """What is wrong with what finished loads were told, as sentences."""
    handled = collections.defaultdict(list)  # uuid: machines
    wrong = []
    for machine in machines:
        last = collections.defaultdict(lambda: -1)
        for entry in recorded(machine):
            uuid = entry["request"]["uuid"]
            name, _, number = uuid.rpartition("-")
            if entry["request"]["payload"] != f"what {uuid} asks":
                continue  # not of a load
            handled[uuid].append(machine.name)
            if int(number) <= last[name]:
                wrong.append(f"{uuid} reached {machine.name} after {name}-{last[name]}")
            last[name] = int(number)
    for load in loads:
        for request in load.requests():
            reason = _wrong_with_request(request, handled[request.uuid], limit_ms)
            if reason:
                wrong.append(f"{request}: {reason}")
    return wrong


def _wrong_with_request(request, handlers, limit_ms):
    if len(handlers) > 1:
        return f"it was handled {len(handlers)} times, by {', '.join(handlers)}"
    if request.outcome == ANSWERED:
        if not handlers:
            return "it was answered, and no service had it"
    elif request.outcome in NOT_DELIVERED:
        if handlers:
            return f"it was told as not delivered, and {handlers[0]} had it"
    elif request.outcome not in UNKNOWN:
        return "this must not happen"
    took = request.outcome_ms - request.sent_ms
    return f"its outcome took {took} ms" if took > limit_ms else None


def wrong_with_responders(loads, services):
    """A load stays with one responder until that is lost, which some of its requests are told."""
    handlers = {entry["request"]["uuid"]: machine.name
                for machine in services for entry in recorded(machine)}
    wrong = []
    for load in loads:
        requests = sorted(load.requests(), key=lambda each: int(each.uuid.rpartition("-")[2]))
        names = [handlers[each.uuid] for each in requests if each.uuid in handlers]
        changes = sum(before != now for before, now in zip(names, names[1:]))
        failures = sum(each.outcome != ANSWERED for each in requests)
        if changes > failures:
            wrong.append(f"{load.name} had {changes} changes of responder and {failures} failures")
    return wrong


def wrong_with_counters(machines):
    """Whether the counters agree with the records, of services that were not started again."""
    wrong = []
    for machine in machines:
        # Until then a request for it goes to another machine.
        eventually(machine.serves, f"the service of {machine.name}")
        counted = sum(entry["request"]["identifier"] == "inc_repeat_count"
                      for entry in recorded(machine))
        said = machine.request("test", "get_repeat_count").stdout.strip()
        if said != str(counted):
            wrong.append(f"the counter of {machine.name} is {said}; its record has {counted}")
    return wrong


def rising_rows(numbers):
    """The fewest rows, each of which rises, that the numbers can be a mixture of."""
    last = []  # of each row, falling
    for number in numbers:
        row = bisect.bisect_left(last, -number, key=lambda each: -each)
        last[row:row + 1] = [number]
    return len(last)


def wrong_with_events(listener, publishers):
    """Each event at most once, those of one publisher in its order, and none missing but where
    the listener was told that its connection was restored, or the publisher's was lost. What a
    broker had sent before it was killed may come behind what the next one sends."""
    wrong = []
    events = listener.events()
    told = sum(event == RESTORED for event, _, _ in listener.changes())
    for publisher in publishers:
        order = {entry["request"]["uuid"]: place for place, entry in enumerate(
            each for each in recorded(publisher) if each["event"] is not None)}
        places = [order[uuid] for uuid in events if uuid in order]
        who = f"{listener.name} of {listener.machine.name}"
        deaths = publisher.broker_starts() - 1
        if rising_rows(places) > deaths + 1:
            back = [f"{now} after {before}" for before, now in zip(places, places[1:])
                    if now < before]
            wrong.append(f"{who} got events {', '.join(back)} of {publisher.name}")
        places.sort()
        repeated = [str(now) for before, now in zip(places, places[1:]) if now == before]
        if repeated:
            wrong.append(f"{who} got events {', '.join(repeated)} of {publisher.name} again")
        gaps = [f"{before + 1}–{now - 1}" for before, now in zip(places, places[1:])
                if now > before + 1]
        if len(gaps) > told + deaths:
            wrong.append(f"{who} missed events {', '.join(gaps)} of {publisher.name} and was told "
                         f"{told} times")
    return wrong
