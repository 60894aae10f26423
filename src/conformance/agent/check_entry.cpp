// Finding the parts of an entry; see check_entry.h.
#include "conformance/agent/check_entry.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kavri::conformance {

namespace {

constexpr std::array<std::string_view, 3> openings = {"check ", "critical check ", "condition "};
constexpr std::array<std::string_view, 3> outcomes = {" has passed", " has failed",
                                                      " is not satisfied"};
// What a failed comparison puts between its values.
constexpr std::array<std::string_view, 6> relations = {" == ", " != ", " < ",
                                                       " <= ", " > ",  " >= "};

}  // namespace

// The piece with the outcome; the end where there is none.
CheckEntry::Pieces::const_iterator CheckEntry::outcome() const {
    const auto isOneOf = [](const Piece& piece, const auto& texts) {
        return !piece.isValue && std::ranges::find(texts, piece.text) != texts.end();
    };
    if (pieces_.empty() || !isOneOf(pieces_.front(), openings)) {
        return pieces_.end();
    }
    return std::ranges::find_if(pieces_,
                                [&](const Piece& piece) { return isOneOf(piece, outcomes); });
}

std::string CheckEntry::joined(Pieces::const_iterator begin, Pieces::const_iterator end) {
    std::string all;
    for (auto piece = begin; piece != end; ++piece) {
        all += piece->text;
    }
    return all;
}

std::string CheckEntry::text() const {
    const auto end = outcome();
    if (end == pieces_.end()) {
        return message();
    }
    // The message of a passed BOOST_CHECK_MESSAGE is in quotes, that of a failed one is not.
    const Piece quote = {false, "'"};
    const bool isQuoted = end - pieces_.begin() > 3 && pieces_[1] == quote && *(end - 1) == quote;
    return joined(pieces_.begin() + (isQuoted ? 2 : 1), end - (isQuoted ? 1 : 0));
}

std::string CheckEntry::message() const {
    return joined(pieces_.begin(), pieces_.end());
}

std::vector<std::string> CheckEntry::values() const {
    const auto end = outcome();
    if (pieces_.end() - end < 6) {
        return {};
    }
    const bool areThere = end[1] == Piece{false, " ["} && end[2].isValue && !end[3].isValue &&
                          std::ranges::find(relations, end[3].text) != relations.end() &&
                          end[4].isValue && end[5] == Piece{false, "]"};
    return areThere ? std::vector{end[2].text, end[4].text} : std::vector<std::string>{};
}

}  // namespace kavri::conformance
