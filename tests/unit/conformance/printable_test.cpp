// Texts of unknown origin, and the output of a case: harmless, and bounded.
#define BOOST_TEST_MODULE printable

#include "base/printable.h"

#include <boost/test/unit_test.hpp>

#include "conformance/module/case_output.h"

using kavri::base::isUtf8;
using kavri::base::printable;
using kavri::conformance::CaseOutput;

BOOST_AUTO_TEST_SUITE(texts)

BOOST_AUTO_TEST_CASE(whatCanBeShownStays) {
    const std::string text = "plain \"text\"\t\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80";
    BOOST_TEST(printable(text) == text);
    BOOST_TEST(printable("") == "");
}

BOOST_AUTO_TEST_CASE(whatATerminalWouldObeyIsEscaped) {
    BOOST_TEST(printable("a\nb\x1b[31m\x7f\r") == "a\\nb\\x1b[31m\\x7f\\x0d");
    BOOST_TEST(printable(std::string_view("\0", 1)) == "\\x00");
    BOOST_TEST(printable("\xc2\x9b"
                         "31m") == "\\u009b31m");  // the same as ESC [ in one character
    BOOST_TEST(printable("\xe2\x80\xae"
                         "abc") == "\\u202eabc");  // from right to left
    BOOST_TEST(printable("\xe2\x81\xa6\xe2\x80\xa8") == "\\u2066\\u2028");
}

BOOST_AUTO_TEST_CASE(whatIsNoUtf8IsEscapedByteByByte) {
    BOOST_TEST(printable("\xff\xc3(") == "\\xff\\xc3(");
    BOOST_TEST(printable("\xe2\x82") == "\\xe2\\x82");
    BOOST_TEST(printable("\xc0\x80\xed\xa0\x80") == "\\xc0\\x80\\xed\\xa0\\x80");
    BOOST_TEST(printable("\xf4\x90\x80\x80") == "\\xf4\\x90\\x80\\x80");
    BOOST_TEST(printable("\xe0\x80\x80\x80") == "\\xe0\\x80\\x80\\x80");
}

BOOST_AUTO_TEST_CASE(whatIsUtf8IsKnown) {
    BOOST_TEST(isUtf8(""));
    BOOST_TEST(isUtf8("plain\n\x1b \xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80"));
    BOOST_TEST(!isUtf8("plain\xff"));
    BOOST_TEST(!isUtf8("\xe2\x82"));
    BOOST_TEST(!isUtf8("\xed\xa0\x80"));
}

BOOST_AUTO_TEST_SUITE_END()

BOOST_AUTO_TEST_SUITE(output)

BOOST_AUTO_TEST_CASE(linesAreKeptAsTheyMayBeShown) {
    CaseOutput output;
    BOOST_TEST(output.text() == "");
    BOOST_TEST(output.add("one").value() == "one");
    BOOST_TEST(output.add("").value() == "");
    BOOST_TEST(output.add("\x1b[2J").value() == "\\x1b[2J");
    BOOST_TEST(output.text() == "one\n\n\\x1b[2J\n");
}

BOOST_AUTO_TEST_CASE(ofTooManyLinesTheFirstAreKept) {
    CaseOutput output;
    const std::string line(99, 'x');
    unsigned shown = 0;
    for (int i = 0; i < 1000; ++i) {
        shown += output.add(line) ? 1 : 0;
    }
    const unsigned kept = (CaseOutput::limitBytes + 99) / 100;
    BOOST_TEST(shown == kept + 1);  // and one line that says so
    const std::string text = output.text();
    BOOST_TEST(text.size() < CaseOutput::limitBytes + 300);
    BOOST_TEST(text.ends_with("… (" + std::to_string((1000 - kept) * 100) + " bytes more)\n"),
               text.substr(text.size() - 100));
}

BOOST_AUTO_TEST_CASE(aLineThatIsTooLongIsCut) {
    CaseOutput output;
    BOOST_TEST(output.add(std::string(1'000'000, 'x')).value().size() <
               CaseOutput::limitBytes + 100);
    BOOST_TEST(output.text().ends_with("x… (" + std::to_string(1'000'000 - CaseOutput::limitBytes) +
                                       " bytes more)\n"));
}

BOOST_AUTO_TEST_SUITE_END()
