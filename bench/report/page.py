"""The results as one page that needs nothing but itself."""

from html import escape

from .charts import bar_chart, line_chart
from .plan import ACTIVE, LIMITS, OURS, PAYLOADS, PEERS, SUBSCRIBERS, TITLES, TRANSPORTS
from .tables import machine_text
from .targets import outcomes
from .text import figure_text, outcome_text

# Colours on a light and on a dark ground.
COLOURS = {
    "kavri": ("#1d4ed8", "#7aa2ff"), "kavri-batched": ("#0e7490", "#4dd0e1"),
    "kavri-embedded": ("#6d28d9", "#b794f6"),
    "relay": ("#57606a", "#a0a8b0"), "relay-spin": ("#57606a", "#a0a8b0"),
    "relay-batched": ("#57606a", "#a0a8b0"), "relay-inside": ("#8c959f", "#757f88"),
    "relay-inside-spin": ("#8c959f", "#757f88"),
    "dbus": ("#b45309", "#f0a44b"), "nats": ("#15803d", "#5fcf80"),
    "zeromq": ("#be185d", "#f472b6"), "mqtt": ("#a16207", "#e0c341"),
    "redis": ("#b91c1c", "#f87171"), "module": ("#1d4ed8", "#7aa2ff"),
}
DASHES = {"relay": "7 4", "relay-spin": "2 3", "relay-batched": "9 3 2 3", "relay-inside": "7 4",
          "relay-inside-spin": "2 3"}

STYLE = """
:root { color-scheme: light dark; --ground: #fff; --ink: #1f2328; --soft: #59636e; --line: #d8dee4;
  --good: #15803d; --bad: #b91c1c; --raised: #f6f8fa; }
@media (prefers-color-scheme: dark) { :root { --ground: #0f1318; --ink: #e6eaef; --soft: #9aa4af;
  --line: #2c343d; --good: #5fcf80; --bad: #f87171; --raised: #171c22; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 1180px; padding: 2rem 1rem 4rem; background: var(--ground);
  color: var(--ink); font: 15px/1.5 system-ui, sans-serif; }
h1 { font-size: 1.6rem; margin: 0 0 .3rem; } h2 { font-size: 1.2rem; margin: 2.4rem 0 .6rem; }
p { max-width: 75ch; } .soft, figcaption { color: var(--soft); font-size: .85rem; }
.charts { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 480px), 1fr));
  gap: 1.2rem; }
figure { margin: 0; padding: .8rem; border: 1px solid var(--line); border-radius: 8px; }
figcaption { margin-bottom: .4rem; color: var(--ink); font-weight: 600; }
svg { width: 100%; height: auto; display: block; }
.grid { stroke: var(--line); stroke-width: 1; }
.tick { fill: var(--soft); font-size: 11px; } .axis, .label { fill: var(--ink); font-size: 12px; }
.series polyline { fill: none; stroke: var(--c); stroke-width: 1.8; }
.series circle, .series rect { fill: var(--c); }
.s-kavri polyline, .s-kavri-batched polyline, .s-kavri-embedded polyline { stroke-width: 3; }
.series.off { display: none; }
.legend { display: flex; flex-wrap: wrap; gap: .35rem .5rem; position: sticky; top: 0; z-index: 1;
  padding: .5rem 0; background: var(--ground); }
.legend button { display: flex; align-items: center; gap: .4rem; padding: .15rem .55rem;
  font: inherit; font-size: .82rem; color: var(--ink); background: var(--raised);
  border: 1px solid var(--line);
  border-radius: 99px; cursor: pointer; }
.legend button[aria-pressed=false] { opacity: .45; }
.legend i { width: 1.2rem; border-top: 3px solid var(--c); }
.scroll { overflow-x: auto; } table { border-collapse: collapse; width: 100%; font-size: .88rem; }
th, td { padding: .35rem .6rem; border-bottom: 1px solid var(--line); text-align: left; }
td:nth-child(4), td:nth-child(5) { font-variant-numeric: tabular-nums; white-space: nowrap; }
.yes { color: var(--good); } .no { color: var(--bad); font-weight: 600; }
"""

