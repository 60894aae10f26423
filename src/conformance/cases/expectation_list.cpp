// One line for each entry; see expectation_list.h.
#include "conformance/cases/expectation_list.h"

#include <fmt/format.h>

#include <algorithm>

namespace kavri::conformance {

namespace {

// Whether the text of a check is read back as it is: on one line, without what would begin
// the reason, or be taken off as a blank.
bool canBeListed(const std::string& check) {
    const std::string behindBlank = " " + check;
    return !check.empty() && check.find_first_of("\n\r") == std::string::npos &&
           behindBlank.find(" #") == std::string::npos &&
           behindBlank.find("\t#") == std::string::npos && check.find_first_of(" \t") != 0 &&
           check.find_last_of(" \t") != check.size() - 1;
}

class List {
  public:
    List(const Report& report, const Expectations& known)
        : day_(report.date.substr(0, report.date.find('T'))), known_(known) {}

    void add(const CaseReport& report) {
        const std::vector<std::string> checks = report.failedChecks();
        const bool onlyChecks = report.verdict == Verdict::fail && report.missing.empty() &&
                                !checks.empty() && std::ranges::all_of(checks, canBeListed);
        if (!onlyChecks) {
            addEntry(report, "");
            return;
        }
        for (const std::string& check : checks) {
            addEntry(report, check);
        }
    }

    const std::vector<std::string>& lines() const { return lines_; }

  private:
    void addEntry(const CaseReport& report, const std::string& check) {
        const std::string subject = check.empty() ? report.name : report.name + ": " + check;
        if (std::ranges::find(subjects_, subject) != subjects_.end()) {
            return;  // of another library
        }
        const std::string reason = known_.reasonOf(report.name, check);
        subjects_.push_back(subject);
        lines_.push_back(fmt::format("{}  # {}\n", subject,
                                     reason.empty() ? fmt::format("not explained yet; {} on {}",
                                                                  verdictText(report.verdict), day_)
                                                    : reason));
    }

    const std::string day_;
    const Expectations& known_;
    std::vector<std::string> subjects_;
    std::vector<std::string> lines_;
};

}  // namespace

std::string expectationList(const Report& report, const Expectations& known) {
    List list(report, known);
    for (const LibraryReport& library : report.libraries) {
        for (const CaseReport& one : library.cases) {
            if (one.hasFailed()) {
                list.add(one);
            }
        }
    }
    std::string text = fmt::format("# Known failures, as of {}: {}\n", report.date, report.command);
    for (const std::string& line : list.lines()) {
        text += line;
    }
    return text;
}

}  // namespace kavri::conformance
