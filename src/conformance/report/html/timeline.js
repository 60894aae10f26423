// The time line of one case: a lane per thread, with calls, deliveries, checks and
// the pauses between calls, to scale. "Fit to calls" folds every stretch in which
// nothing begins or ends, so that a second of sleep does not hide the microseconds
// around it; a folded stretch is hatched and says how long it is.
//
// The time of the report is mapped to a "place", which is the same but for the
// folded stretches; the view is a range of places, and zooming changes that.
"use strict";

const laneHeight = 50;
const barHeight = 16;
const leastMarkPx = 3;
const axisHeight = 22;

class TimeLine {
  constructor(one) {
    this.record = recordOf(one);
    this.threads = threadNames(this.record);
    this.lanes = [...this.threads.keys()];
    this.span = spanOf(one, this.record);
    this.marks = this.makeMarks();
    this.selected = -1;
    this.hatchId = freshId("hatch");
    this.faultRow = this.marks.some((item) => item.kind === "fault") ? 16 : 0;
    this.height = this.faultRow + this.lanes.length * laneHeight + axisHeight;
    this.node = this.makeNode(one);
    this.setFolded(this.quietShare() > 0.8);
    new ResizeObserver(() => this.draw()).observe(this.plot);
  }

  // --- what is drawn -------------------------------------------------------

  makeMarks() {
    const marks = this.record.map((entry) => ({
      kind: entry.kind,
      lane: this.lanes.indexOf(entry.thread),
      from: entry.atNs,
      to: entry.endNs ?? this.span.endNs,
      open: entry.endNs === null,
      failed: entry.kind === "check" && !entry.source.passed,
      label: entry.kind === "call" || entry.kind === "delivery"
        ? shortFunction(entry.source.function) : "",
      entry,
    }));
    return [...marks, ...this.pauses(marks)].sort((a, b) => a.from - b.from);
  }

  // The pauses of the test thread, which is lane 0.
  pauses(marks) {
    const calls = marks.filter((item) => item.kind === "call" && item.lane === 0);
    const found = [];
    let end = Infinity;
    for (const call of [...calls, { from: this.span.endNs, to: this.span.endNs }]) {
      if (call.from - end > longPauseNs) {
        found.push({ kind: "pause", lane: 0, from: end, to: call.from, label: "" });
      }
      end = end === Infinity ? call.to : Math.max(end, call.to);
    }
    return found;
  }

  // --- time and place ------------------------------------------------------

  quietStretches() {
    const times = new Set([this.span.beginNs, this.span.endNs]);
    for (const entry of this.record) {
      times.add(entry.atNs);
      times.add(entry.endNs ?? entry.atNs);
    }
    const sorted = [...times].sort((a, b) => a - b);
    return sorted.slice(1).map((to, index) => ({ from: sorted[index], to }))
      .filter(({ from, to }) => to - from > longPauseNs);
  }

  quietShare() {
    const quiet = this.quietStretches().reduce((sum, { from, to }) => sum + to - from, 0);
    return quiet / Math.max(1, this.span.endNs - this.span.beginNs);
  }

  setFolded(isFolded) {
    this.isFolded = isFolded;
    this.pieces = this.makePieces(isFolded ? this.quietStretches() : []);
    this.last = this.pieces[this.pieces.length - 1].placeTo;
    this.view = [0, this.last];
    this.wholeButton.setAttribute("aria-pressed", String(!isFolded));
    this.fitButton.setAttribute("aria-pressed", String(isFolded));
    this.draw();
  }

  makePieces(folds) {
    const whole = Math.max(1, this.span.endNs - this.span.beginNs);
    const quiet = folds.reduce((sum, { from, to }) => sum + to - from, 0);
    const foldLength = Math.max(1, whole - quiet) * Math.min(0.12, 0.5 / Math.max(1, folds.length));
    const pieces = [];
    let [time, place] = [this.span.beginNs, 0];
    const add = (to, length, fold) => {
      pieces.push({ from: time, to, placeFrom: place, placeTo: place + length, fold });
      time = to;
      place += length;
    };
    for (const { from, to } of folds) {
      if (from > time) {
        add(from, from - time, false);
      }
      add(to, foldLength, true);
    }
    if (this.span.endNs > time || pieces.length === 0) {
      add(Math.max(this.span.endNs, time + 1), Math.max(1, this.span.endNs - time), false);
    }
    return pieces;
  }

