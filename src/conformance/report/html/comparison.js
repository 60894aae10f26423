// What the run is compared with: libraries beside each other, and an earlier run.
"use strict";

// --- libraries beside each other -------------------------------------------

function comparisonCell(one, isDifferent) {
  if (!one) {
    return el("td", {}, "–");
  }
  const { failed } = checkCounts([one]);
  return el("td", { class: isDifferent && "different" }, verdictLabel(one.verdict),
    failed > 0 && el("span", { class: "aside" }, ` ${failed} failed`),
    (one.warnings ?? []).map((warning) => el("p", { class: "aside" }, `Warning: ${warning.text}`)),
    (one.remarks ?? []).map((text) => el("p", { class: "aside" }, text)));
}

function differenceNode(reference, other, difference) {
  const notRun = [reference, other].find((library) => library.cases.length === 0);
  if (notRun) {
    return el("p", {}, `${notRun.name} was not run: ${notRun.reason}`);
  }
  if (!difference) {
    return el("p", {}, `${other.name} did in every check what ${reference.name} did.`);
  }
  const check = (difference.checks[0] ?? difference.checks[1])?.check;
  const nth = (difference.checks[0] ?? difference.checks[1])?.nth;
  const side = (library, index) => el("div", {},
    el("h4", {}, library.name, ": ",
      check ? outcomeText(difference.checks[index]) : difference.cases[index]?.verdict ?? "no such case"),
    sideRecord(difference, index));
  return el("div", {},
    el("p", {}, "First difference: ", code(shortCase(difference.name)),
      check && [", ", code(check.text), ` ${check.place}`, nth > 1 && `, time ${nth}`], "."),
    el("div", { class: "beside" }, side(reference, 0), side(other, 1)));
}

// What a case came to where no check went otherwise.
function sideReasons(one) {
  const reasons = [one?.crash, ...one?.missing ?? []].filter(Boolean);
  return reasons.map((text) => el("p", {}, text));
}

// Where the check was not made, the end of the record shows how far it came.
function sideRecord(difference, index) {
  const one = difference.cases[index];
  if (difference.checks.every((found) => found === undefined)) {
    return sideReasons(one);
  }
  if (!one || one.calls.length + one.checks.length === 0) {
    return el("p", { class: "aside" }, "Nothing was recorded.");
  }
  const record = recordOf(one);
  const focus = difference.checks[index]?.check ?? record[record.length - 1].source;
  return recordTable(one, focus);
}

function repeatsCell(repeats) {
  if (!repeats) {
    return el("td", {}, "–");
  }
  return el("td", {}, verdictLabel(repeats.passed < repeats.runs || growthFails(repeats) ? "fail" : "pass"),
    el("p", { class: "aside" }, runsText(repeats)),
    growing(repeats).length > 0 && el("p", { class: "aside" }, growingText(repeats)));
}

function comparisonSection(report) {
  if (report.libraries.length < 2) {
    return null;
  }
  const [reference, ...others] = report.libraries;
  const differences = others.map((other) => firstDifference(reference, other));
  const names = [...new Set(report.libraries.flatMap((library) => library.cases.map((one) => one.name)))];
  const rows = names.map((name) => el("tr", {},
    el("th", { scope: "row" }, shortCase(name),
      differences.some((difference) => difference?.name === name)
        && el("span", { class: "aside" }, " first difference")),
    report.libraries.map((library, index) => comparisonCell(
      library.cases.find((one) => one.name === name),
      index > 0 && differences[index - 1]?.name === name))));
  if (report.libraries.some((library) => library.repeats)) {
    rows.push(el("tr", {}, el("th", { scope: "row" }, "all runs"),
      report.libraries.map((library) => repeatsCell(library.repeats))));
  }
  return section("libraries", "Libraries beside each other",
    table("Cases and libraries", ["Case", ...report.libraries.map((library) => library.name)], rows, "comparison"),
    others.map((other, index) => [
      el("h3", {}, `${reference.name} and ${other.name}`),
      differenceNode(reference, other, differences[index]),
    ]));
}

// --- an earlier run ----------------------------------------------------------

const baselineKinds = [
  ["newlyFailing", "newly failing", "fail"], ["missing", "missing", "not-run"],
  ["stillFailing", "still failing", "fail"], ["newlyPassing", "newly passing", "pass"],
];

function baselineRows(baseline) {
  const row = (kind, symbol, one, what) => el("tr", {},
    el("td", {}, el("span", { class: `verdict ${symbol}` }, mark(symbol), kind)),
    el("th", { scope: "row" }, what), el("td", {}, one.library));
  return [
    ...baselineKinds.flatMap(([key, kind, symbol]) => baseline[key].map((one) =>
      row(kind, symbol, one, [shortCase(one.name), one.ways.map((way) => [" ", code(way)])]))),
    ...baseline.slower.map((one) => row("slower", "timeout", one,
      [code(shortFunction(one.name)), ` median ${formatUs(one.p50Us)}, formerly ${formatUs(one.earlierP50Us)}`])),
  ];
}

function baselineSection(report) {
  const baseline = report.baseline;
  if (!baseline) {
    return null;
  }
  const rows = baselineRows(baseline);
  return section("baseline", "Compared with an earlier run",
    el("p", {}, verdictLabel(baseline.isWorse ? "fail" : "pass"), " ",
      baseline.isWorse ? "Something is newly failing or missing." : "Nothing is newly failing or missing.",
      " The earlier run is that of ", baseline.date, ", ", code(baseline.file), "."),
    rows.length > 0 && table("Differences to the earlier run", ["Kind", "What", "Library"], rows, "baseline"));
}
