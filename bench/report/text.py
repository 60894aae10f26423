"""Figures in words: the same on the terminal, on the page and in the manual."""


def rounded(value):
    """Three digits that mean something."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    if abs(value) >= 0.1:
        return f"{value:.2f}"
    return f"{value:.2g}"


def scaled(value, unit, digits=rounded):
    for factor, prefix in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if abs(value) >= factor:
            return f"{digits(value / factor)} {prefix}{unit}"
    return f"{digits(value)} {unit}".strip()


def figure_text(figure, value):
    """A value with its unit, by the figure's name."""
    if value is None:
        return "—"
    name = figure.rsplit(".", 1)[-1]
    if name == "bytesPerSecond" or name == "floodBytesPerSecond":
        return scaled(value, "B/s")
    if name == "processorUsPerSecond":
        return f"{rounded(value)} µs/s"
    if name.endswith("PerSecond"):
        return scaled(value, "/s")
    if name.endswith("Us"):
        return f"{rounded(value)} µs"
    if name.lower().endswith("bytesperclient"):
        return f"{value:.0f} B"
    if name == "serverBytes":
        return scaled(value, "B")
    if name == "seconds":
        return f"{value:.2f} s"
    return rounded(value)


def outcome_text(outcome):
    """Limit, value and verdict of a target."""
    target = outcome.target
    unit = target.unit if target.unit == "×" else " " + target.unit
    limit = f"{'≤' if target.is_upper else '≥'} {rounded(target.limit)}{unit}"
    if outcome.value is None:
        return limit, "not measured", "–"
    value = f"{rounded(outcome.value)}{unit}"
    if outcome.spread and outcome.spread[0] != outcome.spread[1]:
        value += f" ({rounded(outcome.spread[0])}–{rounded(outcome.spread[1])})"
    return limit, value, "reached" if outcome.is_reached else "not reached"