  placeOf(time) {
    const piece = this.pieces.find(({ to }) => time <= to) ?? this.pieces[this.pieces.length - 1];
    const share = (time - piece.from) / Math.max(1, piece.to - piece.from);
    return piece.placeFrom + share * (piece.placeTo - piece.placeFrom);
  }

  xOf(place) {
    return ((place - this.view[0]) / (this.view[1] - this.view[0])) * this.width;
  }

  // --- drawing -------------------------------------------------------------

  draw() {
    const width = this.plot.clientWidth;
    if (width === 0) {
      return;  // not laid out yet; the observer calls again
    }
    this.width = width;
    const drawing = svg("svg", { width, height: this.height, "aria-hidden": "true" },
      this.hatch(), this.drawAxis(), this.lanes.map((id, index) => this.drawLane(id, index)),
      this.drawFolds(), this.marks.map((item, index) => this.drawMark(item, index)));
    this.plot.replaceChildren(drawing);
  }

  hatch() {
    return svg("defs", {}, svg("pattern", {
      id: this.hatchId, width: 6, height: 6, patternUnits: "userSpaceOnUse",
      patternTransform: "rotate(45)",
    }, svg("path", { class: "hatch", d: "M0 0V6" })));
  }

  drawLane(id, index) {
    const top = this.faultRow + index * laneHeight;
    return svg("g", {},
      svg("line", { class: "rail", x1: 0, x2: this.width, y1: top + 26, y2: top + 26 }),
      svg("text", { class: "lane", x: 0, y: top + 12 }, this.threads.get(id)));
  }

  drawFolds() {
    return this.pieces.filter((piece) => piece.fold).map((piece) => {
      const [x1, x2] = [this.xOf(piece.placeFrom), this.xOf(piece.placeTo)];
      const text = formatNs(piece.to - piece.from);
      return [
        svg("rect", {
          fill: `url(#${this.hatchId})`, x: x1, width: Math.max(1, x2 - x1),
          y: this.faultRow + 16, height: this.height - axisHeight - this.faultRow - 16,
        }),
        x2 - x1 > text.length * 6 && svg("text", {
          class: "fold", x: (x1 + x2) / 2, y: this.height - 8,
        }, text),
      ];
    });
  }

  drawAxis() {
    const bottom = this.height - axisHeight;
    const perPx = (this.view[1] - this.view[0]) / this.width;
    const step = niceStep(perPx * 90);
    const lines = [svg("line", { class: "axis", x1: 0, x2: this.width, y1: bottom, y2: bottom })];
    let free = -Infinity;
    for (const piece of this.pieces.filter(({ fold }) => !fold)) {
      const origin = this.span.beginNs;
      const visibleFrom = Math.max(piece.from, piece.from + this.view[0] - piece.placeFrom);
      const visibleTo = Math.min(piece.to, piece.from + this.view[1] - piece.placeFrom);
      const first = Math.ceil((visibleFrom - origin) / step) * step;
      for (let at = first; at <= visibleTo - origin; at += step) {
        const x = this.xOf(this.placeOf(origin + at));
        const text = tickText(at, step);
        const half = text.length * 3.2;
        lines.push(svg("line", { class: "axis", x1: x, x2: x, y1: bottom, y2: bottom + 4 }));
        const textX = Math.min(Math.max(x, half), this.width - half);
        if (textX - half > free && this.isClearOfFolds(textX, half)) {
          lines.push(svg("text", { class: "tick", x: textX, y: bottom + 15 }, text));
          free = textX + half + 6;
        }
      }
    }
    return lines;
  }

  // A folded stretch has its own text at the same height.
  isClearOfFolds(x, half) {
    return this.pieces.every((piece) => !piece.fold
      || this.xOf(piece.placeTo) < x - half || this.xOf(piece.placeFrom) > x + half);
  }

  drawMark(item, index) {
    const [x1, x2] = [this.xOf(this.placeOf(item.from)), this.xOf(this.placeOf(item.to))];
    if (x2 < -5 || x1 > this.width + 5) {
      return null;
    }
    const isSelected = index === this.selected ? " selected" : "";
    const top = this.faultRow + item.lane * laneHeight;
    switch (item.kind) {
      case "check":
        return svg("path", {
          class: `check ${item.failed ? "fail" : "pass"}${isSelected}`,
          d: item.failed ? `M${x1 - 4} ${top + 38}l8 8m0 -8l-8 8` : `M${x1} ${top + 38}v6`,
        });
      case "fault":
        return svg("path", { class: `fault${isSelected}`, d: `M${x1} 2h9l-3 4 3 4h-9v${this.height - axisHeight - 10}` });
      case "pause":
        return svg("path", {
          class: `pause${isSelected}`, d: `M${x1 + 2} ${top + 22}v8m0 -4H${x2 - 2}m0 -4v8`,
        });
      default:
        return this.drawBar(item, x1, x2, top + 18, isSelected);
    }
  }

