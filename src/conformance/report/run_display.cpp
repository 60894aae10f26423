// Laying out lines; see run_display.h.
#include "conformance/report/run_display.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>

#include "base/printable.h"
#include "base/text_scanner.h"

namespace kavri::conformance {

namespace {

constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view yellow = "\x1b[33m";
constexpr std::string_view plain = "\x1b[0m";

bool isPassedOrNotRun(Verdict verdict) {
    return verdict == Verdict::pass || verdict == Verdict::notRun;
}

// Of a case; right libraries and wrong ones come nowhere near, unless they call back
// without end.
constexpr size_t failuresShown = 100;

std::string counted(unsigned long count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace

RunDisplay::RunDisplay(std::ostream& results, std::ostream& others, DisplayStyle style,
                       const std::vector<std::string>& cases)
    : results_(results),
      others_(others),
      style_(style),
      caseCount_(cases.size()),
      nameWidth_(0),
      progress_(results_, style_) {
    for (const std::string& name : cases) {
        nameWidth_ = std::max(nameWidth_, name.size());
    }
}

void RunDisplay::showOpening(const std::string& library, const std::string& broker) {
    showLine(fmt::format("core library {}, {}", base::printable(library), base::printable(broker)));
    results_.flush();
}

void RunDisplay::showCaseUnderWay(const CaseReport& report, double seconds) {
    const std::string state =
        fmt::format("  running {:>4.1f} s  {}", seconds, counted(report.checks.size(), "check"));
    const std::string line = fmt::format("{:<{}}{}", report.name, nameWidth_, state);
    progress_.show(line.size() < style_.columns
                       ? line
                       : report.name.substr(report.name.rfind('/') + 1) + state);
}

void RunDisplay::showProgress(std::string_view what, size_t done, size_t all) {
    constexpr size_t barColumns = 30;
    const size_t filled = all == 0 ? 0 : barColumns * done / all;
    progress_.show(fmt::format("{}  [{}{}] {}/{}", what, std::string(filled, '#'),
                               std::string(barColumns - filled, ' '), done, all));
}

void RunDisplay::showLine(std::string_view line) {
    results_ << fitted(line, style_) << '\n';
}

void RunDisplay::showCaseEnded(const CaseReport& report) {
    clearProgress();
    const unsigned failures = report.checksFailed();
    const std::string failed = failures > 0 ? fmt::format("  ({} failed)", failures) : "";
    const bool isKnown = !report.known.empty();
    const std::string_view verdict = isKnown ? "known" : verdictText(report.verdict);
    const std::string_view colour = isKnown                           ? yellow
                                    : report.verdict == Verdict::pass ? green
                                                                      : red;
    constexpr size_t verdictWidth = 7;
    const std::string padding(verdictWidth - std::min(verdictWidth, verdict.size()), ' ');
    const std::string warned =
        report.warnings.empty() ? ""
                                : fmt::format("  ({})", counted(report.warnings.size(), "warning"));
    showLine(fmt::format("{:<{}}  {}{}  {:>10}  {:>9}{}{}", report.name, nameWidth_,
                         coloured(verdict, colour), padding, counted(report.checks.size(), "check"),
                         durationText(report.seconds()), failed, warned));
    showDetails(report);
    results_.flush();
}

void RunDisplay::showDetails(const CaseReport& report) {
    const auto show = [this](std::string_view line) { showLine("    " + base::printable(line)); };
    if (!report.known.empty()) {
        show(fmt::format("{}, as expected: {}", verdictText(report.verdict), report.known));
    }
    const std::vector<std::string> failures = report.failureLines();
    for (size_t i = 0; i < std::min(failures.size(), failuresShown); ++i) {
        show(failures[i]);
    }
    if (failures.size() > failuresShown) {
        show(
            fmt::format("… and {} more", counted(failures.size() - failuresShown, "failed check")));
    }
    std::ranges::for_each(report.missing, show);
    std::ranges::for_each(report.remarks, show);
    for (const WarningReport& warning : report.warnings) {
        show(warning.line());
    }
    const auto showLines = [&show](std::string_view lines) {
        while (const auto line = base::takeLine(lines)) {
            show(*line);
        }
    };
    if (!report.crash.empty()) {
        show(report.crash);
        showLines(report.crashStack);
    }
    if (report.hang) {
        show(hangText(*report.hang));
        showLines(report.hang->stacks);
    }
}

void RunDisplay::showForeignLine(std::string_view line) {
    clearProgress();
    others_ << std::string(line).append("\n") << std::flush;
}

void RunDisplay::showRemark(std::string_view line) {
    clearProgress();
    showLine(base::printable(line));
    results_.flush();
}

void RunDisplay::showFailed(const std::vector<CaseReport>& cases) {
    clearProgress();
    bool isFirst = true;
    for (const CaseReport& report : cases) {
        if (isPassedOrNotRun(report.verdict) || !report.known.empty()) {
            continue;
        }
        results_ << (isFirst ? "failed, and how to run it again:\n" : "");
        showLine(fmt::format("  {}, {}", report.name, verdictText(report.verdict)));
        results_ << (report.repeat.empty() ? "" : "    " + report.repeat + "\n");
        isFirst = false;
    }
    results_.flush();
}

void RunDisplay::showClosing(const std::vector<CaseReport>& cases, double seconds) {
    clearProgress();
    const auto casesWith = [&cases](Verdict verdict) {
        return std::ranges::count(cases, verdict, &CaseReport::verdict);
    };
    size_t checks = 0;
    size_t failed = 0;
    for (const CaseReport& report : cases) {
        checks += report.checks.size();
        failed += report.checksFailed();
    }
    const auto unlessNone = [](auto count, std::string_view what) {
        return count > 0 ? fmt::format(", {} {}", count, what) : "";
    };
    const auto known = std::ranges::count_if(
        cases, [](const CaseReport& report) { return !report.known.empty(); });
    showLine(fmt::format("{}, {} passed{}{}{}; {}, {} passed, {} failed; {}",
                         counted(caseCount_, "case"), casesWith(Verdict::pass),
                         unlessNone(known, "known to fail"),
                         unlessNone(casesWith(Verdict::notRun), "not run"),
                         unlessNone(casesWithWarnings(cases), "with warnings"),
                         counted(checks, "check"), checks - failed, failed, durationText(seconds)));
    results_.flush();
}

void RunDisplay::showConfirmation(const LibraryReport& library) {
    if (library.unconfirmed && worstOf(library.cases) == Verdict::pass) {
        showRemark(fmt::format("{}, {}", verdictText(Verdict::pass), notConfirmedText));
    }
}

void RunDisplay::showRepeats(const RepeatReport& repeats, double seconds) {
    const auto us = [](const base::Latencies& times, double share) {
        return std::chrono::duration<double, std::micro>(times.percentile(share)).count();
    };
    for (const auto& [function, times] : repeats.latencies) {
        showRemark(fmt::format("{:<52}  {:>8} calls  p50 {:>9.1f} us  p99 {:>9.1f} us", function,
                               times.count(), us(times, 0.5), us(times, 0.99)));
    }
    for (const RepeatReport::Growth& growth : repeats.growth) {
        const std::string slope =
            growth.slope ? fmt::format("  {:>+8.1f} each run", *growth.slope) : "";
        showRemark(fmt::format("{:<24}  {:>8} first  {:>8} last  {:>8} most{}", growth.what,
                               growth.first, growth.last, growth.most, slope));
    }
    for (const RepeatReport::Growth& growth : repeats.growth) {
        if (growth.grows) {
            showRemark(coloured(repeats.failsOnGrowth ? "fail: " : "remark: ",
                                repeats.failsOnGrowth ? red : plain) +
                       growth.remark());
        }
    }
    showRemark(
        fmt::format("{} runs, {} passed; {}", repeats.runs, repeats.passed, durationText(seconds)));
}

void RunDisplay::showMatrix(const MatrixReport& matrix) {
    for (const CheckKilled& check : matrix.checks) {
        if (check.faults.empty()) {
            showRemark(fmt::format("{}: no fault turns red: {}", check.caseName, check.check));
        }
    }
    const auto invisible = std::ranges::count_if(
        matrix.faults, [](const FaultReport& fault) { return !fault.unnoticedBecause.empty(); });
    const auto warned = std::ranges::count_if(matrix.faults, &FaultReport::isDetectedByWarnings);
    const auto wrong = std::ranges::count_if(
        matrix.faults, [](const FaultReport& fault) { return !fault.asExpected(); });
    const auto survived = std::ranges::count_if(
        matrix.checks, [](const CheckKilled& check) { return check.faults.empty(); });
    showRemark(fmt::format(
        "{} faults, {} detected as expected, {} of them by warnings alone, {} that nobody can "
        "detect, {} not as expected; {} checks, {} turned red; {}",
        matrix.faults.size(), std::ssize(matrix.faults) - invisible - wrong, warned, invisible,
        wrong, matrix.checks.size(), std::ssize(matrix.checks) - survived,
        durationText(matrix.seconds)));
}

std::string RunDisplay::coloured(std::string_view text, std::string_view colour) const {
    return style_.colour ? fmt::format("{}{}{}", colour, text, plain) : std::string(text);
}

std::string durationText(double seconds) {
    if (seconds < 0.9995) {
        return fmt::format("{:.1f} ms", seconds * 1e3);
    }
    return fmt::format("{:.2f} s", seconds);
}

std::string hangText(const HangReport& hang) {
    const std::string what = hang.call.empty()
                                 ? fmt::format("nothing happened for {:.1f} s", hang.seconds)
                                 : fmt::format("{} with {} did not return within {:.1f} s",
                                               hang.call, hang.arguments, hang.seconds);
    return what + lastPassedClause(hang.lastPassed);
}

}  // namespace kavri::conformance
