// The report files: written again after each step, each as a whole or not at all, so that
// a run that is killed leaves a report of the steps before. A device or a pipe, which keeps
// everything that is written, gets the last report alone.
#ifndef KAVRI_CONFORMANCE_REPORT_REPORT_FILES_H
#define KAVRI_CONFORMANCE_REPORT_REPORT_FILES_H

#include <filesystem>
#include <optional>
#include <string>

#include "conformance/report/report.h"

namespace kavri::conformance {

struct ReportPlaces {
    std::optional<std::string> junit;  // a file
    std::optional<std::string> json;   // a file
    std::optional<std::string> html;   // a folder, in which index.html is made
};

class ReportFiles {
  public:
    // Writes the report before anything has run: throws CommandFailure where a file
    // cannot be written.
    ReportFiles(ReportPlaces places, const Report& report);

    // Where a file cannot be written, the others are nevertheless; see complaint().
    void update(const Report& report) { writeAll(report, false); }
    // After the last step.
    void finish(const Report& report) { writeAll(report, true); }

    // The first file that could not be written, and why; empty: all were.
    const std::string& complaint() const { return complaint_; }

  private:
    void writeAll(const Report& report, bool isLast);
    void write(const std::filesystem::path& file, const std::string& text, bool isLast);

    const ReportPlaces places_;
    std::string complaint_;
};

}  // namespace kavri::conformance

#endif
