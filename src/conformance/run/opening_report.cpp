// Names and places of what will be run; see opening_report.h.
#include "conformance/run/opening_report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <vector>

#include "base/shell_words.h"
#include "conformance/run/library_run.h"

namespace kavri::conformance {

namespace {

// While the run goes on; and for good where it is killed.
const std::string notEndedYet = "the run had not ended when this was written";

// Unless a name is given, the folder: the same however it was typed, because what compares
// the reports of several runs goes by the name.
std::string nameOf(const RunPlan& plan, size_t library) {
    if (library < plan.names.size()) {
        return plan.names[library];
    }
    if (plan.libraries.empty()) {
        return std::string(coreLibrary);
    }
    std::error_code error;
    const auto folder = std::filesystem::canonical(plan.libraries[library], error);
    return error ? plan.libraries[library] : folder.string();
}

std::string brokerText(const RunPlan& plan) {
    if (plan.ownBroker) {
        return "broker of the library";
    }
    return plan.socket ? "broker at " + *plan.socket : "broker of its own";
}

}  // namespace

Report openingReport(const RunPlan& plan) {
    Report report;
    std::vector<std::string> words = {"kavri"};
    words.insert(words.end(), plan.invocation.begin(), plan.invocation.end());
    report.command = base::shellCommand(words);
    report.date = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr)));
    report.tool = plan.tool;
    report.requirements = requirementsJson();
    report.reason = notEndedYet;
    report.libraries.resize(std::max<size_t>(1, plan.libraries.size()));
    for (size_t i = 0; i < report.libraries.size(); ++i) {
        LibraryReport& library = report.libraries[i];
        library.name = nameOf(plan, i);
        library.broker = brokerText(plan);
        library.unconfirmed = !plan.isConfirmed();
        library.reason = notEndedYet;
    }
    return report;
}

void noteWhyIncomplete(Report& report, const std::string& reason) {
    report.reason = reason;
    for (LibraryReport& library : report.libraries) {
        if (library.reason == notEndedYet) {
            library.reason = reason;
        }
    }
}

}  // namespace kavri::conformance
