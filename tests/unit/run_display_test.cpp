// What a run looks like: in a file and on a terminal, healthy and not.
#define BOOST_TEST_MODULE runDisplay

#include "cli/run_display.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <optional>
#include <sstream>

#include "support/environment_variable.h"

using kavri::cli::CaseRecord;
using kavri::cli::DisplayStyle;
using kavri::cli::ModuleEvent;
using kavri::cli::RunDisplay;
using kavri::cli::RunRecord;
using kavri::cli::Verdict;
using kavri::tests::EnvironmentVariable;
using std::chrono::microseconds;

namespace {

const std::vector<std::string> cases = {"suite/short", "suite/longerName"};

struct Shown {
    std::ostringstream results;
    std::ostringstream others;
    RunDisplay display;

    explicit Shown(DisplayStyle style) : display(results, others, style, cases) {}
};

struct InAFile : Shown {
    InAFile() : Shown(DisplayStyle{}) {}
};

struct OnATerminal : Shown {
    OnATerminal() : Shown(DisplayStyle{.terminal = true, .colour = true, .columns = 40}) {}
};

CaseRecord passedCase() {
    return {.name = "suite/short",
            .verdict = Verdict::passed,
            .checksPassed = 7,
            .checksFailed = 0,
            .time = microseconds(1250),
            .failures = {},
            .reached = {},
            .lastPassed = {}};
}

CaseRecord failedCase() {
    return {.name = "suite/longerName",
            .verdict = Verdict::failed,
            .checksPassed = 1,
            .checksFailed = 2,
            .time = microseconds(1'234'567),
            .failures = {"t.cpp(9): error: one", "t.cpp(10): error: two [a\nb]"},
            .reached = {},
            .lastPassed = {}};
}

// Runs `look` with the descriptor, which is closed after it, as standard output.
DisplayStyle asStandardOutput(int descriptor, DisplayStyle (*look)()) {
    const int before = dup(STDOUT_FILENO);
    dup2(descriptor, STDOUT_FILENO);
    close(descriptor);
    const DisplayStyle style = look();
    dup2(before, STDOUT_FILENO);
    close(before);
    return style;
}

class PseudoTerminal {
  public:
    explicit PseudoTerminal(unsigned short columns) {
        const winsize size = {24, columns, 0, 0};
        BOOST_REQUIRE(openpty(&controlling_, &terminal_, nullptr, nullptr, &size) == 0);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    ~PseudoTerminal() {
        close(controlling_);
        close(terminal_);
    }
    DisplayStyle asStandardOutput(DisplayStyle (*look)()) const {
        return ::asStandardOutput(dup(terminal_), look);
    }

  private:
    int controlling_ = -1;
    int terminal_ = -1;
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aCaseIsNameVerdictChecksAndTime, InAFile) {
    display.showCaseEnded(passedCase());
    BOOST_TEST(results.str() == "suite/short       passed     7 checks     1.2 ms\n");
}

BOOST_FIXTURE_TEST_CASE(failedChecksStandUnderTheirCase, InAFile) {
    display.showCaseEnded(failedCase());
    BOOST_TEST(results.str() ==
               "suite/longerName  failed     3 checks     1.23 s  (2 failed)\n"
               "    t.cpp(9): error: one\n"
               "    t.cpp(10): error: two [a\\nb]\n");
}

BOOST_FIXTURE_TEST_CASE(theClosingLineCountsCasesAndChecks, InAFile) {
    RunRecord record;
    const RunRecord::Clock::time_point now{};
    using Kind = ModuleEvent::Kind;
    record.add({Kind::began, "suite/short"}, now);
    record.add({Kind::passed, "t.cpp(1)"}, now);
    record.add({Kind::failed, "t.cpp(2)"}, now);
    BOOST_REQUIRE(record.add({Kind::ended, "suite/short", microseconds(3)}, now) != nullptr);
    display.showClosing(record, microseconds(2'130'000));
    BOOST_TEST(results.str() ==
               "2 cases, 0 passed, 1 not run; 2 checks, 1 passed, 1 failed; 2.13 s\n");
}

BOOST_FIXTURE_TEST_CASE(aFileGetsNoProgressAndNoColour, InAFile) {
    display.showCaseUnderWay(passedCase());
    BOOST_TEST(results.str().empty());
    display.showCaseEnded(passedCase());
    BOOST_TEST(results.str().find('\x1b') == std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whatOthersPrintStaysApart, InAFile) {
    display.showOthersLine("said by the library");
    BOOST_TEST(results.str().empty());
    BOOST_TEST(others.str() == "said by the library\n");
}

BOOST_FIXTURE_TEST_CASE(progressIsReplacedAndNeverWraps, OnATerminal) {
    display.showCaseUnderWay(passedCase());
    BOOST_TEST(results.str() == "\r\x1b[Ksuite/short       running 7 checks");
    results.str("");
    display.showCaseUnderWay(passedCase());
    BOOST_TEST(results.str().empty());  // nothing new to show
    CaseRecord manyChecks = passedCase();
    manyChecks.checksPassed = 1'000'000;
    display.showCaseUnderWay(manyChecks);
    BOOST_TEST(results.str() == "\r\x1b[Ksuite/short       running 1000000 check");
    BOOST_TEST(results.str().size() == 4 + 39U);
}

BOOST_FIXTURE_TEST_CASE(progressMakesRoomForWholeLines, OnATerminal) {
    display.showCaseUnderWay(passedCase());
    results.str("");
    display.showOthersLine("said by the library");
    BOOST_TEST(results.str() == "\r\x1b[K");
    display.showCaseEnded(passedCase());
    BOOST_TEST(results.str() ==
               "\r\x1b[Ksuite/short       \x1b[32mpassed \x1b[0m    7 checks     1.2 ms\n");
}

BOOST_FIXTURE_TEST_CASE(aVerdictThatIsNotPassedIsRed, OnATerminal) {
    for (const Verdict verdict :
         {Verdict::failed, Verdict::aborted, Verdict::crashed, Verdict::hung, Verdict::stopped}) {
        CaseRecord record = passedCase();
        record.verdict = verdict;
        results.str("");
        display.showCaseEnded(record);
        BOOST_TEST(results.str().find("\x1b[31m" + std::string(verdictText(verdict))) !=
                   std::string::npos);
    }
}

BOOST_AUTO_TEST_CASE(theStyleFollowsStandardOutputAndTheEnvironment) {
    const PseudoTerminal terminal(50);
    const EnvironmentVariable term("TERM", "xterm");
    const EnvironmentVariable noColor("NO_COLOR", std::nullopt);
    const DisplayStyle style = terminal.asStandardOutput(DisplayStyle::ofStandardOutput);
    BOOST_TEST(style.terminal);
    BOOST_TEST(style.colour);
    BOOST_TEST(style.columns == 50U);
    {
        const EnvironmentVariable set("NO_COLOR", "1");
        const DisplayStyle plain = terminal.asStandardOutput(DisplayStyle::ofStandardOutput);
        BOOST_TEST(plain.terminal);
        BOOST_TEST(!plain.colour);
    }
    {
        const EnvironmentVariable dumb("TERM", "dumb");
        BOOST_TEST(!terminal.asStandardOutput(DisplayStyle::ofStandardOutput).terminal);
    }
    const DisplayStyle file =
        asStandardOutput(open("/dev/null", O_WRONLY | O_CLOEXEC), DisplayStyle::ofStandardOutput);
    BOOST_TEST(!file.terminal);
    BOOST_TEST(!file.colour);
}

BOOST_AUTO_TEST_CASE(durationsHaveAFittingUnit) {
    using kavri::cli::durationText;
    BOOST_TEST(durationText(microseconds(0)) == "0.0 ms");
    BOOST_TEST(durationText(microseconds(960)) == "1.0 ms");
    BOOST_TEST(durationText(microseconds(999'400)) == "999.4 ms");
    BOOST_TEST(durationText(microseconds(999'500)) == "1.00 s");
    BOOST_TEST(durationText(microseconds(61'250'000)) == "61.25 s");
}

BOOST_AUTO_TEST_CASE(whatATerminalWouldActUponIsEscaped) {
    using kavri::cli::printable;
    BOOST_TEST(printable("plain \"text\" \xc3\xa4") == "plain \"text\" \xc3\xa4");
    BOOST_TEST(printable("a\nb\x1b[31m\x7f\t") == "a\\nb\\x1b[31m\\x7f\\x09");
}
