// Writing the files; see report_files.h.
#include "conformance/report/report_files.h"

#include <fmt/format.h>

#include <system_error>

#include "conformance/report/html/report_page.h"
#include "conformance/report/junit_report.h"
#include "conformance/report/whole_file.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace fs = std::filesystem;

ReportFiles::ReportFiles(ReportPlaces places, const Report& report) : places_(std::move(places)) {
    if (places_.html) {
        std::error_code error;
        fs::create_directories(*places_.html, error);
        if (error) {
            throw process::CommandFailure(
                process::ExitStatus::couldNotRun,
                fmt::format("cannot make the folder {}: {}; choose another --html", *places_.html,
                            error.message()));
        }
    }
    update(report);
    if (!complaint_.empty()) {
        throw process::CommandFailure(process::ExitStatus::couldNotRun, complaint_);
    }
}

void ReportFiles::writeAll(const Report& report, bool isLast) {
    if (places_.junit) {
        write(*places_.junit, junitReport(report), isLast);
    }
    if (!places_.json && !places_.html) {
        return;
    }
    const nlohmann::json content = toJson(report);
    if (places_.json) {
        write(*places_.json,
              content.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n", isLast);
    }
    if (places_.html) {
        write(fs::path(*places_.html) / "index.html", reportPage(content), isLast);
    }
}

void ReportFiles::write(const fs::path& file, const std::string& text, bool isLast) {
    if (!isLast && isStream(file)) {
        return;
    }
    const std::string complaint = writeWholeFile(file, text);
    if (complaint_.empty()) {
        complaint_ = complaint;
    }
}

}  // namespace kavri::conformance
