// Fitting the line; see growth.h.
#include "conformance/run/growth.h"

#include <algorithm>
#include <cassert>

namespace kavri::conformance {

std::size_t warmUpRuns(std::size_t runs) {
    constexpr std::size_t share = 5;
    return std::max<std::size_t>(1, runs / share);
}

double slopeOf(const std::vector<double>& values) {
    assert(values.size() >= 2);
    const auto count = static_cast<double>(values.size());
    const double middle = (count - 1) / 2;
    double product = 0;
    double square = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const double offset = static_cast<double>(i) - middle;
        product += offset * values[i];
        square += offset * offset;
    }
    return product / square;
}

RepeatReport::Growth growthOf(const std::string& what, const std::vector<double>& held,
                              std::optional<double> limitRise) {
    assert(!held.empty());
    RepeatReport::Growth growth{.what = what,
                                .first = held.front(),
                                .last = held.back(),
                                .most = *std::ranges::max_element(held)};
    if (held.size() >= leastRunsForGrowth) {
        const auto begin = held.begin() + static_cast<std::ptrdiff_t>(warmUpRuns(held.size()));
        const std::vector<double> measured(begin, held.end());
        growth.slope = slopeOf(measured);
        const double rise = *growth.slope * static_cast<double>(measured.size() - 1);
        growth.grows = limitRise && rise > *limitRise;
    }
    return growth;
}

}  // namespace kavri::conformance