  drawBar(item, x1, x2, y, isSelected) {
    const left = Math.max(x1, -5);
    const width = Math.max(leastMarkPx, Math.min(x2, this.width + 5) - left);
    const fits = width > item.label.length * 6.3 + 8;
    return [
      svg("rect", {
        class: `bar ${item.kind}${item.open ? " open" : ""}${isSelected}`,
        x: left, y, width, height: barHeight, rx: 1.5,
      }),
      fits && svg("text", { class: "bar-label", x: left + 4, y: y + 12 }, item.label),
    ];
  }

  // --- moving about --------------------------------------------------------

  zoom(factor, x = this.width / 2) {
    const length = this.view[1] - this.view[0];
    const longest = this.last;
    const wanted = Math.min(longest, Math.max(Math.min(500, longest), length * factor));
    const anchor = this.view[0] + (x / this.width) * length;
    this.moveTo(anchor - (x / this.width) * wanted, wanted);
  }

  pan(px) {
    const length = this.view[1] - this.view[0];
    this.moveTo(this.view[0] + (px / this.width) * length, length);
  }

  moveTo(from, length) {
    const begin = Math.min(Math.max(0, from), this.last - length);
    this.view = [begin, begin + length];
    this.draw();
  }

  select(index) {
    if (index < 0 || index >= this.marks.length) {
      return;
    }
    this.selected = index;
    const item = this.marks[index];
    const [from, to] = [this.placeOf(item.from), this.placeOf(item.to)];
    if (to < this.view[0] || from > this.view[1]) {
      const length = this.view[1] - this.view[0];
      this.moveTo((from + to - length) / 2, length);
    } else {
      this.draw();
    }
    this.readout.replaceChildren(...this.describe(item));
  }

  describe(item) {
    const at = `at ${formatNs(item.from - this.span.beginNs)}, ${this.threads.get(this.lanes[item.lane]) ?? "probe"}`;
    const source = item.entry?.source;
    const took = item.open ? `did not return in ${formatNs(item.to - item.from)}`
      : `took ${formatNs(item.to - item.from)}`;
    switch (item.kind) {
      case "check":
        return [verdictLabel(source.passed ? "pass" : "fail"), " ", code(source.text), " ", source.place,
          !source.passed && hasValues(source) && [` — ${source.left} and ${source.right}`], `, ${at}`].flat().filter(Boolean);
      case "fault":
        return [mark("fault"), ` fault ${source.name}: ${source.did}, ${at}`];
      case "pause":
        return [`no call for ${formatNs(item.to - item.from)}, from ${formatNs(item.from - this.span.beginNs)} on`];
      default:
        return [code(`${source.function}(${argumentsText(source)})`), " ",
          resultText(source) && `→ ${resultText(source)} `, `${took}, ${at}`].filter(Boolean);
    }
  }

  // --- the parts around the drawing ----------------------------------------

  makeNode(one) {
    const button = (text, label, act) =>
      el("button", { type: "button", "aria-label": label, title: label, click: act }, text);
    this.wholeButton = button("Whole case", "Whole case, to scale (key 0)", () => this.setFolded(false));
    this.fitButton = button("Fit to calls", "Fit to calls: fold what is quiet (key F)", () => this.setFolded(true));
    this.readout = el("p", { class: "readout", "aria-live": "polite" },
      "Point at a mark, or focus the time line and use the arrow keys.");
    this.plot = el("div", {
      class: "plot", tabindex: "0", role: "application",
      "aria-label": `Time line of ${shortCase(one.name)}. Arrow keys go from mark to mark, plus and minus `
        + "zoom, shift with an arrow key moves, 0 shows the whole case, F fits to calls. "
        + "The record below has the same as a table.",
      keydown: (event) => this.onKey(event),
      pointermove: (event) => this.onPointer(event),
      pointerdown: (event) => this.onPointerDown(event),
    });
    // The wheel scrolls the page, unless the time line was chosen.
    this.plot.addEventListener("wheel", (event) => this.onWheel(event), { passive: false });
    return el("figure", { class: "timeline" },
      el("div", { class: "tools", role: "group", "aria-label": "Time line" },
        this.wholeButton, this.fitButton,
        button("−", "Zoom out (key −)", () => this.zoom(1.6)),
        button("+", "Zoom in (key +)", () => this.zoom(1 / 1.6)),
        el("span", { class: "hint" }, "click it, then the wheel zooms and dragging moves")),
      this.plot, this.readout, timeLineLegend(this.marks));
  }

