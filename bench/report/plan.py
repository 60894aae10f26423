"""What is measured: the transports, and the cases with the figures they give.

A case is one command line of kavri-bench-measure, for several transports. Each
round measures every case with every transport in turn.
"""

from dataclasses import dataclass

OURS = ["kavri", "kavri-batched", "kavri-embedded"]
# Over the link of two brokers, and what it stands on: as on two machines, all on this one.
LINKED = ["kavri-link", "kavri-link-unused", "nats-joined"]
LIMITS = ["relay", "relay-spin", "relay-batched", "relay-inside", "relay-inside-spin"]
PEERS = ["dbus", "nats", "zeromq", "mqtt", "redis"]
TRANSPORTS = OURS + LIMITS + PEERS

TITLES = {
    "kavri": "kavri",
    "kavri-batched": "kavri, batched",
    "kavri-embedded": "kavri, service embedded",
    "kavri-link": "kavri, service on another machine",
    "kavri-link-unused": "kavri, link not used",
    "nats-joined": "NATS, two servers",
    "relay": "bare relay",
    "relay-spin": "bare relay, spinning",
    "relay-batched": "bare relay, batched",
    "relay-inside": "bare relay, service inside",
    "relay-inside-spin": "bare relay, inside, spinning",
    "dbus": "D-Bus (dbus-broker)",
    "nats": "NATS",
    "zeromq": "ZeroMQ",
    "mqtt": "MQTT (mosquitto)",
    "redis": "Redis",
    "module": "conformance module",
    "module-link": "conformance module, service on another machine",
}

# What takes part where one message is under way at a time: batches make no
# difference there.
SINGLE = [name for name in TRANSPORTS if not name.endswith("-batched")]
SEPARATE = [name for name in SINGLE if name not in ("kavri-embedded",) and "inside" not in name]
# Whose client library delivers on a thread of its own. The relay has one that
# reads and calls a function, which is the limit.
CALLBACK = [name for name in SINGLE if name not in ("dbus", "zeromq", "redis")]
EVENTS = [name for name in TRANSPORTS if name != "kavri-embedded" and "inside" not in name]


@dataclass(frozen=True)
class Case:
    name: str
    group: str  # what --only selects by, beside the name
    title: str
    arguments: tuple
    transports: tuple
    figure: str  # the main one, shown while measuring
    time_factor: float = 1.0  # of the usual measuring time


def case(name, group, title, arguments, transports, figure, time_factor=1.0):
    return Case(name, group, title, tuple(arguments.split()), tuple(transports), figure,
                time_factor)


PAYLOADS = {32: "32 B", 1024: "1 KiB", 65536: "64 KiB", 1048576: "1 MiB"}
SUBSCRIBERS = (1, 16, 256)
ACTIVE = (1, 16, 256, 1000)
IDLE = 1000

CASES = [
    case("round-trip", "round-trip", "Round trip, 32 B, cores as the scheduler chooses",
         "round-trip", SINGLE, "p50Us"),
    case("callback", "callback", "Send to callback, 32 B, cores as the scheduler chooses",
         "round-trip-by-callback", CALLBACK, "p50Us"),
    case("round-trip-one-processor", "round-trip", "Round trip, 32 B, everything on one core",
         "round-trip --one-processor", SINGLE, "p50Us"),
    case("callback-one-processor", "callback", "Send to callback, 32 B, everything on one core",
         "round-trip-by-callback --one-processor", CALLBACK, "p50Us"),
    case("round-trip-busy", "busy", "Round trip, 32 B, both cores busy with other work",
         "round-trip --busy 2", SEPARATE, "p50Us"),
    case("callback-in-flight", "callback", "64 in flight by callback, which sends the next",
         "in-flight-by-callback", CALLBACK, "messagesPerSecond"),
    case("callback-in-flight-own-thread", "callback",
         "64 in flight by callback, sent by the client's own thread",
         "in-flight-by-callback --refill-by-own-thread", CALLBACK, "messagesPerSecond"),
    *[case(f"in-flight-{size}", "in-flight", f"64 in flight, {text}",
           f"in-flight --payload {size}", TRANSPORTS, "messagesPerSecond")
      for size, text in PAYLOADS.items()],
    *[case(f"events-{count}", "events", f"Events to {count} subscriber{'s' * (count > 1)}",
           f"events --clients {count}", EVENTS, "deliveriesPerSecond")
      for count in SUBSCRIBERS],
    *[case(f"active-{count}", "active", f"{count} initiator{'s' * (count > 1)} active at once",
           f"active --clients {count}", SINGLE, "messagesPerSecond")
      for count in ACTIVE],
    case("connect", "connect", "Connect, one round trip, close", "connect", SINGLE, "p50Us"),
    case("idle", "idle", f"{IDLE} idle initiators", f"idle --clients {IDLE}", SINGLE,
         "serverBytesPerClient", 2.0),
    case("round-trip-idle-1", "idle-cost", "Round trip beside 1 idle initiator",
         "round-trip --idle 1", SEPARATE, "p50Us"),
    case("round-trip-idle-1000", "idle-cost", f"Round trip beside {IDLE} idle initiators",
         f"round-trip --idle {IDLE}", SEPARATE, "p50Us"),
    case("in-flight-idle-1", "idle-cost", "64 in flight beside 1 idle initiator",
         "in-flight --idle 1", ("kavri", "relay"), "messagesPerSecond"),
    case("in-flight-idle-1000", "idle-cost", f"64 in flight beside {IDLE} idle initiators",
         f"in-flight --idle {IDLE}", ("kavri", "relay"), "messagesPerSecond"),
    case("flood-other", "flood", "Round trip while another floods another service with 1 MiB",
         "flood --flood-other", SEPARATE, "p99Ratio", 2.0),
    case("flood-same", "flood", "Round trip while another floods the same service with 1 MiB",
         "flood", SINGLE, "p99Ratio", 2.0),
    case("link-round-trip", "link", "Round trip to a service on another machine, 32 B",
         "round-trip", ("kavri", "kavri-link", "nats-joined"), "p50Us"),
    case("link-in-flight", "link", "64 in flight to a service on another machine, 32 B",
         "in-flight", ("kavri-link", "nats-joined"), "messagesPerSecond"),
    case("link-events-16", "link", "Events to 16 subscribers on another machine",
         "events --clients 16", ("kavri-link", "nats-joined"), "deliveriesPerSecond"),
    case("link-unused", "link", "Round trip with and without a link that is not used, 32 B",
         "round-trip", ("kavri", "kavri-link-unused"), "p50Us"),
    case("link-unused-memory", "link", "Memory with and without a link that is not used",
         "idle", ("kavri", "kavri-link-unused"), "serverBytes"),
    case("link-module", "link", "The conformance module, service on another machine", "",
         ("module-link",), "seconds"),
    case("module", "module", "The conformance module, embedded service", "", ("module",),
         "seconds"),
]

BY_NAME = {each.name: each for each in CASES}


def is_lower_better(figure):
    return not figure.endswith("PerSecond")
