"""What the figures are to be, and whether they are.

A ratio is taken round by round, and its median counts. "The fastest peer" is
the one with the best median.
"""

from dataclasses import dataclass
from statistics import median

from .plan import PAYLOADS, TITLES

FASTEST = "the fastest peer"


@dataclass(frozen=True)
class Target:
    title: str
    ours: tuple  # case, transport, figure
    other: tuple | None  # likewise; the transport may be FASTEST
    limit: float
    is_upper: bool  # at most, or at least
    unit: str = "×"
    less: tuple | None = None  # case, transport, figure, taken off ours first


@dataclass(frozen=True)
class Outcome:
    target: Target
    beside: str  # what it is compared with, in words
    value: float | None  # None: not measured
    spread: tuple | None  # the smallest and largest of the rounds

    @property
    def is_reached(self):
        if self.value is None:
            return None
        return self.value <= self.target.limit if self.target.is_upper \
            else self.value >= self.target.limit


def at_most(limit, title, ours, other=None, unit="×", less=None):
    return Target(title, ours, other, limit, True, unit, less)


def at_least(limit, title, ours, other):
    return Target(title, ours, other, limit, False)


def against(case, figure, transport, other):
    return (case, transport, figure), (case, other, figure)


def round_trip_targets():
    free, pinned = "round-trip", "round-trip-one-processor"
    rows = [
        (free, 0.35, "kavri", FASTEST), (free, 0.2, "kavri", "zeromq"),
        (free, 0.2, "kavri", "nats"), (free, 1.2, "kavri", "relay-spin"),
        (pinned, 1.15, "kavri", "relay"), (pinned, 0.8, "kavri", FASTEST),
        (free, 0.15, "kavri-embedded", FASTEST), (pinned, 1.25, "kavri-embedded", "relay-inside"),
        ("round-trip-busy", 1.2, "kavri", "relay"),
    ]
    where = {free: "Round trip", pinned: "Round trip, one core",
             "round-trip-busy": "Round trip, both cores busy"}
    return [at_most(limit, where[case], *against(case, "p50Us", ours, other))
            for case, limit, ours, other in rows] + [
        at_most(1.2, "Round trip, both cores busy, mean",
                *against("round-trip-busy", "meanUs", "kavri", "relay"))]


def throughput_targets():
    small = "in-flight-32"
    rate, size = "messagesPerSecond", "bytesPerSecond"
    rows = [
        at_least(0.8, "64 in flight, 32 B", *against(small, rate, "kavri", "relay")),
        at_least(1.5, "64 in flight, 32 B", *against(small, rate, "kavri", FASTEST)),
        at_least(2.5, "64 in flight, 32 B, batched",
                 *against(small, rate, "kavri-batched", FASTEST)),
    ]
    rows += [at_least(1.5, f"64 in flight, {text}",
                      *against(f"in-flight-{bytes_}", size, "kavri", FASTEST))
             for bytes_, text in PAYLOADS.items() if bytes_ > 32]
    for transport, how in (("kavri", ""), ("kavri-batched", ", gathered")):
        rows += [at_least(limit, f"Events to {count}{how}",
                          *against(f"events-{count}", "deliveriesPerSecond", transport, FASTEST))
                 for count, limit in ((1, 1.3), (16, 2), (256, 2))]
    return rows


def callback_targets():
    rows = [at_most(limit, f"Send to callback, over round trip by receive{where}",
                    (f"callback{case}", "kavri", "p50Us"), (f"round-trip{case}", "kavri", "p50Us"))
            for case, where, limit in (("", "", 1.0), ("-one-processor", ", one core", 1.2))]
    return rows + [at_least(0.8, "64 in flight by callback instead of by receive",
                            ("callback-in-flight", "kavri", "messagesPerSecond"),
                            ("in-flight-32", "kavri", "messagesPerSecond"))]


def client_targets():
    rows = [at_most(0.75, "Connect, one round trip, close",
                    *against("connect", "p50Us", "kavri", FASTEST)),
            at_most(1024, "Memory per idle initiator",
                    ("idle", "kavri", "serverBytesPerClient"), unit="B")]
    # The clients' process looks at its own clock, which costs some microseconds.
    for who, limit in (("server", 0), ("service", 0), ("clients", 100)):
        rows.append(at_most(limit, f"Idle processor time, {who}",
                            ("idle", "kavri", f"processor.{who}.processorUsPerSecond"),
                            unit="µs/s"))
    rows += [
        at_most(1.1, "Cost of a round trip beside 1000 idle instead of 1",
                ("round-trip-idle-1000", "kavri", "p50Us"),
                ("round-trip-idle-1", "kavri", "p50Us")),
        at_least(1 / 1.1, "Messages/s beside 1000 idle instead of 1",
                 ("in-flight-idle-1000", "kavri", "messagesPerSecond"),
                 ("in-flight-idle-1", "kavri", "messagesPerSecond")),
        at_least(1 / 1.5, "Messages/s of 1000 active instead of 1",
                 ("active-1000", "kavri", "messagesPerSecond"),
                 ("active-1", "kavri", "messagesPerSecond")),
        at_most(3, "p99 while another service is flooded, over undisturbed",
                ("flood-other", "kavri", "p99Ratio")),
        at_most(3, "p99 while the same service is flooded, over undisturbed",
                ("flood-same", "kavri", "p99Ratio")),
        at_most(2.2, "The conformance module", ("module", "module", "seconds"), unit="s"),
    ]
    return rows


def link_targets():
    trip, unused, memory = "link-round-trip", "link-unused", "link-unused-memory"
    return [
        at_most(1.3, "Round trip across the link, less a local one",
                *against(trip, "p50Us", "kavri-link", "nats-joined"),
                less=(trip, "kavri", "p50Us")),
        at_least(0.8, "64 in flight across the link",
                 *against("link-in-flight", "messagesPerSecond", "kavri-link", "nats-joined")),
        at_least(1, "Events to 16 across the link",
                 *against("link-events-16", "deliveriesPerSecond", "kavri-link", "nats-joined")),
        at_most(1.02, "Local round trip",
                *against(unused, "p50Us", "kavri-link-unused", "kavri")),
        at_most(1.02, "Memory of the broker",
                *against(memory, "serverBytes", "kavri-link-unused", "kavri")),
        at_most(2.4, "The conformance module", ("link-module", "module-link", "seconds"),
                unit="s"),
    ]


def targets():
    return (round_trip_targets() + throughput_targets() + callback_targets() + client_targets()
            + link_targets())


def outcome_of(target, results):
    if target.other is None:
        values = [each for each in results.rounds(*target.ours) if each is not None]
        return finished(target, "", values)
    case, transport, figure = target.other
    if transport == FASTEST:
        transport = results.fastest_peer(case, figure)
        if transport is None:
            return finished(target, FASTEST, [])
        beside = f"{FASTEST}: {TITLES[transport]}"
    else:
        beside = TITLES[transport]
    if case != target.ours[0]:
        beside = "itself"
    return finished(target, beside,
                    results.ratios(target.ours, (case, transport, figure), target.less))


def finished(target, beside, values):
    if not values:
        return Outcome(target, beside, None, None)
    return Outcome(target, beside, median(values), (min(values), max(values)))


def outcomes(results):
    return [outcome_of(target, results) for target in targets()]
