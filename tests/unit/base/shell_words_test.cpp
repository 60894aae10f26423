// What is quoted is read back by a shell, byte for byte.
#define BOOST_TEST_MODULE shellWords

#include "base/shell_words.h"

#include <boost/test/unit_test.hpp>
#include <chrono>

#include "process/child_process.h"

using kavri::base::shellCommand;
using kavri::base::shellQuoted;

BOOST_AUTO_TEST_CASE(aPlainWordStaysAsItIs) {
    for (const auto* word : {"kavri", "--case", "initiatorSend/initiatorSendPass", "/opt/a-b_1.2",
                             "--log_level=all", "a,b:c"}) {
        BOOST_TEST(shellQuoted(word) == word);
    }
}

BOOST_AUTO_TEST_CASE(whatAShellWouldActUponIsQuoted) {
    BOOST_TEST(shellQuoted("") == "''");
    BOOST_TEST(shellQuoted("two words") == "'two words'");
    BOOST_TEST(shellQuoted("$HOME;*") == "'$HOME;*'");
    BOOST_TEST(shellQuoted("it's") == R"('it'\''s')");
    BOOST_TEST(shellQuoted("~") == "'~'");
}

BOOST_AUTO_TEST_CASE(whatATerminalWouldActUponIsEscaped) {
    BOOST_TEST(shellQuoted("a\x1b[31m'\\\n") == R"($'a\x1b[31m\'\\\x0a')");
}

BOOST_AUTO_TEST_CASE(aShellReadsTheWordsBack) {
    const std::vector<std::string> words = {"printf",
                                            "%s\\n",
                                            "plain",
                                            "two words",
                                            "it's $HOME",
                                            "a\x1b\"b\\'c\x7f",
                                            "\t#~*?[x]{a,b}!&|<>()`"};
    kavri::process::ChildProcess shell(
        {.program = "/bin/bash", .arguments = {"-c", shellCommand(words)}});
    BOOST_REQUIRE(shell.wait(std::chrono::seconds(60)).has_value());
    std::string expected;
    for (std::size_t i = 2; i < words.size(); ++i) {
        expected += words[i] + "\n";
    }
    BOOST_TEST(shell.output() == expected);
    BOOST_TEST(shell.error() == "");
}
