// Putting the texts into lines; see explanations.h.
#include "conformance/cases/explanations.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "base/suggestion.h"
#include "base/terminal.h"
#include "conformance/cases/case_guide.h"
#include "conformance/cases/case_listing.h"
#include "conformance/faults/fault_catalogue.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

// Paragraphs are read best in lines that are not too long.
constexpr unsigned longestLine = 80;

// A paragraph with a title, in lines that a terminal shows whole, without Markdown.
void paragraph(std::ostream& output, std::string_view title, std::string_view markdown) {
    output << '\n' << title << '\n';
    std::string text(markdown);
    std::erase(text, '`');
    const size_t columns = std::min(longestLine, base::DisplayStyle::ofStandardOutput().columns);
    std::istringstream words(text);
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

void showLine(std::ostream& output, const std::string& line) {
    output << base::fitted(line, base::DisplayStyle::ofStandardOutput()) << '\n';
}

void explainCase(const CaseGuide& guide, std::ostream& output) {
    output << fmt::format("{}, {}\n", guide.name, levelText(levelOf(guide.name)));
    paragraph(output, "What it proves", guide.proves);
    paragraph(output, "Procedure", guide.procedure);
    paragraph(output, "What it asserts", guide.asserts);
    paragraph(output, "What can make it fail", guide.failures);
    output << "\nIts checks\n";
    for (const CheckRequirement& check : checksOf(guide.name)) {
        showLine(output, fmt::format("  {:<6}  {}", levelText(check.level), check.text));
    }
}

void explainFault(const Fault& fault, std::ostream& output) {
    output << fault.name << '\n';
    paragraph(output, "What is broken", fault.description);
    paragraph(output, "The rule", fault.clause);
    if (!fault.survivesBecause.empty()) {
        paragraph(output, "No case can detect it", fault.survivesBecause);
        return;
    }
    output << "\nDetected by\n";
    for (const Kill& kill : fault.kills) {
        showLine(output, fmt::format("  {}: {}", kill.caseName, kill.how));
    }
}

}  // namespace

void listCases(const std::vector<std::string>& patterns, Level level, std::ostream& output) {
    std::vector<std::string> names;
    for (const CaseGuide& guide : caseGuides()) {
        names.emplace_back(guide.name);
    }
    for (const std::string& name : atLevel(selectCases(names, patterns), level)) {
        showLine(output, fmt::format("{}, {}", name, levelText(levelOf(name))));
        showLine(output, fmt::format("    {}", findCaseGuide(name)->proves));
    }
}

void listFaults(std::ostream& output) {
    for (const Fault& fault : faultCatalogue()) {
        showLine(output, fmt::format("{:<36}  {}", fault.name, fault.description));
    }
}

void explain(const std::string& name, std::ostream& output) {
    if (const CaseGuide* guide = findCaseGuide(name)) {
        explainCase(*guide, output);
    } else if (const Fault* fault = findFault(name)) {
        explainFault(*fault, output);
    } else {
        std::vector<std::string> known = namesOfCases();
        std::ranges::copy(namesOfFaults(), std::back_inserter(known));
        throw process::CommandFailure(
            process::ExitStatus::usage,
            fmt::format("no case and no fault '{}'; {}see --list and --list-faults", name,
                        base::didYouMean(name, known)));
    }
}

}  // namespace kavri::conformance
