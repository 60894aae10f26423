// The distance by dynamic programming over three rows; see suggestion.h.
#include "base/suggestion.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace kavri::base {

namespace {

std::string_view withoutDashes(std::string_view word) {
    return word.substr(std::min(word.find_first_not_of('-'), word.size()));
}

}  // namespace

std::size_t editDistance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> before;
    std::vector<std::size_t> last(right.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::vector<std::size_t> row(right.size() + 1, i);
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const bool isSame = left[i - 1] == right[j - 1];
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (isSame ? 0 : 1)});
            if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
                row[j] = std::min(row[j], before[j - 2] + 1);
            }
        }
        before = std::exchange(last, std::move(row));
    }
    return last.back();
}

std::string didYouMean(std::string_view typed, const std::vector<std::string>& known) {
    const std::string_view word = withoutDashes(typed);
    const auto distance = [word](const std::string& other) {
        return editDistance(word, withoutDashes(other));
    };
    const auto nearest = std::ranges::min_element(known, {}, distance);
    const std::size_t most = std::max<std::size_t>(1, word.size() / 3);
    if (word.empty() || nearest == known.end() || distance(*nearest) > most) {
        return "";
    }
    return "did you mean '" + *nearest + "'? ";
}

}  // namespace kavri::base
