"""What was measured: the figures of every round, and medians and ratios of them.

A results file is JSON: `measurements[case][transport]` is a list with one entry
per round, either figures or {"error": reason}.
"""

import json
from statistics import median

from .plan import PEERS, is_lower_better


def look_up(figures, path):
    """A figure by its path, "flooded.p99Us" say; None where there is none."""
    for part in path.split("."):
        if not isinstance(figures, dict) or part not in figures:
            return None
        figures = figures[part]
    return figures


class Results:
    def __init__(self, content):
        self.content = content

    @classmethod
    def read(cls, path):
        with open(path, encoding="utf-8") as file:
            return cls(json.load(file))

    def rounds(self, case, transport, figure):
        """One value per round, None where it failed."""
        entries = self.content["measurements"].get(case, {}).get(transport, [])
        return [look_up(entry, figure) for entry in entries]

    def value(self, case, transport, figure):
        """The median over the rounds that succeeded, or None."""
        values = [value for value in self.rounds(case, transport, figure) if value is not None]
        return median(values) if values else None

    def fastest_peer(self, case, figure):
        """The peer with the best median, or None."""
        known = {peer: self.value(case, peer, figure) for peer in PEERS}
        known = {peer: value for peer, value in known.items() if value is not None}
        if not known:
            return None
        return (min if is_lower_better(figure) else max)(known, key=known.get)

    def ratios(self, ours, other, less=None):
        """Of two (case, transport, figure), round by round; `less` is taken off the first."""
        first, second = self.rounds(*ours), self.rounds(*other)
        off = self.rounds(*less) if less else [0] * len(first)
        return [(a - c) / b for a, b, c in zip(first, second, off)
                if a is not None and b and c is not None]

    def transports(self, case):
        return list(self.content["measurements"].get(case, {}))

    def distribution(self, case, transport, path="distribution"):
        """Percentile and latency, the latency as the median over the rounds."""
        per_round = [each for each in self.rounds(case, transport, path) if each]
        if not per_round:
            return []
        return [(points[0][0], median(point[1] for point in points))
                for points in zip(*per_round)]

    def errors(self):
        for case, transports in self.content["measurements"].items():
            for transport, entries in transports.items():
                for number, entry in enumerate(entries):
                    if "error" in entry:
                        yield case, transport, number + 1, entry["error"]
