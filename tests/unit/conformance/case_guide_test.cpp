// The guide has all cases of the module, and the manual's chapter is made from it.
#define BOOST_TEST_MODULE caseGuide

#include "conformance/cases/case_guide.h"

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <regex>
#include <sstream>

using kavri::conformance::CaseGuide;
using kavri::conformance::caseGuides;
using kavri::conformance::findCaseGuide;
using kavri::conformance::Required;

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

// A paragraph in lines as long as those of the manual.
std::string wrapped(const std::string& paragraph) {
    std::istringstream words(paragraph);
    std::string text;
    std::size_t columns = 0;
    for (std::string word; words >> word;) {
        const bool fits = columns + 1 + word.size() <= 100;
        text += (columns == 0 ? "" : fits ? " " : "\n") + word;
        columns = (columns == 0 || !fits ? 0 : columns + 1) + word.size();
    }
    return text + "\n\n";
}

std::string chapterOf(const CaseGuide& guide) {
    const auto titled = [](const std::string& title, std::string_view text) {
        return wrapped("**" + title + ".** " + std::string(text));
    };
    return "### " + std::string(guide.name) + "\n\n" + wrapped(std::string(guide.proves)) +
           titled("Procedure", guide.procedure) + titled("Asserts", guide.asserts) +
           titled("Can fail by", guide.failures);
}

// The row of the table of what a pass needs.
std::string rowOf(const CaseGuide& guide) {
    const Required& required = guide.required;
    std::string further;
    const auto add = [&further](unsigned count, const std::string& text) {
        further += count == 0 ? "" : (further.empty() ? "" : ", ") + text;
    };
    add(required.refusedReceives,
        std::to_string(required.refusedReceives) + " receives that returned 4");
    add(required.subscribes, "subscribed");
    add(required.unsubscribes, "unsubscribed");
    add(required.responseInstalls, "response callback installed and removed");
    add(required.responseDeliveries,
        std::to_string(required.responseDeliveries) + " response deliveries");
    add(required.eventInstalls, "event callback installed and removed");
    add(required.eventDeliveries, std::to_string(required.eventDeliveries) + " event deliveries");
    return "| " + std::string(guide.bareName()) + " | " + std::to_string(required.sends) + " | " +
           std::to_string(required.responses) + " | " + further +
           (further.empty() ? "|\n" : " |\n");
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

// The manual's part is made from the guide: where they differ, replace it by what is
// printed here.
BOOST_AUTO_TEST_CASE(theManualsChapterIsTheGuides) {
    std::string chapters;
    std::string rows;
    for (const CaseGuide& guide : caseGuides()) {
        for (const auto text : {guide.proves, guide.procedure, guide.asserts, guide.failures}) {
            BOOST_TEST(!text.empty());
        }
        chapters += chapterOf(guide);
        rows += rowOf(guide);
    }
    const std::string manual = sourceFile("docs/conformance.md");
    const std::string before = "The texts of this chapter are what `--explain` shows.\n\n";
    const std::string behind = "### What a pass needs beside its checks\n";
    BOOST_TEST(manual.find(before + chapters + behind) != manual.npos,
               "docs/conformance.md must have:\n"
                   << chapters);
    const std::string head = "| case | sends | responses received | further |\n|---|---|---|---|\n";
    BOOST_TEST(manual.find(head + rows + "\n") != manual.npos, "docs/conformance.md must have:\n"
                                                                   << head << rows);
}
