// Every case and check of the module has a level, and the manual has the table.
#define BOOST_TEST_MODULE requirements

#include "conformance/cases/requirements.h"

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "conformance/cases/case_guide.h"
#include "process/exit_status.h"

using namespace kavri::conformance;

namespace {

const std::string polled = "initiatorSend/initiatorRepeatEchoNonBlocking";
const std::string events = "initiatorEvent/initiatorRepeatEventCallback";
const std::string isUnsubscribed = "KAVRI_CORE_STATUS_NO_ERROR == eventUnsubscribe(\"test\")";

std::string sourceFile(const std::string& name) {
    std::ifstream file(KAVRI_SOURCE_DIR "/" + name);
    BOOST_REQUIRE(file.good());
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// "a, b" as the module prints it: "a == b". The comma is the first outside of parentheses.
std::string comparisonOf(const std::string& arguments) {
    int depth = 0;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        depth += arguments[i] == '(' ? 1 : arguments[i] == ')' ? -1 : 0;
        if (arguments[i] == ',' && depth == 0) {
            return arguments.substr(0, i) + " ==" + arguments.substr(i + 1);
        }
    }
    return arguments;
}

// The checks of the module's source, in the words in which it prints them.
std::set<std::string> checksInSource() {
    const std::string source = sourceFile("tests/test_ipc_initiator.cpp");
    const std::regex macro(R"(BOOST_(CHECK|REQUIRE)(_EQUAL)?\((.*)\);)");
    std::set<std::string> checks;
    for (std::sregex_iterator found(source.begin(), source.end(), macro), end; found != end;
         ++found) {
        const std::string arguments = (*found)[3];
        checks.insert(std::regex_replace((*found)[2].matched ? comparisonOf(arguments) : arguments,
                                         std::regex("NULL"), "__null"));
    }
    return checks;
}

std::string rowOf(const CaseRequirement& one) {
    std::map<Level, std::string> others;
    for (const CheckRequirement& check : one.checks) {
        const bool isOfBringingUp =
            check.text.find("_init(") != check.text.npos || check.text == "c != __null";
        if (check.level != one.level && !isOfBringingUp) {
            others[check.level] +=
                (others[check.level].empty() ? "" : ", ") + ("`" + std::string(check.text) + "`");
        }
    }
    std::string cell;
    for (const auto& [level, checks] : others) {
        cell += (cell.empty() ? " " : "; ") + std::string(levelText(level)) + ": " + checks;
    }
    return "| " + std::string(one.name.substr(one.name.rfind('/') + 1)) + " | " +
           std::string(levelText(one.level)) + " |" + cell + " |\n";
}

}  // namespace

BOOST_AUTO_TEST_CASE(theCasesAreThoseOfTheGuide) {
    BOOST_REQUIRE_EQUAL(requirements().size(), caseGuides().size());
    for (std::size_t i = 0; i < caseGuides().size(); ++i) {
        BOOST_TEST(requirements()[i].name == caseGuides()[i].name);
    }
}

BOOST_AUTO_TEST_CASE(theChecksAreThoseOfTheModule) {
    std::set<std::string> listed;
    for (const CaseRequirement& one : requirements()) {
        for (const CheckRequirement& check : one.checks) {
            listed.emplace(check.text);
        }
    }
    BOOST_TEST(listed == checksInSource(), boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(aLevelIsFoundByCaseAndCheck) {
    BOOST_TEST((levelOf(events) == Level::must));
    BOOST_TEST((levelOf(polled) == Level::should));
    BOOST_TEST((levelOf(events, isUnsubscribed) == Level::should));
    BOOST_TEST((levelOf(polled, "uuid == ruuid") == Level::should));
    BOOST_TEST((levelOf("initiatorSend/initiatorRepeatEcho", "uuid == ruuid") == Level::must));
    // What is not in the table counts at every level.
    BOOST_TEST((levelOf("another/case") == Level::must));
    BOOST_TEST((levelOf(polled, "another check") == Level::must));
}

BOOST_AUTO_TEST_CASE(levelsHaveNames) {
    for (const Level level : {Level::may, Level::should, Level::must}) {
        BOOST_TEST((levelNamed(levelText(level)) == level));
    }
    BOOST_TEST(!levelNamed("").has_value());
    BOOST_TEST(!levelNamed("MUST").has_value());
}

BOOST_AUTO_TEST_CASE(casesAreSelectedByTheirLevel) {
    const std::vector<std::string> both = {polled, events};
    BOOST_TEST(atLevel(both, Level::may) == both, boost::test_tools::per_element());
    BOOST_TEST(atLevel(both, Level::should) == both, boost::test_tools::per_element());
    BOOST_TEST(atLevel(both, Level::must) == (std::vector<std::string>{events}),
               boost::test_tools::per_element());
    BOOST_CHECK_EXCEPTION(atLevel({polled}, Level::must), kavri::process::CommandFailure,
                          [](const kavri::process::CommandFailure& failure) {
                              return failure.status() == kavri::process::ExitStatus::usage;
                          });
}

BOOST_AUTO_TEST_CASE(theReportHasTheWholeTable) {
    const nlohmann::json all = requirementsJson();
    BOOST_TEST(all.size() == requirements().size());
    BOOST_TEST(all[4]["name"] == polled);
    BOOST_TEST(all[4]["level"] == "should");
    BOOST_TEST(all[4]["checks"][1]["level"] == "may");
}

// Where they differ, replace the manual's rows by what is printed here.
BOOST_AUTO_TEST_CASE(theManualHasTheTable) {
    std::string rows = "| case | level | its checks of another level |\n|---|---|---|\n";
    for (const CaseRequirement& one : requirements()) {
        rows += rowOf(one);
    }
    const std::string manual = sourceFile("docs/conformance.md");
    BOOST_TEST(manual.find("\n" + rows + "\n") != manual.npos, "docs/conformance.md must have:\n"
                                                                   << rows);
}
