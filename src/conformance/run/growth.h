// What counts as growth, of what a process holds after each of its runs.
//
// The first runs are warm-up: allocators, caches and the framework take what they keep for
// good. To the others a line is fitted by least squares. It counts as growth where that line
// rises by more over all of them than the limit, so that a leak is found the smaller the more
// runs there are, and what moves up and down by chance is not taken for one.
#ifndef KAVRI_CONFORMANCE_RUN_GROWTH_H
#define KAVRI_CONFORMANCE_RUN_GROWTH_H

#include <optional>
#include <string>
#include <vector>

#include "conformance/report/report.h"

namespace kavri::conformance {

// Fewer runs than this are not judged: a line through two points always fits.
inline constexpr std::size_t leastRunsForGrowth = 4;

// How many of the runs are warm-up: a fifth, and at least one.
std::size_t warmUpRuns(std::size_t runs);

// The slope of the line that fits values at 0, 1, 2 … best. At least two values.
double slopeOf(const std::vector<double>& values);

// `held`: after each run of one process, in their order; at least one. `limitRise`: that much
// over all runs but the warm-up is none; nothing: it is not judged at all.
RepeatReport::Growth growthOf(const std::string& what, const std::vector<double>& held,
                              std::optional<double> limitRise);

// One descriptor or thread with each of the fewest runs rises by two.
inline constexpr double limitRiseCount = 1.5;
inline constexpr double limitRiseKiB = 1024;

}  // namespace kavri::conformance

#endif
