// Finding the place in the case under way; see post_mortem.h.
#include "conformance/module/post_mortem.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "conformance/module/stack_names.h"
#include "process/exit_text.h"

namespace kavri::conformance {

namespace {

constexpr const char* afterTheCase = " after the case";

std::string textOf(const CallReport& call) {
    return call.kind == CallReport::Kind::delivery
               ? "a call of the " + call.function + " callback"
               : call.function + " with " + call.arguments.dump();
}

// Text and place of the check that passed last in the case under way; or empty.
std::string lastPassed(const RunRecord& record) {
    const std::vector<CheckReport>& checks = record.underWay()->checks;
    const auto passed = std::find_if(checks.rbegin(), checks.rend(),
                                     [](const CheckReport& check) { return check.passed; });
    return passed == checks.rend() ? "" : passed->text + ", at " + passed->place;
}

// ", in F with {…} and in G with {…}": any of these may be to blame.
std::string callsUnderWay(const RunRecord& record) {
    std::string text;
    const auto add = [&text](const CallReport& call) {
        text += std::string(text.empty() ? ", in " : " and in ") + textOf(call);
    };
    const CallReport* longest = record.openCall();
    if (longest != nullptr && longest->number == 0) {
        add(*longest);  // the probe's own, and so none of the case
    }
    for (const CallReport& call : record.underWay()->calls) {
        if (!call.endNs) {
            add(call);
        }
    }
    return text.empty() ? ", outside of any call" : text;
}

// The call or delivery that was under way on the thread that ended the process, the innermost
// of them; and whose thread that is.
std::string placeOf(const ProcessEnd& end, const RunRecord& record) {
    if (record.underWay() == nullptr) {
        return afterTheCase;
    }
    const std::vector<CallReport>& calls = record.underWay()->calls;
    const CallReport* last = nullptr;
    for (const CallReport& call : calls) {
        if (call.thread == end.thread && (last == nullptr || !call.endNs || last->endNs)) {
            last = &call;
        }
    }
    const std::string thread = " on thread " + std::to_string(end.thread);
    if (last == nullptr) {
        return thread + ", which is the library's own" + callsUnderWay(record);
    }
    return (last->endNs ? ", after " : ", in ") + textOf(*last) +
           (last->endNs ? " had returned," : "") + thread +
           (calls.front().thread == end.thread ? ", the caller's" : ", the library's own");
}

std::string endText(const RunRecord& record, const process::ExitState& exit) {
    const std::optional<ProcessEnd>& end = record.processEnd();
    if (!end) {
        return "the module " + process::exitText(exit) +
               (record.underWay() == nullptr ? afterTheCase : callsUnderWay(record));
    }
    const std::string place = placeOf(*end, record);
    if (end->kind == ProcessEnd::Kind::call) {
        return "the library called " + end->function + "(" + std::to_string(end->number) + ")" +
               (place.front() == ',' ? place.substr(1) : place);
    }
    process::ExitState signalled;
    signalled.signal = static_cast<int>(end->number);
    return "the module " + process::exitText(signalled) + place;
}

}  // namespace

std::string crashText(const RunRecord& record, const process::ExitState& exit) {
    return endText(record, exit) +
           (record.underWay() == nullptr ? "" : lastPassedClause(lastPassed(record)));
}

std::string crashStack(const RunRecord& record) {
    const std::optional<ProcessEnd>& end = record.processEnd();
    return end ? namedStack(end->frames, end->kind == ProcessEnd::Kind::call) : "";
}

HangReport hangReport(const RunRecord& record, std::int64_t nowNs) {
    HangReport report;
    std::int64_t sinceNs = record.lastEventNs();
    if (const CallReport* call = record.openCall()) {
        report.call = call->function;
        report.arguments = call->arguments.dump();
        sinceNs = call->beginNs;
    }
    report.seconds = static_cast<double>(nowNs - sinceNs) / 1e9;
    report.lastPassed = lastPassed(record);
    return report;
}

std::string placeUnderWay(const RunRecord& record) {
    return callsUnderWay(record) + lastPassedClause(lastPassed(record));
}

}  // namespace kavri::conformance
