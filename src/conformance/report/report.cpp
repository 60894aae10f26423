// The report as JSON; see report.h.
#include "conformance/report/report.h"

#include <fmt/format.h>

#include <algorithm>

namespace kavri::conformance {

using nlohmann::json;

// Those whose keys are their members' names.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CheckReport, text, place, passed, left, right, message, atNs,
                                   thread)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FaultFired, name, atNs, did)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(HangReport, call, arguments, seconds, lastPassed, stacks)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CheckKilled, caseName, check, faults)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BaselineComparison::Case, library, name, ways)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(BaselineComparison::Function, library, name, earlierP50Us, p50Us)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(WarningReport, rule, text, header, sentence, times)

namespace {

template <typename Value>
json orNull(const std::optional<Value>& value) {
    return value ? json(*value) : json(nullptr);
}

json latenciesJson(const LatenciesByFunction& latencies) {
    const auto us = [](base::Latencies::Duration time) {
        return std::chrono::duration<double, std::micro>(time).count();
    };
    json all = json::object();
    for (const auto& [function, times] : latencies) {
        all[function] = {{"count", times.count()},
                         {"p50Us", us(times.percentile(0.5))},
                         {"p90Us", us(times.percentile(0.9))},
                         {"p99Us", us(times.percentile(0.99))},
                         {"maxUs", us(times.most())}};
    }
    return all;
}

// What several verdicts come to together.
Verdict together(const std::vector<Verdict>& all) {
    const auto isOpen = [](Verdict verdict) {
        return verdict == Verdict::notRun || verdict == Verdict::incomplete;
    };
    if (std::ranges::count(all, Verdict::notRun) == std::ssize(all)) {
        return Verdict::notRun;
    }
    return std::ranges::any_of(all, isOpen) ? Verdict::incomplete : std::ranges::max(all);
}

// Where there is a reason, something is still to come.
Verdict limitedBy(const std::string& reason, Verdict verdict) {
    return reason.empty() || verdict == Verdict::notRun ? verdict : Verdict::incomplete;
}

}  // namespace

// Found by the JSON library in the namespace of the types.
static void to_json(json& result, const CallReport& call) {
    result = {{"kind", call.kind == CallReport::Kind::call ? "call" : "delivery"},
              {"number", call.number},
              {"function", call.function},
              {"thread", call.thread},
              {"beginNs", call.beginNs},
              {"endNs", orNull(call.endNs)},
              {"arguments", call.arguments},
              {"result", call.result}};
}

static void to_json(json& result, const CaseReport& report) {
    result = {{"name", report.name},
              {"level", report.level},
              {"verdict", verdictText(report.verdict)},
              {"beginNs", report.beginNs},
              {"endNs", report.endNs},
              {"checks", report.checks},
              {"calls", report.calls},
              {"faults", report.faults},
              {"log", report.failureLines()},
              {"missing", report.missing},
              {"remarks", report.remarks},
              {"warnings", report.warnings},
              {"hang", orNull(report.hang)},
              {"crash", report.crash},
              {"crashStack", report.crashStack},
              {"output", report.output},
              {"known", report.known},
              {"repeat", report.repeat}};
}

static void to_json(json& result, const RepeatReport::Growth& growth) {
    result = {{"what", growth.what}, {"first", growth.first},         {"last", growth.last},
              {"most", growth.most}, {"slope", orNull(growth.slope)}, {"grows", growth.grows}};
}

static void to_json(json& result, const RepeatReport& repeats) {
    result = {{"runs", repeats.runs},
              {"passed", repeats.passed},
              {"growth", repeats.growth},
              {"failsOnGrowth", repeats.failsOnGrowth},
              {"latencies", latenciesJson(repeats.latencies)}};
}

static void to_json(json& result, const LibraryReport& library) {
    LatenciesByFunction latencies;
    addLatencies(library.cases, latencies);
    result = {{"name", library.name},
              {"core", library.core},
              {"broker", library.broker},
              {"seconds", library.seconds},
              {"verdict", verdictText(library)},
              {"reason", library.reason},
              {"confirmed", !library.unconfirmed},
              {"cases", library.cases},
              {"latencies", latenciesJson(latencies)},
              {"repeats", orNull(library.repeats)}};
}

static void to_json(json& result, const FaultReport& fault) {
    result = {{"name", fault.name},     {"description", fault.description},
              {"clause", fault.clause}, {"unnoticedBecause", fault.unnoticedBecause},
              {"fired", fault.fired},   {"seconds", fault.seconds},
              {"cases", fault.cases},   {"wrong", fault.wrong}};
}

static void to_json(json& result, const MatrixReport& matrix) {
    result = {{"faults", matrix.faults}, {"checks", matrix.checks}, {"seconds", matrix.seconds}};
}

static void to_json(json& result, const BaselineComparison& comparison) {
    result = {{"file", comparison.file},
              {"date", comparison.date},
              {"isWorse", comparison.isWorse()},
              {"newlyFailing", comparison.newlyFailing},
              {"stillFailing", comparison.stillFailing},
              {"newlyPassing", comparison.newlyPassing},
              {"missing", comparison.missing},
              {"slower", comparison.slower}};
}

