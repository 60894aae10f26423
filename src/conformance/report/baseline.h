// An earlier run as the measure of this one: its JSON report is read, and compared with the
// report of this run case by case and function by function.
#ifndef KAVRI_CONFORMANCE_REPORT_BASELINE_H
#define KAVRI_CONFORMANCE_REPORT_BASELINE_H

#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "conformance/report/baseline_comparison.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

class Baseline {
  public:
    // Throws CommandFailure where the file cannot be read, or is no report of a run that
    // came to its end.
    static Baseline read(const std::filesystem::path& path);

    // `isSelected`: whether this run was to run the case of that name.
    BaselineComparison compare(const Report& report,
                               const std::function<bool(const std::string&)>& isSelected) const;

  private:
    // A function's calls, in microseconds.
    struct Times {
        std::size_t count = 0;
        double p10Us = 0;  // of this run alone
        double p50Us = 0;
        double p90Us = 0;
    };
    struct Library {
        std::string name;
        // How each case failed; empty: it passed.
        std::map<std::string, std::set<std::string>> ways;
        std::map<std::string, Times> times;
    };

    explicit Baseline(const nlohmann::json& report);
    static Library libraryIn(const nlohmann::json& library);
    static bool isSlower(const Times& earlier, const Times& now);
    const Library* counterpartOf(const LibraryReport& library, const Report& report) const;
    void compareCases(const LibraryReport& library, const Library& earlier,
                      BaselineComparison& result) const;
    void compareTimes(const LibraryReport& library, const Library& earlier,
                      BaselineComparison& result) const;

    std::string file_;
    std::string date_;
    std::vector<Library> libraries_;
};

}  // namespace kavri::conformance

#endif
