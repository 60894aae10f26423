// Laying out lines; see run_display.h.
#include "cli/run_display.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <ostream>

#include "cli/environment.h"

namespace kavri::cli {

namespace {

constexpr std::string_view green = "\x1b[32m";
constexpr std::string_view red = "\x1b[31m";
constexpr std::string_view plain = "\x1b[0m";
constexpr std::string_view eraseLine = "\r\x1b[K";

std::string counted(unsigned long count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

}  // namespace

DisplayStyle DisplayStyle::ofStandardOutput() {
    DisplayStyle style;
    const std::string terminal = environmentVariable("TERM");
    style.terminal = isatty(STDOUT_FILENO) == 1 && !terminal.empty() && terminal != "dumb";
    style.colour = style.terminal && environmentVariable("NO_COLOR").empty();
    winsize size{};
    if (style.terminal && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        style.columns = size.ws_col;
    }
    return style;
}

RunDisplay::RunDisplay(std::ostream& results, std::ostream& others, DisplayStyle style,
                       const std::vector<std::string>& cases)
    : results_(results), others_(others), style_(style), caseCount_(cases.size()), nameWidth_(0) {
    for (const std::string& name : cases) {
        nameWidth_ = std::max(nameWidth_, name.size());
    }
}

void RunDisplay::showOpening(const std::string& library, const std::string& broker) {
    results_ << fmt::format("core library {}, {}\n", printable(library), printable(broker))
             << std::flush;
}

void RunDisplay::showCaseUnderWay(const CaseRecord& record) {
    if (!style_.terminal) {
        return;
    }
    std::string line = fmt::format("{:<{}}  running {:>4}", record.name, nameWidth_,
                                   counted(record.checks(), "check"));
    // A line that wraps could not be replaced.
    line.resize(std::min<size_t>(line.size(), style_.columns - 1));
    if (line != progress_) {
        results_ << eraseLine << line << std::flush;
        progress_ = line;
    }
}

void RunDisplay::showCaseEnded(const CaseRecord& record) {
    clearProgress();
    const std::string failed =
        record.checksFailed > 0 ? fmt::format("  ({} failed)", record.checksFailed) : "";
    const std::string verdict = coloured(fmt::format("{:<7}", verdictText(record.verdict)),
                                         record.verdict == Verdict::passed ? green : red);
    results_ << fmt::format("{:<{}}  {}  {:>10}  {:>9}{}\n", record.name, nameWidth_, verdict,
                            counted(record.checks(), "check"), durationText(record.time), failed);
    for (const std::string& failure : record.failures) {
        results_ << "    " << printable(failure) << '\n';
    }
    results_.flush();
}

void RunDisplay::showOthersLine(std::string_view line) {
    clearProgress();
    others_ << std::string(line).append("\n") << std::flush;
}

void RunDisplay::showRemark(std::string_view line) {
    clearProgress();
    results_ << printable(line) << '\n' << std::flush;
}

void RunDisplay::showClosing(const RunRecord& record, std::chrono::microseconds time) {
    clearProgress();
    const size_t notRun = caseCount_ - std::min(caseCount_, record.cases().size());
    results_ << fmt::format("{}, {} passed{}; {}, {} passed, {} failed; {}",
                            counted(caseCount_, "case"), record.casesPassed(),
                            notRun > 0 ? fmt::format(", {} not run", notRun) : "",
                            counted(record.checksPassed() + record.checksFailed(), "check"),
                            record.checksPassed(), record.checksFailed(), durationText(time))
             << std::endl;
}

void RunDisplay::clearProgress() {
    if (!progress_.empty()) {
        results_ << eraseLine << std::flush;
        progress_.clear();
    }
}

std::string RunDisplay::coloured(std::string_view text, std::string_view colour) const {
    return style_.colour ? fmt::format("{}{}{}", colour, text, plain) : std::string(text);
}

std::string_view verdictText(Verdict verdict) {
    switch (verdict) {
        case Verdict::passed:
            return "passed";
        case Verdict::failed:
            return "failed";
        case Verdict::aborted:
            return "aborted";
        case Verdict::crashed:
            return "crashed";
        case Verdict::hung:
            return "hung";
        case Verdict::stopped:
            return "stopped";
    }
    return "";
}

std::string durationText(std::chrono::microseconds time) {
    const auto us = static_cast<double>(time.count());
    if (us < 999'500) {
        return fmt::format("{:.1f} ms", us / 1e3);
    }
    return fmt::format("{:.2f} s", us / 1e6);
}

std::string printable(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            result += "\\n";
        } else if (byte < 0x20 || byte == 0x7f) {
            result += fmt::format("\\x{:02x}", byte);
        } else {
            result += c;
        }
    }
    return result;
}

}  // namespace kavri::cli
