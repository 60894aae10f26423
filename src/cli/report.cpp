// The report as JSON; see report.h.
#include "cli/report.h"

#include <algorithm>

namespace kavri::cli {

namespace {

using nlohmann::json;

template <typename Value>
json orNull(const std::optional<Value>& value) {
    return value ? json(*value) : json(nullptr);
}

template <typename Item, typename Make>
json listOf(const std::vector<Item>& items, const Make& make) {
    json list = json::array();
    for (const Item& item : items) {
        list.push_back(make(item));
    }
    return list;
}

json checkJson(const CheckReport& check) {
    return {{"text", check.text}, {"place", check.place},  {"passed", check.passed},
            {"left", check.left}, {"right", check.right},  {"message", check.message},
            {"atNs", check.atNs}, {"thread", check.thread}};
}

json callJson(const CallReport& call) {
    return {{"kind", call.kind == CallReport::Kind::call ? "call" : "delivery"},
            {"number", call.number},
            {"function", call.function},
            {"thread", call.thread},
            {"beginNs", call.beginNs},
            {"endNs", orNull(call.endNs)},
            {"arguments", call.arguments},
            {"result", call.result}};
}

json faultFiredJson(const FaultFired& fault) {
    return {{"name", fault.name}, {"atNs", fault.atNs}, {"did", fault.did}};
}

json hangJson(const std::optional<HangReport>& hang) {
    if (!hang) {
        return nullptr;
    }
    return {{"call", hang->call},
            {"arguments", hang->arguments},
            {"seconds", hang->seconds},
            {"lastPassed", hang->lastPassed},
            {"stacks", hang->stacks}};
}

json caseJson(const CaseReport& report) {
    return {{"name", report.name},
            {"verdict", verdictText(report.verdict)},
            {"beginNs", report.beginNs},
            {"endNs", report.endNs},
            {"checks", listOf(report.checks, checkJson)},
            {"calls", listOf(report.calls, callJson)},
            {"faults", listOf(report.faults, faultFiredJson)},
            {"log", report.failureLines()},
            {"missing", report.missing},
            {"remarks", report.remarks},
            {"hang", hangJson(report.hang)},
            {"crash", report.crash},
            {"known", report.known},
            {"repeat", report.repeat}};
}

json latenciesJson(const LatenciesByFunction& latencies) {
    const auto us = [](Latencies::Duration time) {
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

json libraryJson(const LibraryReport& library) {
    LatenciesByFunction latencies;
    addLatencies(library.cases, latencies);
    return {{"name", library.name},
            {"core", library.core},
            {"broker", library.broker},
            {"seconds", library.seconds},
            {"verdict", verdictText(worstOf(library.cases))},
            {"cases", listOf(library.cases, caseJson)},
            {"latencies", latenciesJson(latencies)}};
}

json faultJson(const FaultReport& fault) {
    return {{"name", fault.name},
            {"description", fault.description},
            {"clause", fault.clause},
            {"unnoticedBecause", fault.unnoticedBecause},
            {"fired", fault.fired},
            {"seconds", fault.seconds},
            {"cases", listOf(fault.cases, caseJson)},
            {"wrong", fault.wrong}};
}

json matrixJson(const std::optional<MatrixReport>& matrix) {
    if (!matrix) {
        return nullptr;
    }
    const auto killed = [](const CheckKilled& check) {
        return json{{"caseName", check.caseName}, {"check", check.check}, {"faults", check.faults}};
    };
    return {{"faults", listOf(matrix->faults, faultJson)},
            {"checks", listOf(matrix->checks, killed)},
            {"seconds", matrix->seconds}};
}

json repeatsJson(const std::optional<RepeatReport>& repeats) {
    if (!repeats) {
        return nullptr;
    }
    const auto growth = [](const RepeatReport::Growth& each) {
        return json{
            {"what", each.what}, {"first", each.first}, {"last", each.last}, {"most", each.most}};
    };
    return {{"runs", repeats->runs},
            {"passed", repeats->passed},
            {"growth", listOf(repeats->growth, growth)},
            {"latencies", latenciesJson(repeats->latencies)}};
}

}  // namespace

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
        case Verdict::harnessError:
            return "harness error";
    }
    return "";
}

unsigned CaseReport::checksFailed() const {
    return static_cast<unsigned>(
        std::ranges::count_if(checks, [](const CheckReport& check) { return !check.passed; }));
}

std::string failureLine(const CheckReport& check) {
    return check.place + ": " + check.message;
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

Verdict worstOf(const std::vector<CaseReport>& cases) {
    Verdict worst = Verdict::pass;
    for (const CaseReport& report : cases) {
        if (report.known.empty()) {
            worst = std::max(worst, report.verdict);
        }
    }
    return worst;
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

bool MatrixReport::isProven() const {
    return std::ranges::all_of(faults, &FaultReport::asExpected) &&
           std::ranges::none_of(checks,
                                [](const CheckKilled& check) { return check.faults.empty(); });
}

Verdict verdictOn(const Report& report) {
    const bool failsOtherwise = (report.matrix && !report.matrix->isProven()) ||
                                (report.repeats && report.repeats->passed < report.repeats->runs);
    Verdict worst = failsOtherwise ? Verdict::fail : Verdict::pass;
    for (const LibraryReport& library : report.libraries) {
        worst = std::max(worst, worstOf(library.cases));
    }
    return worst;
}

nlohmann::json toJson(const Report& report) {
    return {{"schema", 1},
            {"command", report.command},
            {"date", report.date},
            {"tool", report.tool},
            {"verdict", verdictText(verdictOn(report))},
            {"seconds", report.seconds},
            {"libraries", listOf(report.libraries, libraryJson)},
            {"matrix", matrixJson(report.matrix)},
            {"repeats", repeatsJson(report.repeats)}};
}

}  // namespace kavri::cli
