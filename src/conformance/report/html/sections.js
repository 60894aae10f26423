// The sections about the run itself: overview, failures, cases, latencies, repeats.
"use strict";

// --- overview --------------------------------------------------------------

// [text, whether something is wrong with it] each.
function repeatFacts(repeats) {
  return !repeats ? [] : [[runsText(repeats), repeats.passed < repeats.runs],
    ...(growing(repeats).length > 0 ? [[growingText(repeats), growthFails(repeats)]] : [])];
}

// The same.
function headline(report) {
  const facts = [];
  const cases = report.libraries.flatMap((library) => library.cases);
  if (cases.length > 0) {
    const passed = cases.filter((one) => one.verdict === "pass").length;
    const known = cases.filter((one) => one.known).length;
    const checks = checkCounts(cases);
    facts.push(
      [`${passed} of ${counted(cases.length, "case")} passed${known > 0 ? `, ${known} known to fail` : ""}`,
        passed + known < cases.length],
      ...(cases.some(hasWarnings) ? [[`${cases.filter(hasWarnings).length} with warnings`, false]] : []),
      [checks.failed > 0 ? `${checks.failed} of ${counted(checks.total, "check")} failed`
        : counted(checks.total, "check"), checks.failed > 0]);
  }
  if (report.libraries.length > 1) {
    facts.push([counted(report.libraries.length, "library", "libraries"), false]);
  }
  if (report.matrix) {
    const total = report.matrix.faults.length;
    const expected = report.matrix.faults.filter((fault) => fault.wrong.length === 0).length;
    facts.push([`${expected} of ${counted(total, "fault")} as expected`, expected < total]);
  }
  if (report.libraries.length === 1) {
    facts.push(...repeatFacts(report.libraries[0].repeats));
  }
  return [...facts, [formatSeconds(report.seconds), false]];
}

// Of several libraries, whose verdict is the headline's.
function verdictsByLibrary(report) {
  if (report.libraries.length < 2) {
    return null;
  }
  return el("div", { class: "by-library" },
    el("p", {}, `The worst of ${report.libraries.length} libraries:`),
    el("ul", {}, report.libraries.map((library) =>
      el("li", {}, verdictLabel(library.verdict), " ", library.name,
        repeatFacts(library.repeats).map(([text]) => el("span", { class: "aside" }, `, ${text}`))))));
}

function overview(report) {
  const fact = (name, value) => value
    && el("div", {}, el("dt", {}, name), el("dd", {}, value));
  return [
    el("p", { class: "title" }, "Conformance report"),
    el("h1", { class: verdictKind(report.verdict) }, mark(report.verdict),
      el("span", {}, report.verdict)),
    report.reason && el("p", { class: "reason" }, report.reason),
    verdictsByLibrary(report),
    el("p", { class: "headline" }, headline(report).map(([text, isWrong]) =>
      el("span", {}, isWrong && mark("fail"), text))),
    el("dl", { class: "facts" },
      report.libraries.map((library) => [
        fact("Library", [el("b", {}, library.name), library.core && [" ", code(library.core)]]),
        fact("Broker", library.broker && code(library.broker)),
        report.libraries.length > 1 && fact("Verdict", [verdictLabel(library.verdict),
          library.reason && [" ", library.reason]]),
      ]),
      fact("Date", report.date), fact("Tool", report.tool),
      fact("Command", report.command && code(report.command))),
    (report.complaints ?? []).map((line) => el("p", { class: "complaint" }, mark("fail"), line)),
  ];
}

// --- failures --------------------------------------------------------------

function failuresSection(report) {
  const failures = report.libraries.flatMap((library) =>
    library.cases.filter(needsAttention).map((one) => ({ library, one })));
  if (failures.length === 0) {
    return null;
  }
  failures.sort((a, b) => Number(Boolean(a.one.known)) - Number(Boolean(b.one.known)));
  return section("failures", "What failed", failures.map(({ library, one }) =>
    el("article", { class: "failure" },
      el("h3", {}, verdictLabel(one.verdict), " ", shortCase(one.name),
        report.libraries.length > 1 && el("span", { class: "aside" }, ` ${library.name}`)),
      failureParts(one))));
}

