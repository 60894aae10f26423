// What the user of `kavri conformance` asked for.
#ifndef KAVRI_CONFORMANCE_RUN_RUN_PLAN_H
#define KAVRI_CONFORMANCE_RUN_RUN_PLAN_H

#include <optional>
#include <string>
#include <vector>

#include "conformance/cases/requirements.h"
#include "conformance/report/report_files.h"

namespace kavri::conformance {

struct RunPlan {
    std::string program = "kavri";        // as it was called
    std::string tool;                     // its name and version, for the report
    std::vector<std::string> invocation;  // the whole command line, for the report
    std::optional<std::string> socket;
    bool ownBroker = false;     // the library brings its broker and service
    std::string serviceRecord;  // a file, of the service behind either of these; empty: none
    std::vector<std::string> libraries;  // folders; none: the library that the module finds
    std::vector<std::string> names;      // of the libraries in the reports, as far as given
    std::vector<std::string> casePatterns;
    Level level = Level::may;              // of the cases, and of the checks that count
    std::optional<double> timeoutSeconds;  // of the whole run
    double callTimeoutSeconds = 10;
    double timeScale = 1;
    std::string fault;  // to run with; empty: none
    bool proves = false;
    std::optional<unsigned> repeat;
    bool untilFail = false;
    std::optional<unsigned> shuffle;
    bool failsOnLeaks = false;  // with repeats: growth is a failure
    // Warnings count as failures, and a pass that the other side does not confirm is none.
    bool strict = false;
    unsigned jobs = 0;                // at a time; 0: as many as suit the machine
    std::string expectations;         // a file; empty: none
    std::string writtenExpectations;  // a file; empty: none
    std::string baseline;             // a JSON report; empty: none
    ReportPlaces reports;
    std::vector<std::string> moduleArguments;

    // How long the whole run may take.
    double limitSeconds() const;
    // How many processes run at a time where there are `most` runs; and of repeated ones.
    unsigned jobsFor(unsigned most) const;
    unsigned repeatJobs() const;
    // Whether each run has a broker of the kit's.
    bool startsBrokers() const { return !socket && !ownBroker; }
    bool isConfirmed() const { return startsBrokers() || !serviceRecord.empty(); }
};

}  // namespace kavri::conformance

#endif
