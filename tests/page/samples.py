"""Reports as the tool writes them, for the tests of the page.

A small imitation of the conformance module plays its cases against an imagined
library: each call and check moves a clock on, so that the records look as they do
in earnest. What differs from one sample to the next is the library.

Usage: samples.py NAME    prints that sample as JSON
"""

import copy
import json
import random
import sys

SEND = "kavri_core_ipc_initiator_command_send"
RECEIVE = "kavri_core_ipc_initiator_response_receive"
RESPONSE_CALLBACK = "kavri_core_ipc_initiator_response_receive_callback"
EVENT_CALLBACK = "kavri_core_ipc_initiator_event_receive_callback"
SUBSCRIBE = "kavri_core_ipc_initiator_event_subscribe"
UNSUBSCRIBE = "kavri_core_ipc_initiator_event_unsubscribe"
OK = "KAVRI_CORE_STATUS_NO_ERROR"
FAILED = "KAVRI_CORE_STATUS_IPC_FAILED"
CORE = "/opt/kavri/lib/libkavri-core-test.so"
TEST_THREAD, LIBRARY_THREAD = 4711, 4712
MILLISECOND, SECOND = 1_000_000, 1_000_000_000
LEVELS = {"initiatorSend/initiatorRepeatEchoNonBlocking": "should"}


