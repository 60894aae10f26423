// To which case each line belongs that the module prints.
#define BOOST_TEST_MODULE moduleOutput

#include "conformance/module/module_output.h"

#include <boost/test/unit_test.hpp>
#include <vector>

#include "conformance/agent/channel.h"

using kavri::conformance::caseMark;
using kavri::conformance::ModuleOutput;

namespace {

struct Printed {
    std::vector<std::string> shown;
    ModuleOutput output{[this](const std::string& line) { shown.push_back(line); }};

    static std::string mark(const std::string& caseName) {
        return std::string(caseMark) + caseName + "\n";
    }

    void checkShown(const std::vector<std::string>& expected) const {
        BOOST_TEST(shown == expected, boost::test_tools::per_element());
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(moduleOutput, Printed)

BOOST_AUTO_TEST_CASE(aMarkBeginsTheOutputOfItsCase) {
    output.addOutput(mark("s/a") + "one\n" + mark("s/b") + "two\nthree\n");
    checkShown({"one", "two", "three"});
    BOOST_TEST(output.of("s/a") == "one\n");
    BOOST_TEST(output.of("s/b") == "two\nthree\n");
    BOOST_TEST(output.of("s/c") == "");
}

BOOST_AUTO_TEST_CASE(aMarkEndsALineThatHasNoLineBreak) {
    output.addOutput(mark("s/a") + "one" + mark("s/b") + "two\n");
    checkShown({"one", "two"});
    BOOST_TEST(output.of("s/a") == "one\n");
    BOOST_TEST(output.of("s/b") == "two\n");
}

BOOST_AUTO_TEST_CASE(eachOfTheTwoStreamsIsInACaseOfItsOwn) {
    output.addOutput(mark("s/a") + mark("s/b") + "out\n");
    output.addError(mark("s/a") + "error\n");
    BOOST_TEST(output.of("s/a") == "error\n");
    BOOST_TEST(output.of("s/b") == "out\n");
}

BOOST_AUTO_TEST_CASE(whatIsPrintedBeforeTheFirstMarkIsOfTheCaseToCome) {
    output.beginWith("s/a");
    output.addOutput("loaded\n");
    output.addError("warned\n");
    BOOST_TEST(output.of("s/a") == "loaded\nwarned\n");
}

BOOST_AUTO_TEST_CASE(theLastLinesNeedNoLineBreak) {
    output.addOutput(mark("s/a") + "one");
    output.addError(mark("s/a") + "two");
    checkShown({});
    output.finish();
    checkShown({"one", "two"});
    BOOST_TEST(output.of("s/a") == "one\ntwo\n");
}

BOOST_AUTO_TEST_SUITE_END()