# A click on a name shows or hides its lines and bars.
SCRIPT = """
for (const button of document.querySelectorAll('.legend button')) {
  button.addEventListener('click', () => {
    const shown = button.getAttribute('aria-pressed') !== 'true';
    button.setAttribute('aria-pressed', shown);
    for (const each of document.querySelectorAll('svg .s-' + button.dataset.series)) {
      each.classList.toggle('off', !shown);
    }
  });
}
"""


def colour_rules():
    light = "".join(f".s-{name} {{ --c: {colours[0]}; }}" for name, colours in COLOURS.items())
    dark = "".join(f".s-{name} {{ --c: {colours[1]}; }}" for name, colours in COLOURS.items())
    dashes = "".join(f".s-{name} polyline {{ stroke-dasharray: {dash}; }}"
                     for name, dash in DASHES.items())
    return f"{light}@media (prefers-color-scheme: dark) {{ {dark} }}{dashes}"


def figure(title, drawing):
    return f"<figure><figcaption>{escape(title)}</figcaption>{drawing}</figure>" if drawing else ""


def section(title, explanation, figures):
    content = "".join(figures)
    if not content:
        return ""
    return f'<h2>{escape(title)}</h2><p class="soft">{escape(explanation)}</p>' \
           f'<div class="charts">{content}</div>'


PERCENTILES = [(0, "0"), (50, "50"), (90, "90"), (99, "99"), (99.9, "99.9"), (99.99, "99.99")]


def rarity(percent):
    """Where a percentile stands on the axis: how rare what lies above it is."""
    return 1 / (1 - percent / 100)


def distribution_chart(results, case, path="distribution"):
    series = [(name, TITLES[name],
               [(rarity(percent), us) for percent, us in results.distribution(case, name, path)])
              for name in TRANSPORTS]
    ticks = [(rarity(percent), label) for percent, label in PERCENTILES]
    return line_chart(series, ticks, "percentile", "latency, µs")


def curve(results, name, cases, path, change=lambda value: value):
    points = []
    for x, case in cases:
        value = results.value(case, name, path)
        if value is not None and value > 0:
            points.append((x, change(value)))
    return (name, TITLES[name], points)


def payload_chart(results, path, title, unit):
    cases = [(size, f"in-flight-{size}") for size in PAYLOADS]
    series = [curve(results, name, cases, path) for name in TRANSPORTS]
    return line_chart(series, list(PAYLOADS.items()), "payload", title, unit)


def clients_chart(results, path, title, change=lambda value: value, unit=""):
    cases = [(count, f"active-{count}") for count in ACTIVE]
    series = [curve(results, name, cases, path, change) for name in TRANSPORTS]
    return line_chart(series, [(count, str(count)) for count in ACTIVE], "active initiators", title,
                      unit)


def events_chart(results):
    cases = [(count, f"events-{count}") for count in SUBSCRIBERS]
    series = [curve(results, name, cases, "deliveriesPerSecond") for name in TRANSPORTS]
    return line_chart(series, [(count, str(count)) for count in SUBSCRIBERS], "subscribers",
                      "deliveries per second")


def bars(results, case, path):
    return bar_chart([(name, TITLES[name], results.value(case, name, path)) for name in TRANSPORTS],
                     path, lambda value: figure_text(path, value))


