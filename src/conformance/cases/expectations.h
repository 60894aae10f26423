// Known failures: a file that says which cases, or which checks of them, are
// expected to fail, and why. An entry is one line:
//
//   CASE  # reason                  the case, however it fails
//   CASE: CHECK TEXT  # reason      this check of the case
//
// CASE is "suite/case" or the case alone; CHECK TEXT is what the report shows of
// the check. Blank lines and those that begin with "#" are ignored.
#ifndef KAVRI_CONFORMANCE_CASES_EXPECTATIONS_H
#define KAVRI_CONFORMANCE_CASES_EXPECTATIONS_H

#include <filesystem>
#include <string>
#include <vector>

#include "conformance/report/report.h"

namespace kavri::conformance {

// Without a file nothing is expected to fail.
class Expectations {
  public:
    // Throws CommandFailure where the file cannot be read, or a line is no entry.
    static Expectations read(const std::filesystem::path& path);

    // Notes the reason in each case that failed only as expected. May be called
    // for the cases of several runs, one after the other.
    void apply(std::vector<CaseReport>& cases);

    // The reason of the entry for the check, or, where that is empty, for the whole case;
    // empty where there is none.
    std::string reasonOf(const std::string& caseName, const std::string& check) const;

    // A line for each entry that was true in none of the runs: its case passed, or its
    // check did not fail. Entries of cases that did not run are left out.
    std::vector<std::string> complaints() const;

  private:
    struct Entry {
        std::string place;  // "file:line"
        std::string caseName;
        std::string check;  // empty: the whole case
        std::string reason;
        bool caseRan = false;
        bool caseFailed = false;
        bool matched = false;
    };

    static Entry readEntry(const std::string& place, std::string_view line);
    static std::string complaintAbout(const Entry& entry);
    std::string reasonFor(const CaseReport& report);

    std::vector<Entry> entries_;
};

}  // namespace kavri::conformance

#endif