class Case:
    """One case, as the imitated module plays it."""

    def __init__(self, name, at_ns, **library):
        self.random = random.Random(name)
        self.now = at_ns
        self.speed = library.get("speed", 1)
        self.library = library
        self.number = 0
        self.sent = []
        self.report = {
            "name": name, "level": LEVELS.get(name, "must"), "verdict": "pass", "beginNs": at_ns, "endNs": 0, "checks": [],
            "calls": [], "faults": [], "log": [], "missing": [], "remarks": [], "crash": "", "known": "",
            "repeat": f"kavri conformance --library /opt/kavri/lib --case {name}",
        }

    def pause(self, nanoseconds):
        self.now += int(nanoseconds * self.random.uniform(0.8, 1.3))

    def call(self, function, arguments, result, us, thread=TEST_THREAD, kind="call"):
        self.number += 1
        call = {"kind": kind, "number": self.number, "function": function, "thread": thread,
                "beginNs": self.now, "arguments": arguments, "result": result}
        self.report["calls"].append(call)
        self.pause(us * 1000 * self.speed)
        call["endNs"] = self.now
        self.pause(900)
        return call

    def check(self, line, text, left=None, right=None, thread=TEST_THREAD):
        passed = left == right
        self.report["checks"].append({
            "text": text, "place": f"test_ipc_initiator.cpp({line})", "passed": passed,
            "left": str(left or ""), "right": str(right or ""), "atNs": self.now,
            "thread": thread})
        if not passed:
            self.report["verdict"] = "fail"
            self.report["log"].append(
                f"test_ipc_initiator.cpp({line}): error: check {text} has failed [{left} != {right}]")
        self.pause(400)

    def status(self, line, call, status=0, expected=0):
        name = OK if expected == 0 else FAILED
        self.check(line, f"{name} == {call}", str(expected), str(status))

    def begin(self):
        for line, function, arguments, us in (
                (79, "kavri_core_init", {}, 14),
                (80, "kavri_core_logging_init", {"name": "ipcInitiatorTest"}, 6),
                (82, "kavri_core_ipc_initiator_init", {"options": None}, 96)):
            self.call(function, arguments, {"status": 0}, us)
            self.status(line, f"{function}(…)")
        self.check(84, "c != NULL")

    def end(self):
        for function, us in (("kavri_core_ipc_deinit", 41), ("kavri_core_logging_deinit", 4),
                             ("kavri_core_deinit", 9)):
            self.call(function, {}, {"status": 0}, us)
        self.report["endNs"] = self.now

    def send(self, line, identifier, uuid="0", payload="this is my payload"):
        self.sent.append((identifier, uuid, payload))
        self.call(SEND, {"targetCategory": "test", "targetIdentifier": identifier, "uuid": uuid,
                         "payload": payload}, {"status": 0}, 5)
        self.status(line, "send(…)")

    def receive(self, line, answer, uuid, timeout=-1, us=17):
        self.call(RECEIVE, {"timeout": timeout},
                  {"status": 0, "targetCategory": "test", "targetIdentifier": "initiator",
                   "uuid": uuid, "payload": answer}, us)
        self.status(line, "recv()")

    def deliver(self, count, kind):
        done = self.now
        for index in range(count):
            fields = {"targetCategory": "test", "targetIdentifier": "initiator",
                      "payload": "my static payload", "context": "0x87654321"}
            if kind == "response":
                fields["uuid"] = str(index)
            self.call(kind, fields, {}, 3, LIBRARY_THREAD, "delivery")
            self.check(151, "targetCategory", thread=LIBRARY_THREAD)
            self.check(155, "context == (void*)0x87654321", thread=LIBRARY_THREAD)
        self.now = done

    # --- the cases -----------------------------------------------------------

    def counts(self):
        self.begin()
        for _ in range(10):
            self.send(203, "inc_repeat_count", payload=" ")
        self.send(125, "get_repeat_count", payload=" ")
        self.receive(127, "10", "0")
        counted = self.library.get("counted", 10)
        self.check(205, "static_cast<int>(limit) == getBrokerRepeatCount()", "10", str(counted))
        self.end()

    def sends(self):
        self.begin()
        self.send(190, "initiator")
        self.receive(127, "0", "0")
        self.end()

    def echoes(self, first_line, blocking):
        self.begin()
        altered = self.library.get("altered", ())
        for index in range(10):
            payload, uuid = f"CLIENT:echo {index}", str(index)
            self.send(first_line, "echo", uuid, payload)
            if not blocking:
                self.pause(10 * MILLISECOND)
            answer = payload if index not in altered else f"CLIENT:echa {index}"
            self.receive(first_line + 1, answer, uuid, -1 if blocking else 0)
            self.check(first_line + 2, "payload == rpayload", payload, answer)
            self.check(first_line + 3, "uuid == ruuid", uuid, uuid)
        self.end()

    def static(self):
        self.begin()
        for index in range(10):
            self.send(215, "static_response", str(index))
            if self.library.get("hangs") and index == 3:
                return self.hang()
            self.receive(216, "my static payload", str(index))
            self.check(217, 'string("my static payload") == rpayload', "my static payload",
                       "my static payload")
            self.check(218, "uuid == ruuid", str(index), str(index))
        return self.end()

    def hang(self):
        self.number += 1
        self.report["calls"].append({
            "kind": "call", "number": self.number, "function": RECEIVE, "thread": TEST_THREAD,
            "beginNs": self.now, "endNs": None, "arguments": {"timeout": -1}, "result": {}})
        self.now += 5 * SECOND
        self.report.update(endNs=self.now, verdict="timeout", hang={
            "call": RECEIVE, "arguments": "timeout=-1", "seconds": 5.0,
            "lastPassed": "KAVRI_CORE_STATUS_NO_ERROR == send(…), test_ipc_initiator.cpp(215)",
            "stacks": "Thread 1 (4711):\n#0  __GI___poll (fds=0x7ffd2c, nfds=1, timeout=-1)\n"
                      "#1  kavri::core::Connection::waitForFrame ()\n#2  " + RECEIVE + " ()\n"
                      "#3  basicInitiatorFixture::recv (timeout=-1)\n"
                      "#4  initiatorRepeatStaticResponse::test_method ()\n"})

    def callbacks(self, event=False):
        self.begin()
        install, kind = (EVENT_CALLBACK, "event") if event else (RESPONSE_CALLBACK, "response")
        if event:
            self.call(SUBSCRIBE, {"category": "test"}, {"status": 0}, 21)
            self.pause(10 * MILLISECOND)
            self.status(345, 'eventSubscribe("test")')
        self.call(install, {"callback": "installed", "context": "0x87654321"}, {"status": 0}, 33)
        self.status(295, "…receive_callback(c, dummyInitiatorReceiveCallback, …)")
        begin = self.now
        self.now += 9_000
        arrived = self.library.get("arrived", 10)
        self.deliver(arrived, kind)
        self.now = begin
        for index in range(10):
            self.send(298, "event" if event else "static_response", str(index))
        if self.library.get("crashes"):
            self.report.update(
                endNs=self.now, verdict="crash",
                crash="the module was ended by SIGSEGV, in kavri_core_ipc_deinit with "
                      f"{{\"initiator\":1}} on thread {self.now % 9973}, the caller's; no check had passed")
            return
        self.now += SECOND
        self.call(install, {"callback": None, "context": None}, {"status": 0}, 12)
        self.status(309, "…receive_callback(c, NULL, NULL)")
        self.check(310, "limit == eventCounter" if event else "limit == callbackCounter", "10",
                   str(arrived))
        if event:
            self.call(UNSUBSCRIBE, {"category": "test"}, {"status": 0}, 18)
            self.status(367, 'eventUnsubscribe("test")')
        self.end()

    def refusals(self):
        self.begin()
        self.call(RESPONSE_CALLBACK, {"callback": "installed", "context": "0x87654321"},
                  {"status": 0}, 30)
        self.status(318, "…receive_callback(c, dummyInitiatorReceiveCallback, …)")
        status = self.library.get("refusal", 4)
        for line, timeout in ((321, -1), (325, 0)):
            self.call(RECEIVE, {"timeout": timeout}, {"status": status}, 1)
            self.status(line, f"recv({'' if timeout else 0})", status, 4)
        self.call(RESPONSE_CALLBACK, {"callback": None, "context": None}, {"status": 0}, 9)
        self.status(328, "…receive_callback(c, NULL, NULL)")
        self.end()


