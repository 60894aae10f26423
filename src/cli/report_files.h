// The files that a run leaves: written again after each step, each as a whole or
// not at all, so that a run that is killed leaves what it knew.
#ifndef KAVRI_CLI_REPORT_FILES_H
#define KAVRI_CLI_REPORT_FILES_H

#include <filesystem>
#include <optional>
#include <string>

#include "cli/report.h"

namespace kavri::cli {

struct ReportPlaces {
    std::optional<std::string> junit;  // a file
    std::optional<std::string> json;   // a file
    std::optional<std::string> html;   // a folder, in which index.html is made
};

class ReportFiles {
  public:
    // Writes what is known before anything has run: throws CommandFailure where a
    // file cannot be written.
    ReportFiles(ReportPlaces places, const Report& report);

    // A file that cannot be written now is complained of once; the others are.
    void update(const Report& report);

    // What was complained of; empty: all was written.
    const std::string& complaint() const { return complaint_; }

  private:
    void write(const std::filesystem::path& file, const std::string& text);

    const ReportPlaces places_;
    std::string complaint_;
};

}  // namespace kavri::cli

#endif
