// Putting the texts into lines; see explanations.h.
#include "cli/explanations.h"

#include <fmt/format.h>

#include <sstream>

#include "cli/case_guide.h"
#include "cli/exit_status.h"
#include "probe/fault_catalogue.h"

namespace kavri::cli {

namespace {

constexpr size_t columns = 80;

// A paragraph with a title, in lines that a terminal shows whole.
void paragraph(std::ostream& output, std::string_view title, std::string_view text) {
    output << '\n' << title << '\n';
    std::istringstream words{std::string(text)};
    std::string line;
    for (std::string word; words >> word;) {
        if (line.size() + 1 + word.size() > columns) {
            output << line << '\n';
            line.clear();
        }
        line.append(line.empty() ? "  " : " ").append(word);
    }
    output << line << '\n';
}

void explainCase(const CaseGuide& guide, std::ostream& output) {
    output << guide.name << '\n';
    paragraph(output, "What it proves", guide.proves);
    paragraph(output, "Procedure", guide.procedure);
    paragraph(output, "What it asserts", guide.asserts);
    paragraph(output, "What can make it fail", guide.failures);
}

void explainFault(const probe::Fault& fault, std::ostream& output) {
    output << fault.name << '\n';
    paragraph(output, "What is broken", fault.description);
    paragraph(output, "The rule", fault.clause);
    if (!fault.unnoticedBecause.empty()) {
        paragraph(output, "No case can notice it", fault.unnoticedBecause);
        return;
    }
    output << "\nNoticed by\n";
    for (const probe::Notice& notice : fault.notices) {
        output << fmt::format("  {}: {}\n", notice.caseName, notice.how);
    }
}

}  // namespace

void listCases(std::ostream& output) {
    for (const CaseGuide& guide : caseGuides()) {
        output << fmt::format("{}\n    {}\n", guide.name, guide.proves);
    }
}

void listFaults(std::ostream& output) {
    for (const probe::Fault& fault : probe::faults()) {
        output << fmt::format("{:<36}  {}\n", fault.name, fault.description);
    }
}

void explain(const std::string& name, std::ostream& output) {
    if (const CaseGuide* guide = findCaseGuide(name)) {
        explainCase(*guide, output);
    } else if (const probe::Fault* fault = probe::findFault(name)) {
        explainFault(*fault, output);
    } else {
        throw CommandFailure(
            ExitStatus::usage,
            fmt::format("no case and no fault '{}'; see --list and --list-faults", name));
    }
}

}  // namespace kavri::cli
