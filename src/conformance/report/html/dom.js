// Building blocks of every part of the page: elements, numbers, marks, tables.
// Text from the report only ever becomes text nodes and attributes, never markup.
"use strict";

// What the page is about; set before anything is made.
let report = null;
// The sources of the module: a file's name to its lines.
const sources = JSON.parse(document.getElementById("sources").textContent);

const svgNamespace = "http://www.w3.org/2000/svg";

function fill(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (typeof value === "function") {
      node.addEventListener(name, value);
    } else if (value !== undefined && value !== null && value !== false) {
      node.setAttribute(name, value === true ? "" : String(value));
    }
  }
  for (const child of children.flat(Infinity)) {
    if (child !== undefined && child !== null && child !== false) {
      node.append(child);
    }
  }
  return node;
}

const el = (tag, attributes, ...children) =>
  fill(document.createElement(tag), attributes, children);
const svg = (tag, attributes, ...children) =>
  fill(document.createElementNS(svgNamespace, tag), attributes, children);

// Three digits, more or less: 850 ns, 12.3 µs, 1.20 s.
function formatNs(ns) {
  const units = [[1e9, "s"], [1e6, "ms"], [1e3, "µs"]];
  const [size, unit] = units.find(([least]) => Math.abs(ns) >= least) ?? [1, "ns"];
  const value = ns / size;
  const decimals = size === 1 || Math.abs(value) >= 100 ? 0 : Math.abs(value) >= 10 ? 1 : 2;
  return `${value.toFixed(decimals)}\u202f${unit}`;
}
const formatUs = (us) => formatNs(us * 1e3);
const formatSeconds = (seconds) => formatNs(seconds * 1e9);

const counted = (count, noun, nouns = `${noun}s`) => `${count} ${count === 1 ? noun : nouns}`;

let lastId = 0;
const freshId = (prefix) => `${prefix}-${++lastId}`;

// As a class: what follows the comma in "pass, not confirmed ..." is for readers.
const verdictKind = (verdict) => verdict.split(",")[0].replace(" ", "-");

// The symbol of a verdict: a shape of its own, so that colour is never needed.
function mark(verdict) {
  const kind = verdictKind(verdict);
  return svg("svg", { class: `mark ${kind}`, "aria-hidden": "true" },
    svg("use", { href: `#mark-${kind}` }));
}
const verdictLabel = (verdict) =>
  el("span", { class: `verdict ${verdictKind(verdict)}` }, mark(verdict), verdict);

const hiddenText = (text) => el("span", { class: "unseen" }, text);
const code = (text) => el("code", {}, text);

// A table that may be wider than the page scrolls by itself, also with the keyboard.
// A narrow window shows each row as a paragraph, for which its cells know their columns.
function table(caption, columns, rows, kind = "") {
  for (const row of rows.flat(Infinity).filter((one) => !one.classList.contains("details"))) {
    columns.forEach((column, index) => row.children[index]?.setAttribute("data-column", column.text ?? column));
  }
  return el("div", { class: "scroll", tabindex: "0", role: "region", "aria-label": caption },
    el("table", { class: kind },
      el("caption", { class: "unseen" }, caption),
      el("thead", {}, el("tr", {},
        columns.map((column) => (typeof column === "string"
          ? el("th", { scope: "col" }, column)
          : el("th", { scope: "col", class: column.kind }, column.text))))),
      el("tbody", {}, rows)));
}

// A button that shows and hides `area`; what is in it is made when first shown.
function disclosure(label, area, make) {
  area.id = area.id || freshId("area");
  area.hidden = true;
  const button = el("button", {
    type: "button", class: "disclosure", "aria-expanded": "false", "aria-controls": area.id,
    click: () => show(area.hidden),
  }, label);
  function show(shown) {
    if (shown && make) {
      make();
      make = null;
    }
    area.hidden = !shown;
    button.setAttribute("aria-expanded", String(shown));
  }
  button.show = show;
  return button;
}

// The same, for a part that stands by itself.
function folded(label, make, kind = "") {
  const area = el("div", { class: "folded" });
  return el("div", { class: kind }, disclosure(label, area, () => area.append(make())), area);
}

// A command line to take along.
function copyable(text) {
  const source = code(text);
  const said = el("span", { class: "said", role: "status" });
  const button = el("button", {
    type: "button",
    click: async () => {
      try {
        await navigator.clipboard.writeText(text);
        said.textContent = "copied";
      } catch {
        // Not every browser lets a local file write to the clipboard.
        getSelection().selectAllChildren(source);
        said.textContent = "selected; copy it with Ctrl+C";
      }
    },
  }, "Copy");
  return el("div", { class: "copyable" }, source, button, said);
}

// A field and a list that leave of the rows those with all words of the field and the state
// of the list. A row: { row, detailsRow, button, words, state }.
function rowFilter(id, noun, states, rows) {
  const count = el("span", { class: "said", role: "status" });
  const text = el("input", { type: "search", id: `${id}-filter`, autocomplete: "off", input: () => apply() });
  const state = el("select", { id: `${id}-state`, change: () => apply() },
    ["all", ...states].map((name) => el("option", {}, name)));
  function apply() {
    const wanted = text.value.toLowerCase().split(/\s+/).filter(Boolean);
    let shown = 0;
    for (const one of rows) {
      const fits = wanted.every((word) => one.words.includes(word))
        && (state.value === "all" || state.value === one.state);
      one.row.hidden = !fits;
      one.detailsRow.hidden = !fits || one.button.getAttribute("aria-expanded") === "false";
      shown += fits ? 1 : 0;
    }
    count.textContent = `${shown} of ${counted(rows.length, noun)}`;
  }
  apply();
  const field = (label, input) => el("div", {}, el("label", { for: input.id }, label), input);
  return el("div", { class: "filter" }, field("Search", text), field("Show", state), count);
}

const section = (id, title, ...children) =>
  el("section", { id, "aria-labelledby": `${id}-title` },
    el("h2", { id: `${id}-title` }, title), children);
