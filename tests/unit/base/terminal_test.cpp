// What is shown where: styles, lines that fit, and the line that is replaced.
#define BOOST_TEST_MODULE terminal

#include "base/terminal.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <optional>
#include <sstream>

#include "support/environment_variable.h"

using kavri::base::DisplayStyle;
using kavri::base::fitted;
using kavri::base::ProgressLine;
using kavri::tests::EnvironmentVariable;

namespace {

DisplayStyle terminalOf(unsigned columns) {
    return {.terminal = true, .colour = false, .columns = columns};
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

BOOST_AUTO_TEST_CASE(whatIsNoTerminalGetsLinesAsTheyAre) {
    const std::string line(300, 'x');
    BOOST_TEST(fitted(line + " " + line, {}) == line + " " + line);
}

BOOST_AUTO_TEST_CASE(aLineIsBrokenBetweenItsPartsFirst) {
    BOOST_TEST(fitted("a name    pass    7 checks   1.2 ms", terminalOf(35)) ==
               "a name    pass    7 checks   1.2 ms");
    BOOST_TEST(fitted("a name    pass    7 checks   1.2 ms", terminalOf(24)) ==
               "a name  pass  7 checks\n    1.2 ms");
    BOOST_TEST(fitted("a name    pass    7 checks   1.2 ms", terminalOf(16)) ==
               "a name  pass\n    7 checks\n    1.2 ms");
}

BOOST_AUTO_TEST_CASE(aPartIsBrokenBetweenWords) {
    BOOST_TEST(fitted("  one two three four", terminalOf(14)) ==
               "  one two\n      three\n      four");
    BOOST_TEST(fitted("--option  what it does for you", terminalOf(20)) ==
               "--option  what it\n    does for you");
}

BOOST_AUTO_TEST_CASE(aWordIsNeverBroken) {
    const std::string path = "/opt/" + std::string(60, 'x');
    BOOST_TEST(fitted("library " + path + " is there", terminalOf(30)) ==
               "library\n    " + path + "\n    is there");
    BOOST_TEST(fitted(path, terminalOf(30)) == path);
}

BOOST_AUTO_TEST_CASE(colourAndUtf8TakeNoColumns) {
    BOOST_TEST(fitted("\x1b[32mpass\x1b[0m 1234", terminalOf(9)) == "\x1b[32mpass\x1b[0m 1234");
    BOOST_TEST(fitted("\xc3\xa4\xc3\xa4 xx", terminalOf(5)) == "\xc3\xa4\xc3\xa4 xx");
}

BOOST_AUTO_TEST_CASE(eachLineOfATextIsFitted) {
    BOOST_TEST(fitted("one two\n\nthree\n", terminalOf(5)) == "one\n    two\n\nthree\n");
    BOOST_TEST(fitted("", terminalOf(5)) == "");
}

BOOST_AUTO_TEST_CASE(aLineThatIsReplacedLeavesNothing) {
    std::ostringstream output;
    const DisplayStyle style = terminalOf(10);
    {
        ProgressLine line(output, style);
        line.show("a longer line");
        BOOST_TEST(output.str() == "\r\x1b[Ka longer ");
        line.show("short");
        BOOST_TEST(output.str().ends_with("\r\x1b[Kshort"));
        output.str("");
        line.show("short");
        BOOST_TEST(output.str() == "");  // nothing new to show
    }
    BOOST_TEST(output.str() == "\r\x1b[K");
}

BOOST_AUTO_TEST_CASE(whatIsNoTerminalGetsNoLineThatIsReplaced) {
    std::ostringstream output;
    const DisplayStyle style;
    {
        ProgressLine line(output, style);
        line.show("a line");
        line.clear();
    }
    BOOST_TEST(output.str() == "");
}
