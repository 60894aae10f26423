// What a run looks like: in a file and on a terminal, healthy and not.
#define BOOST_TEST_MODULE runDisplay

#include "conformance/report/run_display.h"

#include <boost/test/unit_test.hpp>
#include <sstream>

using kavri::conformance::CaseReport;
using kavri::conformance::DisplayStyle;
using kavri::conformance::HangReport;
using kavri::conformance::LibraryReport;
using kavri::conformance::RunDisplay;
using kavri::conformance::Verdict;

namespace {

const std::vector<std::string> cases = {"suite/short", "suite/longerName"};

struct Shown {
    std::ostringstream results;
    std::ostringstream others;
    RunDisplay display;

    explicit Shown(DisplayStyle style) : display(results, others, style, cases) {}

    // What was shown since the last time.
    std::string take() {
        std::string shown = results.str();
        results.str("");
        return shown;
    }
};

struct InAFile : Shown {
    InAFile() : Shown(DisplayStyle{}) {}
};

struct OnATerminal : Shown {
    OnATerminal() : Shown(DisplayStyle{.terminal = true, .colour = true, .columns = 48}) {}
};

struct OnAWideTerminal : Shown {
    OnAWideTerminal() : Shown(DisplayStyle{.terminal = true, .colour = false, .columns = 80}) {}
};

CaseReport caseWith(const std::string& name, Verdict verdict, unsigned passed, unsigned failed,
                    std::int64_t timeNs) {
    CaseReport report;
    report.name = name;
    report.verdict = verdict;
    report.beginNs = 5'000'000'000;
    report.endNs = report.beginNs + timeNs;
    report.checks.resize(passed + failed);
    for (unsigned i = 0; i < passed; ++i) {
        report.checks[i].passed = true;
    }
    return report;
}

CaseReport passedCase() {
    return caseWith("suite/short", Verdict::pass, 7, 0, 1'250'000);
}

CaseReport failedCase() {
    CaseReport report = caseWith("suite/longerName", Verdict::fail, 1, 2, 1'234'567'000);
    report.checks[1].place = "t.cpp(9)";
    report.checks[1].message = "error: one";
    report.checks[2].place = "t.cpp(10)";
    report.checks[2].message = "error: two [a\nb]";
    return report;
}

HangReport hangOf(const std::string& call) {
    HangReport hang;
    hang.call = call;
    hang.arguments = call.empty() ? "" : R"({"timeout":-1})";
    hang.seconds = 10.04;
    return hang;
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(theOpeningNamesLibraryAndBroker, InAFile) {
    display.showOpening("/opt/a\x1b[31m.so", "the run's own broker");
    BOOST_TEST(take() == "core library /opt/a\\x1b[31m.so, the run's own broker\n");
}

BOOST_FIXTURE_TEST_CASE(aCaseIsNameVerdictChecksAndTime, InAFile) {
    display.showCaseEnded(passedCase());
    BOOST_TEST(take() == "suite/short       pass       7 checks     1.2 ms\n");
    display.showCaseEnded(caseWith("suite/longerName", Verdict::pass, 1, 0, 0));
    BOOST_TEST(take() == "suite/longerName  pass        1 check     0.0 ms\n");
}

BOOST_FIXTURE_TEST_CASE(failedChecksAreShownUnderTheirCase, InAFile) {
    display.showCaseEnded(failedCase());
    BOOST_TEST(take() ==
               "suite/longerName  fail       3 checks     1.23 s  (2 failed)\n"
               "    t.cpp(9): error: one\n"
               "    t.cpp(10): error: two [a\\nb]\n");
}

BOOST_FIXTURE_TEST_CASE(whatTheRecordLacksIsShownUnderItsCase, InAFile) {
    CaseReport report = caseWith("suite/short", Verdict::fail, 2, 0, 0);
    report.missing = {"10 sends must have been made; the record holds 9",
                      "no test service answers: \x07"};
    display.showCaseEnded(report);
    BOOST_TEST(take() ==
               "suite/short       fail       2 checks     0.0 ms\n"
               "    10 sends must have been made; the record holds 9\n"
               "    no test service answers: \\x07\n");
}

BOOST_FIXTURE_TEST_CASE(aCallThatHangsIsShownWithItsStacks, InAFile) {
    CaseReport report = caseWith("suite/short", Verdict::timeout, 1, 0, 10'040'000'000);
    report.hang = hangOf("receive");
    report.hang->lastPassed = "a == b, at t.cpp(3)";
    report.hang->stacks = "Thread 1 (LWP 7):\n#0 poll () from libc\n#1 main ()\n";
    display.showCaseEnded(report);
    BOOST_TEST(
        take() ==
        "suite/short       timeout     1 check    10.04 s\n"
        "    receive with {\"timeout\":-1} did not return within 10.0 s; the last check that "
        "passed: a == b, at t.cpp(3)\n"
        "    Thread 1 (LWP 7):\n"
        "    #0 poll () from libc\n"
        "    #1 main ()\n");
}

BOOST_FIXTURE_TEST_CASE(aCrashIsShownUnderItsCase, InAFile) {
    CaseReport report = caseWith("suite/short", Verdict::crash, 0, 0, 2'000'000);
    report.crash = "the module was ended by SIGSEGV, in send with {}";
    display.showCaseEnded(report);
    BOOST_TEST(take() ==
               "suite/short       crash      0 checks     2.0 ms\n"
               "    the module was ended by SIGSEGV, in send with {}\n");
}

BOOST_FIXTURE_TEST_CASE(aCaseThatWasNotRunSaysSo, InAFile) {
    CaseReport report;
    report.name = "suite/short";
    report.missing = {"the module ended with status 200 before the case"};
    display.showCaseEnded(report);
    BOOST_TEST(take() ==
               "suite/short       not run    0 checks     0.0 ms\n"
               "    the module ended with status 200 before the case\n");
}

BOOST_FIXTURE_TEST_CASE(theClosingLineCountsCasesAndChecks, InAFile) {
    CaseReport notRun;
    notRun.name = "suite/longerName";
    display.showClosing({caseWith("suite/short", Verdict::fail, 1, 1, 3000), notRun}, 2.13);
    BOOST_TEST(take() == "2 cases, 0 passed, 1 not run; 2 checks, 1 passed, 1 failed; 2.13 s\n");
    display.showClosing({passedCase(), failedCase()}, 0.5);
    BOOST_TEST(take() == "2 cases, 1 passed; 10 checks, 8 passed, 2 failed; 500.0 ms\n");
}

BOOST_FIXTURE_TEST_CASE(aKnownFailureIsShownAsKnownWithItsReason, InAFile) {
    CaseReport report = failedCase();
    report.known = "ticket 12";
    display.showCaseEnded(report);
    BOOST_TEST(take() ==
               "suite/longerName  known      3 checks     1.23 s  (2 failed)\n"
               "    fail, as expected: ticket 12\n"
               "    t.cpp(9): error: one\n"
               "    t.cpp(10): error: two [a\\nb]\n");
    display.showClosing({passedCase(), report}, 0.5);
    BOOST_TEST(take() ==
               "2 cases, 1 passed, 1 known to fail; 10 checks, 8 passed, 2 failed; 500.0 ms\n");
}

BOOST_FIXTURE_TEST_CASE(whatFailedIsListedWithTheCommandThatRepeatsIt, InAFile) {
    CaseReport failed = failedCase();
    failed.repeat = "kavri conformance --case suite/longerName";
    CaseReport known = failed;
    known.known = "ticket 12";
    display.showFailed({passedCase(), CaseReport{}, known});
    BOOST_TEST(take().empty());
    CaseReport crashed = caseWith("suite/short", Verdict::crash, 0, 0, 0);
    crashed.repeat = "kavri conformance --library 'a b' --case suite/short";
    display.showFailed({crashed, passedCase(), failed, known});
    BOOST_TEST(take() ==
               "failed, and how to run it again:\n"
               "  suite/short, crash\n"
               "    kavri conformance --library 'a b' --case suite/short\n"
               "  suite/longerName, fail\n"
               "    kavri conformance --case suite/longerName\n");
}

BOOST_FIXTURE_TEST_CASE(aPassThatTheOtherSideDoesNotConfirmSaysSo, InAFile) {
    LibraryReport library;
    library.cases = {passedCase()};
    display.showConfirmation(library);
    BOOST_TEST(take() == "");
    library.unconfirmed = true;
    display.showConfirmation(library);
    BOOST_TEST(take() == "pass, not confirmed by the other side\n");
    library.cases = {failedCase()};
    display.showConfirmation(library);
    BOOST_TEST(take() == "");
}

BOOST_FIXTURE_TEST_CASE(aFileGetsNoProgressAndNoColour, InAFile) {
    display.showCaseUnderWay(passedCase(), 0);
    display.showProgress("faults", 1, 2);
    display.clearProgress();
    BOOST_TEST(take().empty());
    display.showCaseEnded(passedCase());
    display.showClosing({passedCase()}, 1);
    BOOST_TEST(take().find('\x1b') == std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whatOthersPrintStaysApart, InAFile) {
    display.showForeignLine("said by the library");
    BOOST_TEST(take().empty());
    BOOST_TEST(others.str() == "said by the library\n");
}

BOOST_FIXTURE_TEST_CASE(aRemarkIsALineOfTheResults, InAFile) {
    display.showRemark("two\nlines");
    BOOST_TEST(take() == "two\\nlines\n");
    BOOST_TEST(others.str().empty());
}

BOOST_FIXTURE_TEST_CASE(progressIsReplacedAndNeverWraps, OnATerminal) {
    display.showCaseUnderWay(passedCase(), 0);
    BOOST_TEST(take() == "\r\x1b[Ksuite/short       running  0.0 s  7 checks");
    display.showCaseUnderWay(passedCase(), 0);
    BOOST_TEST(take().empty());  // nothing new to show
    display.showCaseUnderWay(passedCase(), 12.34);
    BOOST_TEST(take() == "\r\x1b[Ksuite/short       running 12.3 s  7 checks");
    display.showCaseUnderWay(caseWith("suite/short", Verdict::pass, 100'000, 0, 0), 0);
    const std::string shown = take();
    BOOST_TEST(shown == "\r\x1b[Ksuite/short       running  0.0 s  100000 checks");
    BOOST_TEST(shown.size() == 4 + 47U);
    display.showCaseUnderWay(caseWith("suite/short", Verdict::pass, 1'000'000, 0, 0), 0);
    BOOST_TEST(take() == "\r\x1b[Kshort  running  0.0 s  1000000 checks");
    display.showCaseUnderWay(caseWith("suite/" + std::string(30, 'x'), Verdict::pass, 0, 0, 0), 0);
    BOOST_TEST(take() == "\r\x1b[K" + std::string(30, 'x') + "  running  0.0 s ");
}

BOOST_FIXTURE_TEST_CASE(aBarShowsHowFarSomethingHasCome, OnAWideTerminal) {
    display.showProgress("faults", 0, 0);
    BOOST_TEST(take() == "\r\x1b[Kfaults  [" + std::string(30, ' ') + "] 0/0");
    display.showProgress("faults", 22, 66);
    BOOST_TEST(take() ==
               "\r\x1b[Kfaults  [" + std::string(10, '#') + std::string(20, ' ') + "] 22/66");
    display.showProgress("faults", 22, 66);
    BOOST_TEST(take().empty());
    display.showProgress("faults", 66, 66);
    BOOST_TEST(take() == "\r\x1b[Kfaults  [" + std::string(30, '#') + "] 66/66");
    display.clearProgress();
    BOOST_TEST(take() == "\r\x1b[K");
    display.clearProgress();
    BOOST_TEST(take().empty());
}

BOOST_AUTO_TEST_CASE(aBarIsNeverAsWideAsItsTerminal) {
    const std::string whole = "faults  [" + std::string(5, '#') + std::string(25, ' ') + "] 12/66";
    for (unsigned columns = 2; columns < 60; ++columns) {
        Shown narrow(DisplayStyle{.terminal = true, .colour = false, .columns = columns});
        narrow.display.showProgress("faults", 12, 66);
        BOOST_TEST(narrow.take() == "\r\x1b[K" + whole.substr(0, columns - 1));
    }
    Shown noRoom(DisplayStyle{.terminal = true, .colour = false, .columns = 1});
    noRoom.display.showProgress("faults", 12, 66);
    BOOST_TEST(noRoom.take().empty());
}

BOOST_FIXTURE_TEST_CASE(progressMakesRoomForWholeLines, OnATerminal) {
    display.showCaseUnderWay(passedCase(), 0);
    take();
    display.showForeignLine("said by the library");
    BOOST_TEST(take() == "\r\x1b[K");
    display.showCaseEnded(passedCase());
    BOOST_TEST(take() == "suite/short       \x1b[32mpass\x1b[0m       7 checks     1.2 ms\n");
    display.showCaseUnderWay(passedCase(), 0);
    take();
    display.showCaseEnded(passedCase());
    BOOST_TEST(take() ==
               "\r\x1b[Ksuite/short       \x1b[32mpass\x1b[0m       7 checks     1.2 ms\n");
    display.showProgress("faults", 1, 2);
    take();
    display.showRemark("a remark");
    BOOST_TEST(take() == "\r\x1b[Ka remark\n");
}

BOOST_FIXTURE_TEST_CASE(aVerdictThatIsNoPassIsRed, OnATerminal) {
    for (const Verdict verdict : {Verdict::fail, Verdict::notRun, Verdict::harnessError,
                                  Verdict::timeout, Verdict::crash}) {
        CaseReport report = passedCase();
        report.verdict = verdict;
        display.showCaseEnded(report);
        BOOST_TEST(take().find("\x1b[31m" + std::string(verdictText(verdict))) !=
                   std::string::npos);
    }
}

BOOST_FIXTURE_TEST_CASE(aKnownFailureIsYellow, OnATerminal) {
    CaseReport report = failedCase();
    report.known = "ticket 12";
    display.showCaseEnded(report);
    BOOST_TEST(take().find("\x1b[33mknown\x1b[0m  ") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(linesFitTheirTerminal) {
    Shown narrow(DisplayStyle{.terminal = true, .colour = true, .columns = 40});
    CaseReport report = failedCase();
    report.checks[1].message = "error: check payload == rpayload has failed";
    narrow.display.showCaseEnded(report);
    BOOST_TEST(narrow.take() ==
               "suite/longerName  \x1b[31mfail\x1b[0m  3 checks  1.23 s\n"
               "    (2 failed)\n"
               "    t.cpp(9): error: check payload ==\n"
               "        rpayload has failed\n"
               "    t.cpp(10): error: two [a\\nb]\n");
    // But what is to be pasted stays one line.
    report.repeat = "kavri conformance --case " + std::string(60, 'x');
    narrow.display.showFailed({report});
    BOOST_TEST(narrow.take().find("\n    " + report.repeat + "\n") != std::string::npos);
}

BOOST_AUTO_TEST_CASE(theLineThatIsReplacedEndsWithTheDisplay) {
    std::ostringstream results;
    {
        RunDisplay display(results, results, DisplayStyle{.terminal = true}, cases);
        display.showProgress("faults", 1, 2);
        results.str("");
    }
    BOOST_TEST(results.str() == "\r\x1b[K");
}

BOOST_FIXTURE_TEST_CASE(aTerminalWithoutColourGetsNone, OnAWideTerminal) {
    display.showCaseEnded(failedCase());
    BOOST_TEST(take().find('\x1b') == std::string::npos);
}

BOOST_AUTO_TEST_CASE(durationsHaveAFittingUnit) {
    using kavri::conformance::durationText;
    BOOST_TEST(durationText(0) == "0.0 ms");
    BOOST_TEST(durationText(960e-6) == "1.0 ms");
    BOOST_TEST(durationText(0.9994) == "999.4 ms");
    BOOST_TEST(durationText(0.9995) == "1.00 s");
    BOOST_TEST(durationText(61.25) == "61.25 s");
}

BOOST_AUTO_TEST_CASE(aHangNamesTheCallOrSaysThatThereWasNone) {
    using kavri::conformance::hangText;
    BOOST_TEST(hangText(hangOf("receive")) ==
               "receive with {\"timeout\":-1} did not return within 10.0 s; no check had passed");
    HangReport silence = hangOf("");
    silence.lastPassed = "a == b, at t.cpp(3)";
    BOOST_TEST(hangText(silence) ==
               "nothing happened for 10.0 s; the last check that passed: a == b, at t.cpp(3)");
}
