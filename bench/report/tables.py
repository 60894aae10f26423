"""Results as tables in Markdown, and putting them into the manual."""

from .plan import PAYLOADS, SUBSCRIBERS, ACTIVE, LINKED, TITLES, TRANSPORTS
from .targets import outcomes
from .text import figure_text, outcome_text

BEGIN = "<!-- results: written by bench/run --markdown -->"
END = "<!-- end of results -->"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def by_transport(results, columns):
    """One row per transport; columns are (title, case, figure)."""
    rows = []
    for transport in [*TRANSPORTS, *LINKED]:
        texts = [figure_text(figure, results.value(case, transport, figure))
                 for _, case, figure in columns]
        if any(text != "—" for text in texts):
            rows.append([TITLES[transport], *texts])
    return table(["", *[title for title, _, _ in columns]], rows)


def target_table(results):
    rows = []
    for outcome in outcomes(results):
        limit, value, verdict = outcome_text(outcome)
        rows.append([outcome.target.title, TITLES[outcome.target.ours[1]], outcome.beside, limit,
                     value, verdict])
    return table(["", "what", "beside", "target", "measured", ""], rows)


SECTIONS = [
    ("Round trip, cores as the scheduler chooses",
     [(title, "round-trip", figure) for title, figure in
      (("p50", "p50Us"), ("p99", "p99Us"), ("p99.9", "p999Us"))]),
    ("Round trip, everything on one core",
     [(title, "round-trip-one-processor", figure) for title, figure in
      (("p50", "p50Us"), ("p99", "p99Us"), ("p99.9", "p999Us"))]),
    ("Round trip, both cores busy with other work",
     [(title, "round-trip-busy", figure) for title, figure in
      (("mean", "meanUs"), ("p50", "p50Us"), ("p99", "p99Us"))]),
    ("64 in flight, messages per second",
     [(text, f"in-flight-{size}", "messagesPerSecond") for size, text in PAYLOADS.items()]),
    ("64 in flight, bytes per second",
     [(text, f"in-flight-{size}", "bytesPerSecond") for size, text in PAYLOADS.items()]),
    ("Send to callback, cores as the scheduler chooses",
     [(title, "callback", figure) for title, figure in
      (("p50", "p50Us"), ("p99", "p99Us"), ("p99.9", "p999Us"))]),
    ("Send to callback, everything on one core",
     [(title, "callback-one-processor", figure) for title, figure in
      (("p50", "p50Us"), ("p99", "p99Us"), ("p99.9", "p999Us"))]),
    ("64 in flight by callback, messages per second",
     [("the callback sends", "callback-in-flight", "messagesPerSecond"),
      ("the client's own thread sends", "callback-in-flight-own-thread", "messagesPerSecond")]),
    ("Events, deliveries per second, by subscribers",
     [(str(count), f"events-{count}", "deliveriesPerSecond") for count in SUBSCRIBERS]),
    ("Active initiators, messages per second",
     [(str(count), f"active-{count}", "messagesPerSecond") for count in ACTIVE]),
    ("Active initiators, p99",
     [(str(count), f"active-{count}", "p99Us") for count in ACTIVE]),
    ("Active initiators, median over slowest",
     [(str(count), f"active-{count}", "medianOverSlowest") for count in ACTIVE]),
    ("Connect, one round trip, close", [("p50", "connect", "p50Us"), ("p99", "connect", "p99Us")]),
    ("Idle initiators",
     [("server's memory for each", "idle", "serverBytesPerClient"),
      *[(f"processor time, {who}", "idle", f"processor.{who}.processorUsPerSecond")
        for who in ("server", "service", "clients")]]),
    ("Beside idle initiators, round trip",
     [(f"{count} idle", f"round-trip-idle-{count}", "p50Us") for count in (1, 1000)]),
    ("To another machine, by two message servers",
     [("round trip, p50", "link-round-trip", "p50Us"),
      ("64 in flight", "link-in-flight", "messagesPerSecond"),
      ("events to 16 subscribers", "link-events-16", "deliveriesPerSecond")]),
    ("A link that is not used", [("local round trip, p50", "link-unused", "p50Us"),
                                 ("memory", "link-unused-memory", "serverBytes")]),
    ("While another floods, p99",
     [("alone", "flood-other", "alone.p99Us"),
      ("another service flooded", "flood-other", "flooded.p99Us"),
      ("the same service flooded", "flood-same", "flooded.p99Us")]),
]


def machine_text(results):
    machine, settings = results.content["machine"], results.content["settings"]
    packages = ", ".join(f"{name} {version}" for name, version in machine["packages"].items())
    return (f"{results.content['date']}: {settings['rounds']} rounds of {settings['seconds']} s; "
            f"{machine['processor']}, {machine['processors']} cores, Linux {machine['kernel']}, "
            f"{machine['system']}; {packages}.")


def markdown(results):
    parts = [machine_text(results), "### Targets", target_table(results)]
    for title, columns in SECTIONS:
        if any(results.transports(case) for _, case, _ in columns):
            parts += [f"### {title}", by_transport(results, columns)]
    return "\n\n".join(parts)


def put_into(path, results):
    """Replaces what is between the two marks of the file."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    before, _, rest = text.partition(BEGIN)
    _, mark, after = rest.partition(END)
    if not mark:
        raise SystemExit(f"bench/run: {path} has no place for results: {BEGIN} … {END}")
    with open(path, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n\n{markdown(results)}\n\n{END}{after}")
