// What the user may ask of `kavri conformance`.
#ifndef KAVRI_CLI_CONFORMANCE_OPTIONS_H
#define KAVRI_CLI_CONFORMANCE_OPTIONS_H

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cli/report_files.h"

namespace kavri::cli {

struct ConformanceOptions {
    std::optional<std::string> socket;
    std::vector<std::string> libraries;  // none: the one that the module finds
    std::vector<std::string> casePatterns;
    std::optional<double> timeoutSeconds;  // of the whole run
    double callTimeoutSeconds = 10;
    double timeScale = 1;
    std::string fault;  // to run with; empty: none
    bool proves = false;
    std::optional<unsigned> repeat;
    bool untilFail = false;
    std::optional<unsigned> shuffle;
    unsigned jobs = 0;         // 0: as many as suit the machine
    std::string expectations;  // a file; empty: none
    ReportPlaces reports;
    bool listsCases = false;
    bool listsFaults = false;
    std::string explained;                     // a case or a fault; empty: none
    std::vector<std::string> moduleArguments;  // what stands after "--"
    std::vector<std::string> invocation;       // the whole command line, for the report
};

void describeConformance(CLI::App& command, ConformanceOptions& options);

// Throws CommandFailure where two of them do not go together, or a name is unknown.
void checkOptions(const ConformanceOptions& options);

// How long the whole run may take.
double runSeconds(const ConformanceOptions& options);

}  // namespace kavri::cli

#endif