def sections(results):
    yield section(
        "Round trip", "One request of 32 bytes to a service and its response back, one after the "
        "other: how long it takes, by percentile. Medians over the rounds.",
        [figure("Cores as the scheduler chooses", distribution_chart(results, "round-trip")),
         figure("Everything on one core", distribution_chart(results, "round-trip-one-processor")),
         figure("Both cores busy with other work", distribution_chart(results, "round-trip-busy"))])
    yield section(
        "Throughput over payload size", "One initiator keeps 64 requests under way.",
        [figure("Messages per second", payload_chart(results, "messagesPerSecond",
                                                     "messages per second", "")),
         figure("Bytes per second", payload_chart(results, "bytesPerSecond", "bytes per second",
                                                  "B"))])
    yield section(
        "Responses by callback", "Requests of 32 bytes; each response is delivered on a thread of "
        "the client library. One after the other: the time from the send to the entry of the "
        "callback. 64 in flight: the callback sends the next request, or the client's own thread "
        "does.",
        [figure("Cores as the scheduler chooses", distribution_chart(results, "callback")),
         figure("Everything on one core", distribution_chart(results, "callback-one-processor")),
         figure("64 in flight, the callback sends: messages per second",
                bars(results, "callback-in-flight", "messagesPerSecond")),
         figure("64 in flight, the client's own thread sends: messages per second",
                bars(results, "callback-in-flight-own-thread", "messagesPerSecond"))])
    yield section(
        "Cost over number of clients", "Each initiator sends one request after the other.",
        [figure("Cost per message", clients_chart(results, "messagesPerSecond", "µs per message",
                                                  lambda rate: 1e6 / rate)),
         figure("99th percentile", clients_chart(results, "p99Us", "latency, µs")),
         figure("Fairness", clients_chart(results, "medianOverSlowest",
                                          "round trips, median over slowest"))])
    yield section("Events", "One publisher; every event to every subscriber.",
                  [figure("Deliveries per second", events_chart(results))])
    yield section(
        "Connections", "Coming and going, and being there.",
        [figure("Connect, one round trip, close: median", bars(results, "connect", "p50Us")),
         figure("Memory of the server for each idle initiator",
                bars(results, "idle", "serverBytesPerClient")),
         figure("Processor time of the server while 1000 initiators are idle",
                bars(results, "idle", "processor.server.processorUsPerSecond")),
         figure("Round trip beside 1000 idle initiators: median",
                bars(results, "round-trip-idle-1000", "p50Us"))])
    yield section(
        "Beside a flood", "Another initiator sends payloads of 1 MiB as fast as they go, eight "
        "under way, to a service of its own or to the same one.",
        [figure("p99 over its undisturbed value, another service flooded",
                bars(results, "flood-other", "p99Ratio")),
         figure("p99 over its undisturbed value, the same service flooded",
                bars(results, "flood-same", "p99Ratio"))])


def targets_table(results):
    rows = []
    for outcome in outcomes(results):
        limit, value, verdict = outcome_text(outcome)
        css = {True: "yes", False: "no", None: "soft"}[outcome.is_reached]
        cells = [outcome.target.title, TITLES[outcome.target.ours[1]], outcome.beside, limit, value]
        rows.append("<tr>" + "".join(f"<td>{escape(cell)}</td>" for cell in cells)
                    + f'<td class="{css}">{verdict}</td></tr>')
    return '<div class="scroll"><table><thead><tr><th></th><th>what</th><th>beside</th>' \
           "<th>target</th><th>measured</th><th></th></tr></thead><tbody>" \
           + "".join(rows) + "</tbody></table></div>"


def legend():
    return '<div class="legend">' + "".join(
        f'<button class="s-{name}" data-series="{name}" aria-pressed="true"><i></i>'
        f"{escape(TITLES[name])}</button>" for name in OURS + LIMITS + PEERS) + "</div>"


def page(results):
    failed = "".join(f"<li>{escape(case)}, {escape(TITLES[name])}, round {number}: "
                     f"{escape(reason)}</li>" for case, name, number, reason in results.errors())
    return f"""<!doctype html>
<html lang="en"><head><meta charset="utf-8"><title>kavri: measurements</title>
<meta name="viewport" content="width=device-width, initial-scale=1">
<style>{STYLE}{colour_rules()}</style></head><body>
<h1>kavri beside the limit and its peers</h1>
<p class="soft">{escape(machine_text(results))}</p>
<h2>Targets</h2>
<p class="soft">Ratios are taken round by round; their median counts, smallest and largest in
brackets.</p>
{targets_table(results)}
<h2>Measurements</h2>
{legend()}
{"".join(sections(results))}
{f"<h2>Failed</h2><ul>{failed}</ul>" if failed else ""}
<script>{SCRIPT}</script>
</body></html>
"""