// --- cases -----------------------------------------------------------------

function caseRows(one) {
  const details = el("td", { colspan: "5" });
  const detailsRow = el("tr", { class: "details" }, details);
  const counts = checkCounts([one]);
  const button = disclosure(
    [el("span", { class: "aside" }, one.name.slice(0, one.name.lastIndexOf("/") + 1)), el("wbr"),
      shortCase(one.name)],
    detailsRow, () => details.append(el("div", { class: "case" }, caseParts(one))));
  const row = el("tr", {},
    el("td", {}, verdictLabel(one.verdict),
      one.known && el("span", { class: "aside" }, " known"),
      hasWarnings(one) && el("span", { class: "aside" },
        ` ${counted(one.warnings.length, "warning")}`)),
    el("td", { class: "aside" }, one.level),
    el("th", { scope: "row" }, button),
    el("td", { class: "number" }, counts.failed > 0 ? `${counts.failed} of ${counts.total} failed`
      : counts.total),
    el("td", { class: "number" }, one.endNs > one.beginNs ? formatNs(one.endNs - one.beginNs) : "–"));
  return { row, detailsRow, button, words: wordsOf(one), state: one.known ? "known" : one.verdict };
}

// All that a search finds a case by.
const wordsOf = (one) => [one.name, one.verdict, one.level, one.known, one.crash, ...one.missing ?? [],
  ...one.remarks ?? [], ...(one.warnings ?? []).map((warning) => warning.text), ...new Set(one.calls.map((call) => call.function)),
  ...new Set(one.checks.flatMap((check) => [check.text, check.place, check.left, check.right]))]
  .join(" ").toLowerCase();

const caseColumns = ["Verdict", "Level", "Case", { text: "Checks", kind: "number" },
  { text: "Time", kind: "number" }];

function casesSection(report) {
  if (report.libraries.length === 0) {
    return null;
  }
  const several = report.libraries.length > 1;
  const rows = report.libraries.map((library) => library.cases.map(caseRows));
  const states = [...new Set(rows.flat().map((row) => row.state))];
  return section("cases", "Cases",
    rowFilter("case", "case", states, rows.flat()),
    report.libraries.map((library, index) => [
      several && el("h3", {}, library.name, " ", verdictLabel(library.verdict)),
      library.cases.length > 0
        ? table(`Cases of ${library.name}`, caseColumns,
          rows[index].map(({ row, detailsRow }) => [row, detailsRow]), "cases")
        : el("p", {}, library.reason),
    ]));
}

// --- latencies -------------------------------------------------------------

// One scale for all, so that the shapes can be compared: 100 ns to 10 s, four
// steps per power of ten.
const latencyDecades = { first: -1, last: 7, perDecade: 4 };

function histogram(durations) {
  const { first, last, perDecade } = latencyDecades;
  const bins = new Array((last - first) * perDecade).fill(0);
  for (const us of durations) {
    const bin = Math.floor((Math.log10(Math.max(us, 0.1)) - first) * perDecade);
    ++bins[Math.min(bins.length - 1, Math.max(0, bin))];
  }
  const most = Math.max(...bins);
  const [width, height] = [6, 28];
  return svg("svg", {
    class: "histogram", viewBox: `0 0 ${bins.length * width} ${height + 1}`, role: "img",
    "aria-label": "Distribution; the percentiles beside it say the same",
  },
    Array.from({ length: last - first + 1 }, (_, decade) => svg("line", {
      class: "rail", x1: decade * perDecade * width, x2: decade * perDecade * width, y1: 0, y2: height,
    })),
    bins.map((count, bin) => count > 0 && svg("rect", {
      x: bin * width + 0.5, width: width - 1, y: height - Math.max(2, (count / most) * height),
      height: Math.max(2, (count / most) * height),
    })),
    svg("line", { class: "axis", x1: 0, x2: bins.length * width, y1: height + 0.5, y2: height + 0.5 }));
}

