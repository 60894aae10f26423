// All about one case: its record as a table, its checks, and what went wrong in it.
"use strict";

const contextEntries = 4;

// --- values of a failed check ----------------------------------------------

// Marks where the value parts from the other.
function valueNode(value, other) {
  let same = 0;
  while (same < value.length && same < other.length && value[same] === other[same]) {
    ++same;
  }
  return el("code", { class: "value" }, value.slice(0, same),
    value.length > same && el("mark", {}, value.slice(same)),
    value === "" && el("span", { class: "empty" }, "(empty)"));
}

function valuesNode(check) {
  if (!hasValues(check)) {
    return null;
  }
  const [left, right] = sidesOf(check);
  return el("dl", { class: "values" },
    el("div", {}, el("dt", {}, left), el("dd", {}, valueNode(check.left, check.right))),
    el("div", {}, el("dt", {}, right), el("dd", {}, valueNode(check.right, check.left))));
}

// --- the source --------------------------------------------------------------

const sourceContext = 3;

// The lines around a place, "FILE(LINE)"; null where the page has not that file.
function sourceNode(place) {
  const [, file, number] = /([^/]+)\((\d+)\)$/.exec(place) ?? [];
  const lines = sources[file];
  if (!lines || number > lines.length) {
    return null;
  }
  const first = Math.max(1, number - sourceContext);
  const shown = lines.slice(first - 1, Number(number) + sourceContext);
  const indent = Math.min(...shown.filter(Boolean).map((text) => text.search(/\S/)));
  return el("pre", { class: "source", tabindex: "0", "aria-label": `Source around ${place}` },
    shown.map((text, index) => {
      const isPlace = first + index === Number(number);
      return el(isPlace ? "mark" : "span", { class: "line" },
        el("span", { class: "line-number" }, first + index), isPlace && hiddenText(" here: "),
        `${text.slice(indent)}\n`);
    }));
}

// The place of a check, which opens to the source there.
const placeNode = (place) => (sourceNode(place) === null ? el("span", { class: "aside" }, place)
  : folded(place, () => sourceNode(place), "place"));

// --- the record ------------------------------------------------------------

function entryText(entry) {
  const source = entry.source;
  switch (entry.kind) {
    case "check":
      return el("td", {}, mark(source.passed ? "pass" : "fail"),
        hiddenText(source.passed ? "passed: " : "failed: "), code(source.text), " ",
        el("span", { class: "aside" }, source.place), !source.passed && valuesNode(source));
    case "fault":
      return el("td", {}, mark("fault"), ` fault ${source.name}: ${source.did}`);
    default:
      return el("td", {},
        entry.kind === "delivery" && "callback ",
        el("code", { title: source.function }, el("b", {}, shortFunction(source.function)),
          `(${argumentsText(source)})`),
        resultText(source) && [" → ", code(resultText(source))]);
  }
}

// What a row that is looked at shows: only a check that failed and a call that did not
// return are wrong by themselves.
function focusKind(entry) {
  if (entry.kind === "check") {
    return entry.source.passed ? "passed" : "";
  }
  return entry.endNs === null ? "" : "returned";
}

