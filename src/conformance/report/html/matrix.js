// The kill matrix: which fault turned which case red, and which check was turned
// red by which faults. What is not as the catalogue says comes first. The records
// of a fault's cases are drawn only when they are asked for.
//
// Here a case that fails is good, since it detected a fault: the colour of a cell says
// whether the matrix is as it should be, and its symbol what the case came to.
"use strict";

const detectedBy = (fault) => fault.cases.filter((one) => needsAttention(one) || hasWarnings(one));

function faultState(fault) {
  if (fault.wrong.length > 0) {
    return "not as expected";
  }
  return detectedBy(fault).length > 0 ? "detected" : "not detected, as expected";
}

// What turned a cell red, in words.
function cellReasons(one) {
  if (one.verdict === "pass") {
    return (one.warnings ?? []).map((warning) => `warning: ${warning.text}`);
  }
  if (one.verdict !== "fail") {
    return [one.crash || (one.hang?.call ? `${one.verdict} in ${one.hang.call}` : one.verdict)];
  }
  const texts = [...new Set(one.checks.filter((check) => !check.passed).map((check) => check.text))];
  return texts.length > 0 ? texts : one.missing ?? [];
}
const cellReason = (one) => cellReasons(one).join("; ") || "passed";

// Without what differs from case to case: the arguments and the thread of a crash, and
// which requests the other side missed.
const sameInAllCases = (one, text) => (one.crash ? text.replace(/( with | on thread |; ).*/s, "")
  : one.missing?.includes(text) ? text.replace(/: \d.*/s, "") : text);

// What detected a fault, each kind once.
const reasonsOf = (fault) => [...new Set(detectedBy(fault).flatMap((one) => cellReasons(one).map((text) =>
  sameInAllCases(one, text).replace(/kavri_\w+/, shortFunction))))];

const isNamedWrong = (fault, one) => fault.wrong.some((text) => text.includes(shortCase(one.name)));

function matrixCell(fault, name, open) {
  const one = fault.cases.find((candidate) => candidate.name === name);
  if (!one) {
    return el("td", { class: "cell" }, hiddenText("no such case"));
  }
  const wrong = isNamedWrong(fault, one);
  const reason = `${one.verdict === "fail" ? "fail by " : ""}${cellReason(one)}${wrong ? ", not as expected" : ""}`;
  const isDetected = needsAttention(one) || hasWarnings(one);
  return el("td", {
    class: `cell ${wrong ? "wrong" : isDetected ? "detected" : "quiet"}`,
    title: `${shortCase(name)}: ${reason}`, click: () => open(one),
  }, mark(one.verdict === "pass" && isDetected ? "harness-error" : one.verdict), hiddenText(reason));
}

function faultCaseRow(one, casesArea) {
  return el("tr", {},
    el("td", {}, verdictLabel(one.verdict)),
    el("th", { scope: "row" }, shortCase(one.name),
      (needsAttention(one) || hasWarnings(one)) && [" ", code(cellReason(one))]),
    el("td", {}, el("button", { type: "button", click: () => showFaultCase(one, casesArea) },
      "Show", hiddenText(` ${shortCase(one.name)}`))));
}

function showFaultCase(one, casesArea) {
  casesArea.replaceChildren(
    el("h4", { tabindex: "-1" }, verdictLabel(one.verdict), " ", shortCase(one.name)));
  fill(casesArea, {}, [failureParts(one), caseParts(one)]);
  casesArea.firstChild.focus();
}

function faultDetails(fault) {
  const casesArea = el("div", { class: "case" });
  const node = el("div", { class: "fault-details" },
    el("p", {}, fault.description),
    el("dl", { class: "facts" },
      el("div", {}, el("dt", {}, "Clause"), el("dd", {}, fault.clause || "–")),
      fault.unnoticedBecause && el("div", {}, el("dt", {}, "Not detectable because"), el("dd", {}, fault.unnoticedBecause)),
      el("div", {}, el("dt", {}, "Took effect"), el("dd", {}, fault.fired ? "yes" : "no")),
      el("div", {}, el("dt", {}, "Time"), el("dd", {}, formatSeconds(fault.seconds)))),
    table(`Cases under ${fault.name}`, ["Verdict", "Case, and what detected the fault", "Record"],
      fault.cases.map((one) => faultCaseRow(one, casesArea))),
    casesArea);
  return { node, showCase: (one) => showFaultCase(one, casesArea) };
}

