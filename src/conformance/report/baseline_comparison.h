// How a run compares with an earlier one; see baseline.h.
#ifndef KAVRI_CONFORMANCE_REPORT_BASELINE_COMPARISON_H
#define KAVRI_CONFORMANCE_REPORT_BASELINE_COMPARISON_H

#include <cstddef>
#include <string>
#include <vector>

namespace kavri::conformance {

struct BaselineComparison {
    struct Case {
        std::string library;
        std::string name;
        // Texts of checks that failed, "record", "timeout" or "crash".
        std::vector<std::string> ways;
    };
    struct Function {
        std::string library;
        std::string name;
        double earlierP50Us = 0;
        double p50Us = 0;
    };

    std::string file;
    std::string date;           // of the earlier run
    std::size_t libraries = 1;  // how many were compared
    std::vector<Case> newlyFailing;
    std::vector<Case> newlyPassing;
    std::vector<Case> stillFailing;
    std::vector<Case> missing;  // was run earlier, but not now although it was selected
    std::vector<Function> slower;

    bool isWorse() const { return !newlyFailing.empty() || !missing.empty(); }
};

// As the terminal shows it.
std::vector<std::string> comparisonLines(const BaselineComparison& comparison);

}  // namespace kavri::conformance

#endif