function recordRow(entry, span, threads, isFocus) {
  const took = entry.kind !== "call" && entry.kind !== "delivery" ? ""
    : entry.endNs === null ? "–" : formatNs(entry.endNs - entry.atNs);
  return el("tr", { class: isFocus && `focus-row ${focusKind(entry)}` },
    el("td", { class: "number" }, formatNs(entry.atNs - span.beginNs)),
    el("td", { class: "aside" }, (threads.get(entry.thread) ?? "probe").replace(/('s)? thread/, "")),
    entryText(entry),
    el("td", { class: "number" }, took));
}

const recordColumns = [{ text: "At", kind: "number" }, "Thread", "What",
  { text: "Took", kind: "number" }];

// The whole record, or the few entries around the one whose source is `focus`.
function recordTable(one, focus = null) {
  const record = recordOf(one);
  const threads = threadNames(record);
  const span = spanOf(one, record);
  const at = record.findIndex((entry) => entry.source === focus);
  const shown = at < 0 ? record : record.slice(Math.max(0, at - contextEntries), at + contextEntries + 1);
  return table(`${at < 0 ? "Record" : "Record around the failure"} of ${one.name}`, recordColumns,
    shown.map((entry) => recordRow(entry, span, threads, entry.source === focus)), "record");
}

// --- the checks ------------------------------------------------------------

function checkRow(group, name) {
  const failed = group.failures.length;
  const times = group.total === 1 ? "" : failed === 0 ? `${group.total} ×`
    : `${failed} of ${group.total} ×`;
  return el("tr", {},
    el("td", {}, verdictLabel(failed === 0 ? "pass" : "fail")),
    el("td", { class: "number" }, times),
    el("td", { class: "aside" }, levelOfCheck(name, group.text)),
    el("th", { scope: "row" }, code(group.text), " ", placeNode(group.place),
      group.failures.slice(0, 20).map(({ nth, check }) => hasValues(check)
        && el("div", { class: "nth" }, group.total > 1 && el("span", { class: "aside" }, `time ${nth}`),
          valuesNode(check)))));
}

const checkTable = (one) => table(`Checks of ${one.name}`,
  ["Outcome", { text: "Times", kind: "number" }, "Level", "Check"],
  checkGroups(one.checks).map((group) => checkRow(group, one.name)), "checks");

// --- what went wrong -------------------------------------------------------

function hangNode(hang) {
  return el("div", { class: "hang" },
    el("p", {}, hang.call
      ? [code(`${hang.call}(${hang.arguments})`), ` had not returned after ${hang.seconds.toFixed(1)} s.`]
      : `No call was under way; the case had not ended after ${hang.seconds.toFixed(1)} s.`),
    el("p", {}, hang.lastPassed ? ["Last check that passed: ", code(hang.lastPassed)]
      : "No check had passed before."),
    hang.stacks
      ? folded("Stacks of all threads", () => el("pre", { tabindex: "0" }, hang.stacks))
      : el("p", { class: "aside" }, "No debugger was there to take the stacks."));
}

function failedGroupNode(group) {
  const [{ check }] = group.failures;
  const failed = group.failures.length;
  return el("li", {}, mark("fail"), hiddenText("failed: "), code(group.text), " ",
    el("span", { class: "aside" }, group.place,
      group.total > 1 && `, failed ${failed} of ${group.total} times`),
    valuesNode(check), sourceNode(group.place));
}

// What the public headers forbid and the record shows, with the sentence that says so.
function warningsNode(one) {
  return hasWarnings(one) && el("ul", { class: "warnings" }, one.warnings.map((warning) =>
    el("li", {}, el("b", {}, "Warning: "), warning.text,
      warning.times > 1 && `, ${warning.times} times`,
      el("blockquote", {}, warning.sentence, " ", el("cite", {}, warning.header)))));
}

// What a reader wants first of a case that did not pass.
function failureParts(one) {
  const groups = checkGroups(one.checks).filter((group) => group.failures.length > 0);
  const firstFailed = one.checks.find((check) => !check.passed);
  const lastCall = one.calls.find((call) => (call.endNs ?? null) === null) ?? one.calls[one.calls.length - 1];
  // Where only the other side tells that it failed, no place in the record is to blame.
  const focus = firstFailed ?? (one.verdict === "fail" ? null : lastCall);
  return [
    one.known && el("p", { class: "known" }, `A known failure: ${one.known}`),
    one.crash && el("p", { class: "crash-text" }, mark("crash"), one.crash),
    one.crashStack && folded("Stack of the thread that ended the process",
      () => el("pre", { tabindex: "0" }, one.crashStack)),
    one.hang && hangNode(one.hang),
    groups.length > 0 && el("ul", { class: "failed-checks" }, groups.map(failedGroupNode)),
    one.missing?.length > 0 && el("ul", { class: "missing" },
      one.missing.map((text) => el("li", {}, text))),
    needsAttention(one) && warningsNode(one),
    needsAttention(one) && focus && [
      el("p", { class: "label" }, firstFailed ? "Around the first failed check" : "Before it ended"),
      recordTable(one, focus),
    ],
    one.log?.length > 0 && folded(`Log, ${counted(one.log.length, "entry", "entries")}`,
      () => el("pre", { tabindex: "0" }, one.log.join("\n"))),
    one.repeat && [el("p", { class: "label" }, "Run it again"), copyable(one.repeat)],
  ];
}

const outputNode = (one) => one.output
  && folded("What the module printed", () => el("pre", { tabindex: "0" }, one.output));

// The parts that every case has.
function caseParts(one) {
  if (one.checks.length === 0 && one.calls.length === 0) {
    return [el("p", { class: "aside" }, "Nothing was recorded of this case."), outputNode(one)];
  }
  return [
    one.remarks?.length > 0 && el("ul", { class: "remarks" },
      one.remarks.map((text) => el("li", {}, text))),
    !needsAttention(one) && warningsNode(one),
    one.calls.length > 0 && new TimeLine(one).node,
    folded("Record as a table", () => recordTable(one)),
    outputNode(one),
    one.checks.length > 0 && checkTable(one),
  ];
}
