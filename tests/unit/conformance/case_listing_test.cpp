// The module's listing of its cases, and choosing among them by pattern.
#define BOOST_TEST_MODULE caseListing

#include "conformance/cases/case_listing.h"

#include <boost/test/unit_test.hpp>

#include "process/exit_status.h"

using kavri::conformance::casesInListing;
using kavri::conformance::selectCases;
using kavri::process::CommandFailure;
using kavri::process::ExitStatus;

namespace {

using Names = std::vector<std::string>;

const Names names = {"send/sendPass", "send/repeatEcho", "event/repeatEvent"};

// As the framework writes it.
const std::string listing =
    "digraph G {rankdir=LR;\n"
    "tu1[shape=ellipse,peripheries=2,fontname=Helvetica,color=green,label=\"theModule\"];\n"
    "{\n"
    "tu2[shape=Mrecord,fontname=Helvetica,color=green,label=\"send|m.cpp(7)\"];\n"
    "tu1 -> tu2;\n"
    "{\n"
    "tu65536[shape=Mrecord,fontname=Helvetica,color=green,label=\"sendPass|m.cpp(8)\"];\n"
    "tu2 -> tu65536;\n"
    "tu65537[shape=Mrecord,fontname=Helvetica,color=green,label=\"repeatEcho|m.cpp(9)\"];\n"
    "tu2 -> tu65537;\n"
    "}\n"
    "tu3[shape=Mrecord,fontname=Helvetica,color=yellow,label=\"event|m.cpp(13)|labels\"];\n"
    "tu1 -> tu3;\n"
    "{\n"
    "tu65538[shape=Mrecord,fontname=Helvetica,color=green,label=\"repeatEvent|m.cpp(14)\"];\n"
    "tu3 -> tu65538;\n"
    "}\n"
    "}\n"
    "}\n";

void checkSame(const Names& found, const Names& expected) {
    BOOST_TEST(found == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_AUTO_TEST_CASE(theCasesAreReadInTheirOrderWithTheirSuites) {
    checkSame(casesInListing(listing), names);
}

BOOST_AUTO_TEST_CASE(whatElseIsPrintedIsPassedOver) {
    checkSame(casesInListing("the library says: tu1 -> hello\ntu\n" + listing + "goodbye"), names);
    checkSame(casesInListing("nothing of the kind"), {});
    checkSame(casesInListing(""), {});
}

BOOST_AUTO_TEST_CASE(nestedSuitesNameTheCase) {
    checkSame(casesInListing("tu1[label=\"m\"];\ntu2[label=\"a|m.cpp(1)\"];\ntu1 -> tu2;\n"
                             "tu3[label=\"b|m.cpp(2)\"];\ntu2 -> tu3;\n"
                             "tu4[label=\"c|m.cpp(3)\"];\ntu3 -> tu4;\n"
                             "tu5[label=\"alone|m.cpp(4)\"];\ntu1 -> tu5;\n"),
              {"a/b/c", "alone"});
}

BOOST_AUTO_TEST_CASE(noPatternSelectsAllInOrder) {
    checkSame(selectCases(names, {}), names);
}

BOOST_AUTO_TEST_CASE(aPatternMatchesTheCaseOrTheSuiteAndCase) {
    const std::vector<std::pair<Names, Names>> expectations = {
        {{"sendPass"}, {"send/sendPass"}},
        {{"repeat*"}, {"send/repeatEcho", "event/repeatEvent"}},
        {{"send/*"}, {"send/sendPass", "send/repeatEcho"}},
        {{"*/repeatEven[rst]"}, {"event/repeatEvent"}},
        {{"repeatEvent", "sendPass"}, {"send/sendPass", "event/repeatEvent"}},
    };
    for (const auto& [patterns, selected] : expectations) {
        checkSame(selectCases(names, patterns), selected);
    }
}

BOOST_AUTO_TEST_CASE(eachPatternMustMatch) {
    BOOST_CHECK_EXCEPTION(
        selectCases(names, {"repeatEvent", "nothing"}), CommandFailure,
        [](const CommandFailure& failure) {
            return std::string(failure.what()).starts_with("no case matches 'nothing'; there are ");
        });
}

BOOST_AUTO_TEST_CASE(aNameThatIsCloseIsSuggested) {
    for (const auto& [typed, meant] :
         {std::pair("sendpass", "sendPass"), std::pair("snd/sendPass", "send/sendPass"),
          std::pair("repeatEcoh", "repeatEcho")}) {
        BOOST_CHECK_EXCEPTION(selectCases(names, {typed}), CommandFailure,
                              [&](const CommandFailure& failure) {
                                  return std::string(failure.what())
                                      .starts_with(std::string("no case matches '") + typed +
                                                   "'; did you mean '" + meant + "'? there are ");
                              });
    }
}

BOOST_AUTO_TEST_CASE(selectingNothingIsAnErrorThatNamesTheCases) {
    for (const std::string pattern : {"", "send", "sendpass", "Pass", "send/"}) {
        BOOST_CHECK_EXCEPTION(
            selectCases(names, {pattern}), CommandFailure, [&](const CommandFailure& failure) {
                const std::string line = failure.what();
                return failure.status() == ExitStatus::usage &&
                       line.find("'" + pattern + "'") != line.npos &&
                       line.find("send/sendPass, send/repeatEcho, event/repeatEvent") != line.npos;
            });
    }
}