PLAY = {
    "initiatorSend/initiatorSendPass": Case.sends,
    "initiatorSend/initiatorSendRepeat": Case.counts,
    "initiatorSend/initiatorRepeatStaticResponse": Case.static,
    "initiatorSend/initiatorRepeatEcho": lambda case: case.echoes(231, True),
    "initiatorSend/initiatorRepeatEchoNonBlocking": lambda case: case.echoes(249, False),
    "initiatorSend/initiatorRepeatCallback": Case.callbacks,
    "initiatorSend/initiatorFailReceiveWithCallback": Case.refusals,
    "initiatorEvent/initiatorRepeatEventCallback": lambda case: case.callbacks(True),
}
RANKS = ["pass", "fail", "harness error", "timeout", "crash"]


def together(verdicts):
    """What several verdicts come to together."""
    if all(one == "not run" for one in verdicts):
        return "not run"
    if any(one in ("not run", "incomplete") for one in verdicts):
        return "incomplete"
    return max(verdicts, key=RANKS.index)


def play(**library):
    """All cases, one after the other; in a hang the time is over, and the rest not run."""
    cases, now = [], 91_000 * SECOND
    for name, body in PLAY.items():
        case = Case(name, now, **library)
        if any(done["verdict"] == "timeout" for done in cases):
            case.report.update(verdict="not run", beginNs=0)
        else:
            body(case)
            now = case.now + 200_000
        cases.append(case.report)
    return cases


