// What the page says about a report that does not stand in it as such: threads,
// the record of a case in the order of time, differences, latencies.
"use strict";

// A pause of the test thread that is worth showing, and a stretch without events
// that "fit to calls" folds.
const longPauseNs = 1e6;

const shortCase = (name) => name.slice(name.lastIndexOf("/") + 1);
// As short as it stays unlike every other: "command_send", but "core_init".
const shortFunction = (name) => name.replace(
  /^kavri_core_ipc_initiator_(?!init$)|^kavri_core_(?=ipc_|logging_)|^kavri_/, "");

function checkCounts(cases) {
  const checks = cases.flatMap((one) => one.checks);
  const failed = checks.filter((check) => !check.passed).length;
  return { total: checks.length, failed, passed: checks.length - failed };
}

// How much the interface demands of a check; empty where the report does not say it.
function levelOfCheck(name, text) {
  const found = (report.requirements ?? []).find((one) => one.name === name);
  return found?.checks.find((check) => check.text === text)?.level ?? "";
}

const needsAttention = (one) => one.verdict !== "pass" && one.verdict !== "not run";
const hasWarnings = (one) => (one.warnings ?? []).length > 0;

// Everything that happened in a case, in the order of time.
function recordOf(one) {
  return [
    ...one.calls.map((call) => ({
      kind: call.kind, atNs: call.beginNs, endNs: call.endNs ?? null, thread: call.thread,
      source: call,
    })),
    ...one.checks.map((check) => ({
      kind: "check", atNs: check.atNs, endNs: check.atNs, thread: check.thread, source: check,
    })),
    ...(one.faults ?? []).map((fault) => ({
      kind: "fault", atNs: fault.atNs, endNs: fault.atNs, thread: null, source: fault,
    })),
  ].sort((a, b) => a.atNs - b.atNs);
}

// Thread ids to names. The first thread that does anything is the one that runs the
// case; any other belongs to the library.
function threadNames(record) {
  const ids = [...new Set(record.map((entry) => entry.thread).filter((id) => id !== null))];
  const name = (index) => {
    if (index === 0) {
      return "test thread";
    }
    return ids.length > 2 ? `library's thread ${index}` : "library's thread";
  };
  return new Map(ids.map((id, index) => [id, name(index)]));
}

// A case that was cut off may have no end, or one before what came in last.
function spanOf(one, record) {
  const times = record.flatMap((entry) => [entry.atNs, entry.endNs ?? entry.atNs]);
  const all = [one.beginNs, one.endNs, ...times].filter((time) => time > 0);
  return all.length === 0
    ? { beginNs: 0, endNs: 0 }
    : { beginNs: one.beginNs || Math.min(...all), endNs: Math.max(...all) };
}

// What of a call's value is a text in quotes, and what is not.
const valueText = (value) => (typeof value === "string" && !/^0x[0-9a-f]+$/.test(value)
  && value !== "installed" ? JSON.stringify(value) : String(value));
// The report has them by name; a reader wants what they are for first.
const fieldOrder = ["status", "targetCategory", "category", "targetIdentifier", "uuid", "payload"];
const placeOfField = (name) => (fieldOrder.indexOf(name) + 1) || fieldOrder.length + 1;
const fieldsText = (fields, assign) => Object.entries(fields ?? {})
  .sort(([a], [b]) => placeOfField(a) - placeOfField(b))
  .map(([name, value]) => `${name}${assign}${valueText(value)}`).join(", ");
const argumentsText = (call) => fieldsText(call.arguments, "=");
function resultText(call) {
  if (call.kind === "delivery") {
    return "";
  }
  return (call.endNs ?? null) === null ? "did not return" : fieldsText(call.result, " ");
}

// The checks of a case, each place once, with how often it passed and the times it
// did not: a repeating case makes the same check ten times.
function checkGroups(checks) {
  const groups = new Map();
  for (const check of checks) {
    const key = `${check.place}\n${check.text}`;
    if (!groups.has(key)) {
      groups.set(key, { text: check.text, place: check.place, total: 0, failures: [] });
    }
    const group = groups.get(key);
    ++group.total;
    if (!check.passed) {
      group.failures.push({ nth: group.total, check });
    }
  }
  return [...groups.values()];
}

// The names of the two sides of a check, as the check words them.
function sidesOf(check) {
  const sides = check.text.split(/ (?:==|!=|<=|>=|<|>) /);
  return sides.length === 2 ? sides : ["left", "right"];
}
const hasValues = (check) => Boolean(check.left) || Boolean(check.right);

// Which time a check was made counts, not what came between: two threads may mix
// differently from one run to the next.
function checkOutcomes(one) {
  const times = new Map();
  const outcomes = new Map();
  for (const check of one.checks) {
    const place = `${check.place} ${check.text}`;
    const nth = (times.get(place) ?? 0) + 1;
    times.set(place, nth);
    outcomes.set(`${place} ${nth}`, { nth, check });
  }
  return outcomes;
}

const outcomeText = (found) => (found === undefined ? "not made"
  : found.check.passed ? "passed" : "failed");

// The first case, and in it the first check, that went otherwise; null: none did.
function firstDifference(reference, other) {
  for (const one of reference.cases) {
    const counterpart = other.cases.find((candidate) => candidate.name === one.name);
    const left = checkOutcomes(one);
    const right = counterpart ? checkOutcomes(counterpart) : new Map();
    for (const key of new Set([...left.keys(), ...right.keys()])) {
      const [a, b] = [left.get(key), right.get(key)];
      if (outcomeText(a) !== outcomeText(b)) {
        return { name: one.name, cases: [one, counterpart], checks: [a, b] };
      }
    }
    if (one.verdict !== counterpart?.verdict) {
      return { name: one.name, cases: [one, counterpart], checks: [undefined, undefined] };
    }
  }
  return null;
}

// Function to durations in µs, over all cases of a library.
function durationsOf(library) {
  const durations = new Map();
  for (const call of library.cases.flatMap((one) => one.calls)) {
    if (call.kind === "call" && (call.endNs ?? null) !== null) {
      const known = durations.get(call.function) ?? [];
      known.push((call.endNs - call.beginNs) / 1e3);
      durations.set(call.function, known);
    }
  }
  return durations;
}
