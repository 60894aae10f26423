// The guide has the module's cases, all of them, and says what the manual says.
#define BOOST_TEST_MODULE caseGuide

#include "cli/case_guide.h"

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <fstream>
#include <regex>
#include <sstream>

using kavri::cli::CaseGuide;
using kavri::cli::caseGuides;
using kavri::cli::findCaseGuide;

namespace {

std::string sourceFile(const std::string& name) {
    std::ifstream file(KAVRI_SOURCE_DIR "/" + name);
    BOOST_REQUIRE(file.good());
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// From the macros that begin the suites and cases of the module's source.
std::vector<std::string> casesOfModule() {
    const std::string source = sourceFile("tests/test_ipc_initiator.cpp");
    const std::regex macro(R"(BOOST_(FIXTURE_TEST_SUITE|AUTO_TEST_CASE)\((\w+))");
    std::vector<std::string> names;
    std::string suite;
    for (std::sregex_iterator found(source.begin(), source.end(), macro), end; found != end;
         ++found) {
        if ((*found)[1] == "FIXTURE_TEST_SUITE") {
            suite = (*found)[2];
        } else {
            names.push_back(suite + "/" + (*found)[2].str());
        }
    }
    return names;
}

// Without what is different on a page: its marks, and where its lines end.
std::string flowed(const std::string& page) {
    std::istringstream words(page);
    std::string text;
    for (std::string word; words >> word;) {
        std::erase(word, '`');
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

}  // namespace

BOOST_AUTO_TEST_CASE(theCasesAreThoseOfTheModule) {
    std::vector<std::string> names;
    for (const CaseGuide& guide : caseGuides()) {
        names.emplace_back(guide.name);
    }
    BOOST_TEST(names.size() == 8U);
    BOOST_TEST(names == casesOfModule(), boost::test_tools::per_element());
}

BOOST_AUTO_TEST_CASE(aCaseIsFoundWithAndWithoutItsSuite) {
    const CaseGuide* guide = findCaseGuide("initiatorRepeatEcho");
    BOOST_REQUIRE(guide != nullptr);
    BOOST_TEST(guide->name == "initiatorSend/initiatorRepeatEcho");
    BOOST_TEST(findCaseGuide("initiatorSend/initiatorRepeatEcho") == guide);
    for (const auto* unknown :
         {"", "initiatorSend", "initiatorEvent/initiatorRepeatEcho", "Echo"}) {
        BOOST_TEST(findCaseGuide(unknown) == nullptr);
    }
}

BOOST_AUTO_TEST_CASE(theManualSaysTheSame) {
    const std::string manual = flowed(sourceFile("docs/conformance.md"));
    for (const CaseGuide& guide : caseGuides()) {
        for (const auto text :
             {guide.name, guide.proves, guide.procedure, guide.asserts, guide.failures}) {
            BOOST_TEST(!text.empty());
            BOOST_TEST(manual.find(text) != manual.npos,
                       "docs/conformance.md lacks, of " << guide.name << ": " << text);
        }
    }
}