def latencies(cases):
    """Function to count and percentiles, by nearest rank."""
    durations = {}
    for call in (call for case in cases for call in case["calls"]):
        if call["kind"] == "call" and call["endNs"] is not None:
            durations.setdefault(call["function"], []).append(
                (call["endNs"] - call["beginNs"]) / 1000)

    def rank(values, percent):
        return sorted(values)[(len(values) * percent + 99) // 100 - 1]

    return {function: {"count": len(values), "p50Us": rank(values, 50), "p90Us": rank(values, 90),
                       "p99Us": rank(values, 99), "maxUs": max(values)}
            for function, values in durations.items()}


def library(name, **behaviour):
    cases = play(**behaviour)
    verdict = together([case["verdict"] for case in cases])
    return {"name": name, "core": CORE.replace("kavri/", f"{name}/"),
            "broker": "embedded, /tmp/kavri-3f/broker.sock", "seconds": 2.21, "cases": cases,
            "latencies": latencies(cases), "verdict": verdict,
            "reason": "the 60 s were over" if verdict == "incomplete" else ""}


def report(libraries, **more):
    reasons = [one["reason"] for one in libraries if one["reason"]]
    return {"schema": 2, "command": "kavri conformance --html report.html --library /opt/kavri/lib",
            "date": "2026-11-20T12:00:00Z", "tool": "kavri 1.0.0", "seconds": 2.4,
            "verdict": together([one["verdict"] for one in libraries]),
            "reason": reasons[0] if reasons else "", "libraries": libraries,
            "requirements": [
                {"name": name, "level": LEVELS.get(name, "must"),
                 "checks": [{"text": "uuid == ruuid", "level": LEVELS.get(name, "must")}]}
                for name in PLAY],
            "complaints": [], "baseline": None, **more}


# --- the samples -------------------------------------------------------------


def repeats():
    return {"runs": 1000, "passed": 1000, "failsOnGrowth": False, "growth": [
        {"what": "module, descriptors", "first": 4, "last": 164, "most": 164, "slope": 1.6,
         "grows": True},
        {"what": "module, residentKiB", "first": 5120, "last": 5284, "most": 5284,
         "slope": None, "grows": False}]}


def healthy():
    return report([{**library("kavri"), "repeats": repeats()}], matrix=None)


def unconfirmed():
    sample = report([library("kavri")])
    verdict = "pass, not confirmed by the other side"
    sample["libraries"][0].update(verdict=verdict, confirmed=False)
    return {**sample, "verdict": verdict}


def failing():
    one = library("kavri", altered=(3, 4, 8), arrived=7, counted=11, refusal=5)
    one["cases"][0]["remarks"] = ["left behind by the library: 1 thread"]
    one["cases"][0]["output"] = "a line on standard error\n… (17 bytes more)\n"
    return report([one])


def hang():
    return report([library("kavri", hangs=True)])


def crash():
    return report([library("kavri", crashes=True)])


def several():
    return report([{**library("kavri"), "repeats": repeats()},
                   {**library("other", altered=(2,), speed=4),
                    "repeats": {**repeats(), "passed": 998}}, library("third", speed=2)])


def long_names():
    """Libraries that are called by their folders; one fails by what the other side says, one crashes."""
    folder = "libraries/of/other/makes/build/release/lib/wrong/"
    disagreeing = library(folder + "answers/uuid_of_another_request")
    disagreeing["cases"][0].update(verdict="fail", missing=[
        'response 1 was {"category":"test","identifier":"initiator","uuid":"7","payload":""}, and the '
        'service answered {"category":"test","identifier":"initiator","uuid":"0","payload":""}'])
    leaking = {**library(folder + "leaks/memory_with_every_request"),
               "repeats": {**repeats(), "failsOnGrowth": True}, "verdict": "fail"}
    return report([{**library(folder + "good"), "repeats": {**repeats(), "growth": []}},
                   {**disagreeing, "verdict": "fail", "repeats": {**repeats(), "passed": 0}}, leaking,
                   library(folder + "process/crashes_in_deinit", crashes=True),
                   *(library(folder + f"answers/right_number_{number}") for number in range(3))])


def compared():
    """With known failures, one of which is no longer true, and beside an earlier run."""
    one = library("kavri", altered=(3, 4, 8), arrived=7)
    one["cases"][3]["known"] = "the service upper-cases, ticket 12"
    case = "initiatorSend/initiatorRepeatCallback"
    return report([one], complaints=["known.txt:3: unexpected pass: initiatorSendPass is expected to fail"],
                  baseline={
        "file": "earlier.json", "date": "2026-11-19T12:00:00Z", "isWorse": True,
        "newlyFailing": [{"library": "kavri", "name": case, "ways": ["limit == callbackCounter"]}],
        "stillFailing": [{"library": "kavri", "name": "initiatorSend/initiatorRepeatEcho",
                          "ways": ["payload == rpayload"]}],
        "newlyPassing": [{"library": "kavri", "name": "initiatorSend/initiatorSendPass",
                          "ways": ["timeout"]}],
        "missing": [{"library": "kavri", "name": "initiatorSend/initiatorGone", "ways": []}],
        "slower": [{"library": "kavri", "name": SEND, "earlierP50Us": 4.5, "p50Us": 120.0}]})


def unloadable():
    """Of two libraries, one that could not be run."""
    reason = "/opt/other/lib/libkavri-core-test.so lacks kavri_core_init"
    other = {**library("other"), "cases": [], "latencies": {}, "seconds": 0,
             "verdict": "not run", "reason": reason}
    return report([library("kavri"), other])


FAULTS = [
    ("payload-altered", "A byte of every answer's payload is changed.", {"altered": range(10)}),
    ("receive-blocks", "A receive that waits never returns.", {"hangs": True}),
    ("callback-crashes", "The library ends when it would call back.", {"crashes": True}),
    ("delivery-lost", "Every third delivery is dropped.", {"arrived": 7}),
    ("count-doubled", "A request without an answer arrives twice.", {"counted": 20}),
    ("refusal-renamed", "A refused receive returns another status.", {"refusal": 5}),
    ("late-log-line", "A log line is written late.", {}),
]


def fault(index):
    name, description, behaviour = FAULTS[index % len(FAULTS)]
    cases = play(**behaviour)
    one = {"name": f"{name}-{index // len(FAULTS) + 1}", "description": description,
           "clause": f"initiator {index % 9 + 1}.{index % 4 + 1}", "fired": True, "seconds": 2.2,
           "unnoticedBecause": "" if behaviour else "nothing that the module sees depends on it",
           "cases": cases, "wrong": []}
    for case in cases:
        if case["verdict"] in ("fail", "timeout", "crash"):
            case["faults"].append({"name": name, "atNs": case["beginNs"] + 150_000,
                                   "did": description})
    return one


def matrix(count=70):
    faults = [fault(index) for index in range(count)]
    for case in faults[3]["cases"]:
        if case["verdict"] == "fail":
            case["missing"] = ["requests never reached the service: 10 were sent, its record holds "
                               f"{case['endNs'] % 7}"]
            case["checks"] = [check for check in case["checks"] if check["passed"]]
    faults[4]["wrong"] = ["initiatorSendRepeat: expected a timeout, came fail"]
    checks = {}
    for one in faults:
        for case in one["cases"]:
            for check in case["checks"]:
                names = checks.setdefault((case["name"], check["text"]), set())
                if not check["passed"]:
                    names.add(one["name"])
    killed = [{"caseName": case, "check": text, "faults": sorted(names)}
              for (case, text), names in checks.items()
              if names or text == "uuid == ruuid"]
    whole = report([library("kavri")], matrix={"faults": faults, "checks": killed, "seconds": 154.0})
    return {**whole, "verdict": "fail", "seconds": 157.1}


def hostile():
    """Texts that would be markup, or end the script, if they were taken for it."""
    bad = copy.deepcopy(failing())
    markup = "</script><script>window.hacked = 1</script><!--<script><img src=x onerror=hacked=1>"
    bad["command"] = markup
    bad["libraries"][0]["name"] = markup
    bad["libraries"][0]["broker"] = "{{script}} & \u2028 \"quoted\""
    for case in bad["libraries"][0]["cases"]:
        case["log"] = case["missing"] = case["remarks"] = [markup]
        for check in case["checks"]:
            check["text"] += markup
    return bad


SAMPLES = {function.__name__: function
           for function in (healthy, unconfirmed, failing, hang, crash, several, long_names,
                            compared, unloadable, matrix, hostile)}

if __name__ == "__main__":
    json.dump(SAMPLES[sys.argv[1]](), sys.stdout)