function faultRows(fault, names) {
  const cell = el("td", { colspan: String(names.length + 3) });
  const detailsRow = el("tr", { class: "details" }, cell);
  let details = null;
  const button = disclosure(fault.name, detailsRow, () => {
    details = faultDetails(fault);
    cell.append(details.node);
  });
  const open = (one) => {
    button.show(true);
    details.showCase(one);
  };
  const state = faultState(fault);
  const row = el("tr", { class: fault.wrong.length > 0 && "wrong-row" },
    el("th", { scope: "row" }, button,
      fault.wrong.map((text) => el("p", { class: "wrong-text" }, mark("harness-error"), text))),
    names.map((name) => matrixCell(fault, name, open)),
    el("td", { class: "state" }, state === "detected" ? `detected by ${detectedBy(fault).length}` : state),
    el("td", { class: "by" }, reasonsOf(fault).map((reason) => code(reason))));
  const words = [fault.name, fault.description, fault.clause, state,
    ...detectedBy(fault).map((one) => `${one.name} ${cellReason(one)}`)].join(" ").toLowerCase();
  return { row, detailsRow, words, state, button };
}

function matrixLegend() {
  const key = (kind, symbol, text) => el("li", {},
    el("span", { class: `cell ${kind}` }, mark(symbol)), ` ${text}`);
  return el("ul", { class: "keys" },
    key("detected", "fail", "the case detected the fault by a check"),
    key("detected", "timeout", "by a timeout"), key("detected", "crash", "by a crash"),
    key("detected", "harness-error", "by a warning"),
    key("quiet", "pass", "the case passed, and was not to detect it"),
    key("quiet", "not-run", "it was not run"),
    key("wrong", "harness-error", "not as the catalogue says"));
}

function matrixGrid(faults, names, rows) {
  const head = el("tr", {}, el("th", { scope: "col" }, "Fault"),
    names.map((name) => el("th", { scope: "col", class: "upright" }, el("span", {}, shortCase(name)))),
    el("th", { scope: "col", class: "state" }, "Outcome"), el("th", { scope: "col" }, "By"));
  const caption = "Faults and cases";
  return el("div", { class: "scroll", tabindex: "0", role: "region", "aria-label": caption },
    el("table", { class: "matrix" }, el("caption", { class: "unseen" }, caption),
      el("thead", {}, head),
      el("tbody", {}, rows.map(({ row, detailsRow }) => [row, detailsRow]))));
}

function killedRow(killed) {
  const names = killed.faults;
  return el("tr", { class: names.length === 0 && "wrong-row" },
    el("th", { scope: "row" }, code(killed.check)),
    el("td", {}, shortCase(killed.caseName)),
    el("td", { class: "number" }, names.length),
    el("td", {}, names.length === 0 ? [mark("harness-error"), "no fault turned it red"] : names.join(", ")));
}

function matrixSection(report) {
  const matrix = report.matrix;
  if (!matrix) {
    return null;
  }
  const names = [...new Set(matrix.faults.flatMap((fault) => fault.cases.map((one) => one.name)))];
  const inOrder = (isWrong) => matrix.faults.filter((fault) => (fault.wrong.length > 0) === isWrong);
  const faults = [...inOrder(true), ...inOrder(false)];
  const rows = faults.map((fault) => faultRows(fault, names));
  const wrong = inOrder(true).length;
  const unkilled = matrix.checks.filter((killed) => killed.faults.length === 0);
  const killed = matrix.checks.filter((one) => one.faults.length > 0);
  return section("matrix", "Kill matrix",
    el("p", {}, verdictLabel(wrong === 0 ? "pass" : "fail"), " ",
      wrong === 0 ? `All ${matrix.faults.length} faults did what the catalogue says.`
        : `${counted(wrong, "fault")} of ${matrix.faults.length} not as the catalogue says; they come first.`),
    el("p", { class: "aside" }, "A row is a library or a service that is broken in one way, a column a case of "
      + "the module. Open a fault for its description and its records."),
    matrixLegend(),
    rowFilter("fault", "fault", ["not as expected", "detected", "not detected, as expected"], rows),
    matrixGrid(faults, names, rows),
    matrix.checks.length > 0 && [
      el("h3", {}, "Checks, and the faults that turned them red"),
      table("Checks and faults", ["Check", "Case", { text: "Faults", kind: "number" }, "Which"],
        [...unkilled, ...killed].map(killedRow), "killed"),
    ]);
}