json toJson(const Report& report) {
    return {{"schema", 2},
            {"command", report.command},
            {"date", report.date},
            {"tool", report.tool},
            {"verdict", verdictText(report)},
            {"reason", report.reason},
            {"seconds", report.seconds},
            {"libraries", report.libraries},
            {"matrix", orNull(report.matrix)},
            {"requirements", report.requirements},
            {"complaints", report.complaints},
            {"baseline", orNull(report.baseline)}};
}

std::string_view verdictText(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass:
            return "pass";
        case Verdict::fail:
            return "fail";
        case Verdict::timeout:
            return "timeout";
        case Verdict::crash:
            return "crash";
        case Verdict::notRun:
            return "not run";
        case Verdict::incomplete:
            return "incomplete";
        case Verdict::harnessError:
            return "harness error";
    }
    return "";
}

static std::string textOf(Verdict verdict, bool unconfirmed) {
    std::string text(verdictText(verdict));
    return verdict == Verdict::pass && unconfirmed ? text + ", " + std::string(notConfirmedText)
                                                   : text;
}

std::string verdictText(const LibraryReport& library) {
    return textOf(library.verdict(), library.unconfirmed);
}

std::string verdictText(const Report& report) {
    return textOf(verdictOn(report),
                  std::ranges::any_of(report.libraries, &LibraryReport::unconfirmed));
}

unsigned CaseReport::checksFailed() const {
    return static_cast<unsigned>(
        std::ranges::count_if(checks, [](const CheckReport& check) { return !check.passed; }));
}

bool CaseReport::hasFailed() const {
    return verdict == Verdict::fail || verdict == Verdict::timeout || verdict == Verdict::crash;
}

std::vector<std::string> CaseReport::failedChecks() const {
    std::vector<std::string> texts;
    for (const CheckReport& check : checks) {
        if (!check.passed && std::ranges::find(texts, check.text) == texts.end()) {
            texts.push_back(check.text);
        }
    }
    return texts;
}

std::string WarningReport::line() const {
    return fmt::format("warning: {}{}; {}: \"{}\"", text,
                       times > 1 ? fmt::format(", {} times", times) : "", header, sentence);
}

bool RepeatReport::isGood() const {
    return passed == runs && !(failsOnGrowth && std::ranges::any_of(growth, &Growth::grows));
}

std::string RepeatReport::Growth::remark() const {
    return grows ? fmt::format(
                       "{} grows by {:.1f} with each run: {} after the first, {} after the "
                       "last",
                       what, slope.value_or(0), first, last)
                 : "";
}

std::string failureLine(const CheckReport& check) {
    return check.place + ": " + check.message;
}

std::string lastPassedClause(const std::string& lastPassed) {
    return lastPassed.empty() ? "; no check had passed"
                              : "; the last check that passed: " + lastPassed;
}

std::vector<std::string> CaseReport::failureLines() const {
    std::vector<std::string> lines;
    for (const CheckReport& check : checks) {
        if (!check.passed) {
            lines.push_back(failureLine(check));
        }
    }
    return lines;
}

std::size_t casesWithWarnings(const std::vector<CaseReport>& cases) {
    return static_cast<std::size_t>(std::ranges::count_if(
        cases, [](const CaseReport& report) { return !report.warnings.empty(); }));
}

Verdict worstOf(const std::vector<CaseReport>& cases) {
    std::vector<Verdict> verdicts;
    verdicts.reserve(cases.size());
    for (const CaseReport& report : cases) {
        verdicts.push_back(report.known.empty() ? report.verdict : Verdict::pass);
    }
    return together(verdicts);
}

Verdict LibraryReport::verdict() const {
    std::vector<Verdict> verdicts = {worstOf(cases)};
    if (repeats && !repeats->isGood()) {
        verdicts.push_back(Verdict::fail);
    }
    return limitedBy(reason, together(verdicts));
}

void addLatencies(const std::vector<CaseReport>& cases, LatenciesByFunction& latencies) {
    for (const CaseReport& report : cases) {
        for (const CallReport& call : report.calls) {
            if (call.kind == CallReport::Kind::call && call.endNs) {
                latencies[call.function].add(std::chrono::nanoseconds(*call.endNs - call.beginNs));
            }
        }
    }
}

bool FaultReport::isDetectedByWarnings() const {
    return worstOf(cases) == Verdict::pass && casesWithWarnings(cases) > 0;
}

bool MatrixReport::isProven() const {
    return std::ranges::all_of(faults, &FaultReport::asExpected) &&
           std::ranges::none_of(checks,
                                [](const CheckKilled& check) { return check.faults.empty(); });
}

Verdict verdictOn(const Report& report) {
    std::vector<Verdict> verdicts;
    for (const LibraryReport& library : report.libraries) {
        verdicts.push_back(library.verdict());
    }
    const auto add = [&verdicts](bool passed) {
        verdicts.push_back(passed ? Verdict::pass : Verdict::fail);
    };
    if (!report.complaints.empty()) {
        add(false);
    }
    if (report.matrix) {
        add(report.matrix->isProven());
    }
    return limitedBy(report.reason, together(verdicts));
}

}  // namespace kavri::conformance
