// Close words are suggested, and no others.
#define BOOST_TEST_MODULE suggestion

#include "base/suggestion.h"

#include <boost/test/unit_test.hpp>

using kavri::base::didYouMean;
using kavri::base::editDistance;

namespace {

const std::vector<std::string> known = {"--json",       "--junit",     "--jobs",
                                        "--time-scale", "conformance", "bench"};

}  // namespace

BOOST_AUTO_TEST_CASE(theDistanceCountsEachEdit) {
    BOOST_TEST(editDistance("", "") == 0U);
    BOOST_TEST(editDistance("", "abc") == 3U);
    BOOST_TEST(editDistance("abc", "") == 3U);
    BOOST_TEST(editDistance("abc", "abc") == 0U);
    BOOST_TEST(editDistance("abc", "axc") == 1U);
    BOOST_TEST(editDistance("abc", "ac") == 1U);
    BOOST_TEST(editDistance("ac", "abc") == 1U);
    BOOST_TEST(editDistance("abcd", "acbd") == 1U);  // neighbours that changed places
    BOOST_TEST(editDistance("kitten", "sitting") == 3U);
    BOOST_TEST(editDistance("abc", "xyz") == 3U);
}

BOOST_AUTO_TEST_CASE(theNearestIsSuggested) {
    const std::vector<std::pair<std::string, std::string>> typed = {{"--jsn", "--json"},
                                                                    {"--jsno", "--json"},
                                                                    {"-json", "--json"},
                                                                    {"json", "--json"},
                                                                    {"--junt", "--junit"},
                                                                    {"--timescale", "--time-scale"},
                                                                    {"confromance", "conformance"},
                                                                    {"bnech", "bench"}};
    for (const auto& [word, meant] : typed) {
        BOOST_TEST(didYouMean(word, known) == "did you mean '" + meant + "'? ");
    }
}

BOOST_AUTO_TEST_CASE(whereNoneIsCloseNothingIs) {
    for (const auto* word : {"", "--", "--x", "--verbose", "extra", "--jason-file", "conform"}) {
        BOOST_TEST(didYouMean(word, known) == "", word);
    }
    BOOST_TEST(didYouMean("--json", {}) == "");
}
