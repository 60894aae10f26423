"""Charts as SVG, drawn from numbers. Colours come from the page's style sheet,
so that the same drawing is right on a light and on a dark ground: every series
has a class of its own, `s-NAME`."""

import math
from html import escape

from .text import scaled

WIDTH, HEIGHT = 640, 360
LEFT, RIGHT, TOP, BOTTOM = 64, 14, 12, 44


class Axis:
    """A logarithmic axis from values to points."""

    def __init__(self, values, begin, end, ticks=None):
        self.low = math.log10(min(values))
        self.high = math.log10(max(values))
        if self.high - self.low < 0.3:
            self.low, self.high = self.low - 0.2, self.high + 0.2
        self.begin, self.end = begin, end
        self.ticks = ticks if ticks is not None else self.decades()

    def decades(self):
        steps = (1, 2, 5) if self.high - self.low < 2.2 else (1,)
        ticks = [step * 10.0 ** power for power in range(math.floor(self.low), math.ceil(self.high))
                 for step in steps]
        ticks.append(10.0 ** math.ceil(self.high))
        return [tick for tick in ticks if self.low - 1e-9 <= math.log10(tick) <= self.high + 1e-9]

    def at(self, value):
        share = (math.log10(value) - self.low) / (self.high - self.low)
        return self.begin + share * (self.end - self.begin)


def text(x, y, content, anchor="middle", css="tick"):
    return f'<text class="{css}" x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">' \
           f'{escape(content)}</text>'


def frame(x_axis, y_axis, x_texts, x_title, y_title, y_unit):
    parts = []
    for tick in y_axis.ticks:
        y = y_axis.at(tick)
        parts.append(f'<line class="grid" x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y:.1f}" '
                     f'y2="{y:.1f}"/>')
        parts.append(text(LEFT - 6, y + 4, scaled(tick, y_unit, "{:g}".format), "end"))
    for tick, label in zip(x_axis.ticks, x_texts):
        x = x_axis.at(tick)
        parts.append(f'<line class="grid" x1="{x:.1f}" x2="{x:.1f}" y1="{TOP}" '
                     f'y2="{HEIGHT - BOTTOM}"/>')
        parts.append(text(x, HEIGHT - BOTTOM + 16, label))
    parts.append(text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 8, x_title, css="axis"))
    middle = (TOP + HEIGHT - BOTTOM) / 2
    parts.append(f'<text class="axis" transform="translate(12 {middle:.0f}) rotate(-90)" '
                 f'text-anchor="middle">{escape(y_title)}</text>')
    return parts


def line_chart(series, x_ticks, x_title, y_title, y_unit=""):
    """`series`: (name, title, [(x, y)]); `x_ticks`: (value, text). Both axes are
    logarithmic."""
    series = [(name, title, [point for point in points if point[1] > 0])
              for name, title, points in series]
    series = [each for each in series if each[2]]
    if not series:
        return ""
    x_axis = Axis([tick for tick, _ in x_ticks], LEFT, WIDTH - RIGHT, [tick for tick, _ in x_ticks])
    y_axis = Axis([y for _, _, points in series for _, y in points], HEIGHT - BOTTOM, TOP)
    parts = frame(x_axis, y_axis, [label for _, label in x_ticks], x_title, y_title, y_unit)
    names = dict(x_ticks)
    for name, title, points in series:
        way = " ".join(f"{x_axis.at(x):.1f},{y_axis.at(y):.1f}" for x, y in points)
        parts.append(f'<g class="series s-{name}"><polyline points="{way}"/>')
        for x, y in points:
            said = f"{title}, {names.get(x, '')}: {scaled(y, y_unit)}"
            parts.append(f'<circle cx="{x_axis.at(x):.1f}" cy="{y_axis.at(y):.1f}" r="3">'
                         f'<title>{escape(said)}</title></circle>')
        parts.append("</g>")
    return svg(HEIGHT, y_title, parts)


def bar_chart(bars, what, value_text):
    """`bars`: (name, title, value), drawn from a common zero."""
    bars = [bar for bar in bars if bar[2] is not None]
    if not bars:
        return ""
    height, left, right = 24, 218, 84
    largest = max(max(value for _, _, value in bars), 1e-9)
    parts = []
    for number, (name, title, value) in enumerate(bars):
        y = number * height + 4
        width = max(0.0, value) / largest * (WIDTH - left - right)
        parts.append(text(left - 8, y + 14, title, "end", "label"))
        parts.append(f'<g class="series s-{name}"><rect x="{left}" y="{y}" width="{width:.1f}" '
                     f'height="{height - 7}" rx="2"><title>{escape(title)}: '
                     f'{escape(value_text(value))}</title></rect></g>')
        parts.append(text(left + width + 6, y + 14, value_text(value), "start", "label"))
    return svg(len(bars) * height + 8, what, parts)


def svg(height, what, parts):
    return f'<svg viewBox="0 0 {WIDTH} {height}" role="img" aria-label="{escape(what)}">' \
           + "".join(parts) + "</svg>"

