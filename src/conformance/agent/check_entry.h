// One check as the test framework logs it, put together from the pieces in which a
// log formatter gets it. A failed BOOST_CHECK_EQUAL(a, b) comes in ten:
//
//     "check " "a" " == " "b" " has failed" " [" VALUE " != " VALUE "]"
//
// A value comes by a call of its own kind. So what is a value is known from the call
// and not from its text, which may contain brackets, quotes and line breaks.
//
// The text of the check lies between the first piece and the outcome. No expression can
// be mistaken for the outcome, which begins with a blank. An entry without an outcome, as
// of BOOST_ERROR and BOOST_CHECK_CLOSE, is all text.
#ifndef KAVRI_CONFORMANCE_AGENT_CHECK_ENTRY_H
#define KAVRI_CONFORMANCE_AGENT_CHECK_ENTRY_H

#include <string>
#include <utility>
#include <vector>

namespace kavri::conformance {

class CheckEntry {
  public:
    void addText(std::string text) { pieces_.push_back({false, std::move(text)}); }
    void addValue(std::string value) { pieces_.push_back({true, std::move(value)}); }

    // "a == b".
    std::string text() const;
    // All pieces: "check a == b has failed [1 != 2]".
    std::string message() const;
    // The two values that a failed check compares; none where it compares nothing, or
    // the framework gives the values only as part of a longer text.
    std::vector<std::string> values() const;

  private:
    struct Piece {
        bool isValue;
        std::string text;

        bool operator==(const Piece&) const = default;
    };
    using Pieces = std::vector<Piece>;

    Pieces::const_iterator outcome() const;
    static std::string joined(Pieces::const_iterator begin, Pieces::const_iterator end);

    Pieces pieces_;
};

}  // namespace kavri::conformance

#endif
