// Reading the entries and comparing them with what happened; see expectations.h.
#include "conformance/cases/expectations.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <fstream>
#include <set>
#include <system_error>

#include "base/suggestion.h"
#include "base/text_scanner.h"
#include "conformance/cases/case_guide.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const size_t begin = text.find_first_not_of(blanks);
    return begin == std::string_view::npos
               ? std::string_view()
               : text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

[[noreturn]] void refuse(const std::string& place, const std::string& what) {
    throw process::CommandFailure(process::ExitStatus::usage, fmt::format("{}: {}", place, what));
}

// Where the reason begins: at a "#" behind a blank, so that a check may have one in it.
size_t reasonMark(std::string_view line) {
    assert(!line.starts_with('#'));  // that would be a comment
    size_t mark = line.find('#');
    while (mark != std::string_view::npos &&
           blanks.find(line[mark - 1]) == std::string_view::npos) {
        mark = line.find('#', mark + 1);
    }
    return mark;
}

}  // namespace

Expectations::Entry Expectations::readEntry(const std::string& place, std::string_view line) {
    const size_t mark = reasonMark(line);
    const std::string_view subject = trimmed(line.substr(0, mark));
    const std::string_view reason =
        mark == std::string_view::npos ? "" : trimmed(line.substr(mark + 1));
    if (reason.empty()) {
        refuse(place, fmt::format("no reason; write why behind the entry: '{}  # why'", subject));
    }
    std::string_view check = subject;
    const auto beforeColon = base::takeUntil(check, ":");
    const std::string_view name = trimmed(beforeColon.value_or(subject));
    check = beforeColon ? trimmed(check) : "";
    const CaseGuide* guide = findCaseGuide(name);
    if (guide == nullptr) {
        refuse(place, fmt::format("no case '{}'; {}see --list", name,
                                  base::didYouMean(name, namesOfCases())));
    }
    if (beforeColon && check.empty()) {
        refuse(place, fmt::format("no check behind '{}:'; write its text as the report shows it, "
                                  "or leave out the ':'",
                                  name));
    }
    Entry entry;
    entry.place = place;
    entry.caseName = guide->name;
    entry.check = check;
    entry.reason = reason;
    return entry;
}

Expectations Expectations::read(const std::filesystem::path& path) {
    std::ifstream file(path);
    Expectations expectations;
    std::string text;
    for (unsigned number = 1; std::getline(file, text); ++number) {
        const std::string_view line = trimmed(text);
        if (!line.empty() && !line.starts_with("#")) {
            expectations.entries_.push_back(
                readEntry(fmt::format("{}:{}", path.string(), number), line));
        }
    }
    if (!file.eof()) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("{}: {}; name a file of known failures that can be read", path.string(),
                        std::generic_category().message(errno)));
    }
    return expectations;
}

void Expectations::apply(std::vector<CaseReport>& cases) {
    for (CaseReport& report : cases) {
        if (report.verdict == Verdict::pass || report.hasFailed()) {
            report.known = reasonFor(report);
        }
    }
}

// The reasons of the entries that cover all of a failure; empty where none is
// there or something of it is not covered.
std::string Expectations::reasonFor(const CaseReport& report) {
    const std::vector<std::string> texts = report.failedChecks();
    const std::set<std::string> failed(texts.begin(), texts.end());
    std::set<std::string> unexpected = failed;
    bool wholeCase = false;
    std::vector<std::string> reasons;
    for (Entry& entry : entries_) {
        if (entry.caseName != report.name) {
            continue;
        }
        entry.caseRan = true;
        entry.caseFailed = entry.caseFailed || report.hasFailed();
        if (!report.hasFailed() || (!entry.check.empty() && !failed.contains(entry.check))) {
            continue;
        }
        entry.matched = true;
        wholeCase = wholeCase || entry.check.empty();
        unexpected.erase(entry.check);
        if (std::ranges::find(reasons, entry.reason) == reasons.end()) {
            reasons.push_back(entry.reason);
        }
    }
    const bool allChecks = report.verdict == Verdict::fail && !failed.empty() &&
                           unexpected.empty() && report.missing.empty();
    return wholeCase || allChecks ? fmt::format("{}", fmt::join(reasons, "; ")) : "";
}

std::string Expectations::reasonOf(const std::string& caseName, const std::string& check) const {
    const auto found = std::ranges::find_if(entries_, [&](const Entry& entry) {
        return entry.caseName == caseName && entry.check == check;
    });
    return found == entries_.end() ? "" : found->reason;
}

std::string Expectations::complaintAbout(const Entry& entry) {
    if (!entry.caseFailed) {
        return fmt::format("{}: unexpected pass: {} is expected to fail ({}); take the entry out",
                           entry.place, entry.caseName, entry.reason);
    }
    return fmt::format(
        "{}: matched nothing: no check '{}' failed in {}; put its text right, or take the entry "
        "out",
        entry.place, entry.check, entry.caseName);
}

std::vector<std::string> Expectations::complaints() const {
    std::vector<std::string> lines;
    for (const Entry& entry : entries_) {
        if (entry.caseRan && !entry.matched) {
            lines.push_back(complaintAbout(entry));
        }
    }
    return lines;
}

}  // namespace kavri::conformance
