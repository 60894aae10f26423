// Lines out of a stream that arrives in pieces.
#define BOOST_TEST_MODULE lineBuffer

#include "base/line_buffer.h"

#include <boost/test/unit_test.hpp>
#include <vector>

namespace {

struct Lines {
    kavri::base::LineBuffer buffer;
    std::vector<std::string> lines;

    void add(std::string_view bytes) {
        buffer.add(bytes, [this](std::string_view line) { lines.emplace_back(line); });
    }
    void finish() {
        buffer.finish([this](std::string_view line) { lines.emplace_back(line); });
    }
    void expect(const std::vector<std::string>& expected) {
        BOOST_TEST(lines == expected, boost::test_tools::per_element());
        lines.clear();
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aLineMayArriveInPieces, Lines) {
    add("one\ntw");
    expect({"one"});
    add("o\n\nthree\n");
    expect({"two", "", "three"});
    finish();
    expect({});
}

BOOST_FIXTURE_TEST_CASE(theLastLineMayHaveNoLineBreak, Lines) {
    add("one\ntwo");
    finish();
    finish();
    expect({"one", "two"});
}

BOOST_FIXTURE_TEST_CASE(aLineThatIsTooLongIsPassedOnInPieces, Lines) {
    const std::string most(kavri::base::LineBuffer::longestLineBytes, 'x');
    add(most);
    expect({});
    add("y");
    expect({most + "y"});
    add("z\n");
    expect({"z"});
}