function latencyRow(name, library, durations, several) {
  const summary = library.latencies[name];
  return el("tr", {},
    el("th", { scope: "row", title: name }, code(shortFunction(name)),
      several && el("span", { class: "aside" }, ` ${library.name}`)),
    el("td", { class: "number" }, summary.count),
    [summary.p50Us, summary.p90Us, summary.p99Us, summary.maxUs].map((us) =>
      el("td", { class: "number" }, formatUs(us))),
    el("td", {}, histogram(durations)));
}

function latenciesSection(report) {
  const measured = report.libraries.map((library) => ({ library, durations: durationsOf(library) }));
  const names = [...new Set(measured.flatMap(({ durations }) => [...durations.keys()]))];
  if (names.length === 0) {
    return null;
  }
  const several = measured.length > 1;
  const rows = names.flatMap((name) => measured.filter(({ durations }) => durations.has(name))
    .map(({ library, durations }) => latencyRow(name, library, durations.get(name), several)));
  const number = (text) => ({ text, kind: "number" });
  return section("latencies", "Latencies",
    el("p", { class: "aside" }, "How long each function took, over all cases; a receive that waits "
      + "includes its wait. The distributions share one scale, from 100 ns to 10 s; each line is a power of ten."),
    table("Latencies per function", ["Function", number("Calls"), number("Median"), number("90 %"),
      number("99 %"), number("Longest"), "Distribution"], rows, "latencies"));
}

// --- repeats ---------------------------------------------------------------

const growing = (repeats) => repeats.growth.filter((growth) => growth.grows).map((growth) => growth.what);
const growthFails = (repeats) => repeats.failsOnGrowth && growing(repeats).length > 0;
const growingText = (repeats) => `growing: ${growing(repeats).join(" and ")}`;
const runsText = (repeats) => `${repeats.passed} of ${counted(repeats.runs, "run")} passed`;

function repeatsSection(report) {
  const repeated = report.libraries.filter((library) => library.repeats);
  return repeated.length > 0 && section("repeats", "Repeats", repeated.map((library) => [
    repeated.length > 1 && el("h3", {}, library.name), repeatsOf(library.repeats)]));
}

function repeatsOf(repeats) {
  const failed = repeats.runs - repeats.passed;
  const rate = repeats.runs === 0 ? 0 : (100 * repeats.passed) / repeats.runs;
  // Never "100 %" where one failed.
  const rateText = `${failed === 0 ? rate : (Math.floor(rate * 100) / 100).toFixed(2)} %`;
  const slopeText = (slope) => (slope === null ? "too few runs in one process"
    : `${slope > 0 ? "+" : ""}${slope.toFixed(1)}`.replace("-", "−"));
  const rows = repeats.growth.map((growth) => el("tr", {},
    el("th", { scope: "row" }, growth.what),
    [growth.first, growth.last, growth.most].map((value) => el("td", { class: "number" }, value)),
    el("td", { class: "number" }, growth.grows ? el("b", {}, slopeText(growth.slope))
      : slopeText(growth.slope)),
    el("td", {}, growth.grows && "grows")));
  const number = (text) => ({ text, kind: "number" });
  return [
    el("p", {}, verdictLabel(failed === 0 && !growthFails(repeats) ? "pass" : "fail"),
      ` ${runsText(repeats)}, ${rateText}${growthFails(repeats) ? `; ${growingText(repeats)}` : ""}.`),
    repeats.growth.length > 0 && table("Growth over the runs",
      ["What", number("First run"), number("Last run"), number("Most"), number("Each run"), ""], rows)];
}
