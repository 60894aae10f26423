// Writing the files; see report_files.h.
#include "conformance/report/report_files.h"

#include <fmt/format.h>

#include <cerrno>
#include <fstream>
#include <system_error>

#include "conformance/report/html/report_page.h"
#include "conformance/report/junit_report.h"
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

// Writes a new file and renames it over the old one; but a device or pipe is written to.
void ReportFiles::write(const fs::path& file, const std::string& text, bool isLast) {
    std::error_code error;
    const bool isReplaced = !fs::exists(file, error) || fs::is_regular_file(file, error);
    if (!isReplaced && !isLast && !fs::is_directory(file, error)) {
        return;
    }
    const fs::path fresh = isReplaced ? file.string() + ".new" : file.string();
    errno = 0;
    std::ofstream stream(fresh, std::ios::binary | std::ios::trunc);
    stream << text;
    stream.close();
    error = std::error_code(stream ? 0 : (errno != 0 ? errno : EIO), std::generic_category());
    if (!error && isReplaced) {
        fs::rename(fresh, file, error);
    }
    if (error) {
        std::error_code ignored;
        if (isReplaced) {
            fs::remove(fresh, ignored);
        }
        if (complaint_.empty()) {
            complaint_ = fmt::format("cannot write {}: {}{}", file.string(), error.message(),
                                     isReplaced ? "; what was there before is kept" : "");
        }
    }
}

}  // namespace kavri::conformance
