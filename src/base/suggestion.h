// What a mistyped word was probably meant to be.
#ifndef KAVRI_BASE_SUGGESTION_H
#define KAVRI_BASE_SUGGESTION_H

#include <string>
#include <string_view>
#include <vector>

namespace kavri::base {

// How many characters to insert, remove, replace or swap with their neighbour turn one word
// into the other.
std::size_t editDistance(std::string_view left, std::string_view right);

// "did you mean 'WORD'? " with the nearest of the known words, leading dashes apart; empty
// where none is close, which is where more than a third of the word would have to change.
std::string didYouMean(std::string_view typed, const std::vector<std::string>& known);

}  // namespace kavri::base

#endif