  onKey(event) {
    const step = event.key === "ArrowRight" ? 1 : event.key === "ArrowLeft" ? -1 : 0;
    const actions = {
      "+": () => this.zoom(1 / 1.6), "=": () => this.zoom(1 / 1.6), "-": () => this.zoom(1.6),
      "0": () => this.setFolded(false), f: () => this.setFolded(true), F: () => this.setFolded(true),
      Home: () => this.select(0), End: () => this.select(this.marks.length - 1),
    };
    if (event.ctrlKey || event.metaKey || event.altKey) {
      return;
    }
    if (step !== 0 && event.shiftKey) {
      this.pan((step * this.width) / 5);
    } else if (step !== 0) {
      this.select(this.selected + step);
    } else if (actions[event.key]) {
      actions[event.key]();
    } else {
      return;
    }
    event.preventDefault();
  }

  onWheel(event) {
    if (!event.ctrlKey && document.activeElement !== this.plot) {
      return;
    }
    event.preventDefault();
    if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
      this.pan(event.deltaX);
    } else {
      this.zoom(Math.exp(event.deltaY / 300), event.offsetX);
    }
  }

  onPointerDown(event) {
    this.dragFrom = event.clientX;
    this.plot.setPointerCapture(event.pointerId);
  }

  onPointer(event) {
    if (event.buttons !== 0 && this.dragFrom !== undefined) {
      this.pan(this.dragFrom - event.clientX);
      this.dragFrom = event.clientX;
      return;
    }
    const box = this.plot.getBoundingClientRect();
    const index = this.markAt(event.clientX - box.left, event.clientY - box.top);
    if (index >= 0 && index !== this.selected) {
      this.select(index);
    }
  }

  // The mark under the pointer, or else the nearest: many are three pixels wide.
  markAt(x, y) {
    const lane = Math.floor((y - this.faultRow) / laneHeight);
    const inChecks = (y - this.faultRow) % laneHeight > 36;
    let [best, bestDistance] = [-1, 8];
    this.marks.forEach((item, index) => {
      const fits = item.kind === "fault" ? y < this.faultRow
        : item.lane === lane && (item.kind === "check") === inChecks;
      if (!fits) {
        return;
      }
      const [x1, x2] = [this.xOf(this.placeOf(item.from)), this.xOf(this.placeOf(item.to))];
      const distance = x < x1 ? x1 - x : Math.max(0, x - Math.max(x2, x1 + leastMarkPx));
      // A delivery made within a call lies on top of it.
      if (distance < bestDistance || (distance === 0 && bestDistance === 0)) {
        [best, bestDistance] = [index, distance];
      }
    });
    return best;
  }
}

// 1, 2 or 5 times a power of ten, at least `least` and at least a nanosecond.
function niceStep(least) {
  const power = 10 ** Math.floor(Math.log10(Math.max(1, least)));
  return power * ([1, 2, 5].find((factor) => factor * power >= least) ?? 10);
}

// With as many digits as tell one tick from the next.
function tickText(ns, step) {
  const [size, unit] = [[1e9, "s"], [1e6, "ms"], [1e3, "µs"]].find(([least]) => ns >= least)
    ?? [1, "ns"];
  const decimals = Math.max(0, Math.ceil(Math.log10(size / step) - 1e-9));
  return ns === 0 ? "0" : `${(ns / size).toFixed(decimals)}\u202f${unit}`;
}

function timeLineLegend(marks) {
  const texts = {
    call: "call", delivery: "call of a callback", pause: "no call",
    check: "check", failed: "failed check", fault: "fault",
  };
  const present = new Set(marks.map((item) => (item.failed ? "failed" : item.kind)));
  return el("figcaption", { class: "legend" },
    Object.keys(texts).filter((kind) => present.has(kind))
      .map((kind) => el("span", { class: `key ${kind}` }, texts[kind])),
    marks.some((item) => item.open) && el("span", { class: "key open" }, "did not return"));
}
