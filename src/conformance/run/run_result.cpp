// From verdicts to exit statuses; see run_result.h.
#include "conformance/run/run_result.h"

#include <fmt/format.h>

#include <algorithm>

#include "conformance/report/run_display.h"

namespace kavri::conformance {

namespace {

process::ExitStatus statusFor(Verdict verdict) {
    switch (verdict) {
        case Verdict::pass:
            return process::ExitStatus::passed;
        case Verdict::fail:
            return process::ExitStatus::failed;
        case Verdict::notRun:
        case Verdict::incomplete:
        case Verdict::harnessError:
            return process::ExitStatus::couldNotRun;
        case Verdict::timeout:
        case Verdict::crash:
            break;
    }
    return process::ExitStatus::ended;
}

std::string cutOffText(const CaseReport& report) {
    if (report.hang) {
        return hangText(*report.hang);
    }
    return report.crash.empty() ? report.missing.front() : report.crash;
}

}  // namespace

process::ExitStatus exitStatusOf(const Report& report, std::optional<process::ExitStatus> failure) {
    const process::ExitStatus status = failure.value_or(statusFor(verdictOn(report)));
    if (!report.baseline || status == process::ExitStatus::couldNotRun ||
        status == process::ExitStatus::usage) {
        return status;
    }
    return report.baseline->isWorse() || !report.complaints.empty() ? process::ExitStatus::failed
                                                                    : process::ExitStatus::passed;
}

std::string cutOffText(const Report& report) {
    for (const LibraryReport& library : report.libraries) {
        for (const CaseReport& each : library.cases) {
            if (each.known.empty() && statusFor(each.verdict) == process::ExitStatus::ended) {
                return fmt::format("{}: {}", each.name, cutOffText(each));
            }
        }
    }
    return "";
}

std::string whyNotRun(const LibraryReport& library) {
    const auto found = std::ranges::find(library.cases, Verdict::notRun, &CaseReport::verdict);
    if (found == library.cases.end()) {
        return "";
    }
    return found->missing.empty() ? fmt::format("{} was not run", found->name)
                                  : found->missing.front();
}

}  // namespace kavri::conformance
