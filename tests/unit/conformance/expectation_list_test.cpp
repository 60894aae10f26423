// The list of known failures that a run writes is one that the next run reads.
#define BOOST_TEST_MODULE expectationList

#include "conformance/cases/expectation_list.h"

#include <boost/test/unit_test.hpp>
#include <fstream>

#include "process/temporary_folder.h"

using namespace kavri::conformance;

namespace {

const std::string echo = "initiatorSend/initiatorRepeatEcho";
const std::string pass = "initiatorSend/initiatorSendPass";

struct Failures {
    kavri::process::TemporaryFolder folder;
    std::string path = folder / "known.txt";
    Report report;

    Failures() {
        report.date = "2026-11-20T12:00:00Z";
        report.command = "kavri conformance";
        report.libraries.emplace_back();
    }

    CaseReport& add(const std::string& name, Verdict verdict,
                    const std::vector<std::string>& failedChecks = {}) {
        CaseReport& added = report.libraries.back().cases.emplace_back();
        added.name = name;
        added.verdict = verdict;
        for (const std::string& text : failedChecks) {
            added.checks.emplace_back().text = text;
        }
        return added;
    }

    Expectations read(const std::string& text) const {
        std::ofstream(path) << text;
        return Expectations::read(path);
    }

    // The entries alone.
    std::string list(const Expectations& known = {}) const {
        const std::string text = expectationList(report, known);
        BOOST_TEST(text.starts_with("# Known failures, as of 2026-11-20T12:00:00Z: "));
        return text.substr(text.find('\n') + 1);
    }

    // That all failures of the report are what its list expects, and no entry is in vain.
    void checkRoundTrip() {
        Expectations expectations = read(expectationList(report, {}));
        for (LibraryReport& library : report.libraries) {
            expectations.apply(library.cases);
            for (const CaseReport& one : library.cases) {
                BOOST_TEST(one.known.empty() != one.hasFailed(), one.name);
            }
        }
        BOOST_TEST(expectations.complaints().empty());
        BOOST_TEST((verdictOn(report) == Verdict::pass));
    }
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(expectationLists, Failures)

BOOST_AUTO_TEST_CASE(eachFailedCheckIsAnEntry) {
    add(pass, Verdict::pass);
    add(echo, Verdict::fail, {"payload == rpayload", "uuid == ruuid", "payload == rpayload"});
    BOOST_TEST(list() == echo + ": payload == rpayload  # not explained yet; fail on 2026-11-20\n" +
                             echo + ": uuid == ruuid  # not explained yet; fail on 2026-11-20\n");
    checkRoundTrip();
}

BOOST_AUTO_TEST_CASE(whatFailedOtherwiseIsAnEntryForTheCase) {
    add(echo, Verdict::timeout, {"payload == rpayload"});
    add(pass, Verdict::crash);
    add("initiatorSend/initiatorSendRepeat", Verdict::fail, {"a == b"}).missing = {"10 sends"};
    BOOST_TEST(list() == echo + "  # not explained yet; timeout on 2026-11-20\n" + pass +
                             "  # not explained yet; crash on 2026-11-20\n"
                             "initiatorSend/initiatorSendRepeat  # not explained yet; fail on "
                             "2026-11-20\n");
    checkRoundTrip();
}

BOOST_AUTO_TEST_CASE(aTextThatAnEntryCannotHoldIsAnEntryForTheCase) {
    for (const std::string text : {"a == \"x # y\"", "#a", "a\nb", " a", "a\t", "a \t#b"}) {
        report.libraries.back().cases.clear();
        add(echo, Verdict::fail, {"payload == rpayload", text});
        BOOST_TEST(list() == echo + "  # not explained yet; fail on 2026-11-20\n");
        checkRoundTrip();
    }
    report.libraries.back().cases.clear();
    add(echo, Verdict::fail, {"ns::a == \"#1\""});
    BOOST_TEST(list() == echo + ": ns::a == \"#1\"  # not explained yet; fail on 2026-11-20\n");
    checkRoundTrip();
}

BOOST_AUTO_TEST_CASE(severalLibrariesHaveOneList) {
    add(echo, Verdict::fail, {"a == b"});
    report.libraries.emplace_back();
    add(echo, Verdict::fail, {"a == b", "c == d"});
    report.libraries.emplace_back();
    add(echo, Verdict::crash);
    BOOST_TEST(list() == echo + ": a == b  # not explained yet; fail on 2026-11-20\n" + echo +
                             ": c == d  # not explained yet; fail on 2026-11-20\n" + echo +
                             "  # not explained yet; crash on 2026-11-20\n");
    checkRoundTrip();
}

BOOST_AUTO_TEST_CASE(reasonsThatAreKnownAreKept) {
    add(echo, Verdict::fail, {"a == b", "c == d"});
    add(pass, Verdict::crash);
    const Expectations known = read(
        "initiatorRepeatEcho: a == b  # ticket #12\n"
        "initiatorSendPass  # ticket 13\n");
    BOOST_TEST(list(known) == echo + ": a == b  # ticket #12\n" + echo +
                                  ": c == d  # not explained yet; fail on 2026-11-20\n" + pass +
                                  "  # ticket 13\n");
}

BOOST_AUTO_TEST_CASE(whatIsNoFailureOfTheLibraryIsNotListed) {
    add(echo, Verdict::notRun);
    add(pass, Verdict::harnessError);
    BOOST_TEST(list() == "");
}

BOOST_AUTO_TEST_SUITE_END()
