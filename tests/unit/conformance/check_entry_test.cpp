// The text of a check, made of the pieces in which the test framework logs it.
#define BOOST_TEST_MODULE checkEntry

#include "conformance/agent/check_entry.h"

#include <boost/test/unit_test.hpp>

using kavri::conformance::CheckEntry;

namespace {

struct Value {
    std::string text;
};

void add(CheckEntry& entry, const char* text) {
    entry.addText(text);
}

void add(CheckEntry& entry, const Value& value) {
    entry.addValue(value.text);
}

template <typename... Pieces>
CheckEntry entryOf(const Pieces&... pieces) {
    CheckEntry entry;
    (add(entry, pieces), ...);
    return entry;
}

CheckEntry failedComparison(const std::string& left, const std::string& right) {
    return entryOf("check ", "a", " == ", "b", " has failed", " [", Value{left},
                   " != ", Value{right}, "]");
}

void checkValues(const CheckEntry& entry, const std::vector<std::string>& expected) {
    BOOST_TEST(entry.values() == expected, boost::test_tools::per_element());
}

}  // namespace

BOOST_AUTO_TEST_CASE(aPassedComparisonIsItsText) {
    const CheckEntry entry = entryOf("check ", "a", " == ", "b", " has passed");
    BOOST_TEST(entry.text() == "a == b");
    checkValues(entry, {});
}

BOOST_AUTO_TEST_CASE(aFailedComparisonHasItsValuesToo) {
    const CheckEntry entry = failedComparison("1", "2");
    BOOST_TEST(entry.text() == "a == b");
    BOOST_TEST(entry.message() == "check a == b has failed [1 != 2]");
    checkValues(entry, {"1", "2"});
}

BOOST_AUTO_TEST_CASE(textInAValueIsNoPartOfTheForm) {
    for (const std::string value : {"", " ", "]", " [", "x] [y", " != ", "\"it's\"", "\n",
                                    "a\n]\nb", " has failed", " has passed", "check "}) {
        checkValues(failedComparison(value, "2"), {value, "2"});
        checkValues(failedComparison("1", value), {"1", value});
        BOOST_TEST(failedComparison(value, value).text() == "a == b");
    }
}

BOOST_AUTO_TEST_CASE(textInAnExpressionIsNoPartOfTheForm) {
    const CheckEntry entry = entryOf("check ", "\" has failed [\"", " == ", "b[\"]\"]",
                                     " has failed", " [", Value{"1"}, " != ", Value{"2"}, "]");
    BOOST_TEST(entry.text() == "\" has failed [\" == b[\"]\"]");
    checkValues(entry, {"1", "2"});
}

BOOST_AUTO_TEST_CASE(everyRelationSeparatesValues) {
    for (const char* relation : {" == ", " != ", " < ", " <= ", " > ", " >= "}) {
        checkValues(entryOf("critical check ", "a", " < ", "b", " has failed", " [", Value{"1"},
                            relation, Value{"2"}, "]", ". ", "more"),
                    {"1", "2"});
    }
}

BOOST_AUTO_TEST_CASE(aPredicatesValuesAreInTheMessageAlone) {
    const CheckEntry predicate =
        entryOf("check ", Value{"isOdd"}, "( ", "a", ", ", "b", " )", " has failed", " for ( ",
                Value{"1"}, ", ", Value{"2"}, " )");
    BOOST_TEST(predicate.text() == "isOdd( a, b )");
    BOOST_TEST(predicate.message() == "check isOdd( a, b ) has failed for ( 1, 2 )");
    checkValues(predicate, {});
    // BOOST_TEST logs its values as one text.
    const CheckEntry expression = entryOf("check ", Value{"a == b"}, " has failed", " [1 != 2]");
    BOOST_TEST(expression.text() == "a == b");
    checkValues(expression, {});
}

BOOST_AUTO_TEST_CASE(aCheckWithAMessageHasOneTextInBothOutcomes) {
    BOOST_TEST(entryOf("check ", "'", Value{"it's"}, "'", " has passed").text() == "it's");
    BOOST_TEST(entryOf(Value{"it's"}).text() == "it's");
    BOOST_TEST(entryOf("check ", "'", " == ", "'", " has passed").text() == " == ");
    BOOST_TEST(entryOf("check ", "'a'", " == ", "'b'", " has passed").text() == "'a' == 'b'");
}

BOOST_AUTO_TEST_CASE(whatHasNoOutcomeIsAllText) {
    const CheckEntry entry = entryOf("difference{", "3", "} between ", "a", "{", Value{"1"},
                                     "} and ", "b", "{", Value{"4"}, "} exceeds ", Value{"1"}, "%");
    BOOST_TEST(entry.text() == "difference{3} between a{1} and b{4} exceeds 1%");
    BOOST_TEST(entry.text() == entry.message());
    checkValues(entry, {});
    BOOST_TEST(entryOf().text() == "");
    checkValues(entryOf(), {});
    // Nor can a value open an entry or end it.
    BOOST_TEST(entryOf(Value{"check "}, "a", " has failed").text() == "check a has failed");
    BOOST_TEST(entryOf("check ", Value{" has failed"}, " has passed").text() == " has failed");
}

BOOST_AUTO_TEST_CASE(valuesThatAreNotWholeAreNone) {
    checkValues(
        entryOf("check ", "a", " == ", "b", " has failed", " [", Value{"1"}, " != ", Value{"2"}),
        {});
    checkValues(entryOf("check ", "a", " == ", "b", " has failed", " [", "1", " != ", "2", "]"),
                {});
    checkValues(entryOf("check ", "a", " == ", "b", " has failed", " [", Value{"1"}, Value{" != "},
                        Value{"2"}, "]"),
                {});
}
