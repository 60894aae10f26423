// What `kavri monitor` makes of what a broker shows it, right or wrong: a line without anything
// that a terminal would act on, and an object of JSON. The same every time.
#define BOOST_TEST_MODULE observedReading

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <nlohmann/json.hpp>

#include "fuzz/mistakes.h"
#include "management/observed.h"
#include "support/frames.h"

using namespace kavri::tests;
using namespace kavri::management;

namespace {

constexpr int rounds = 4'000;

// No field of a frame has a NUL in it.
std::string field(std::string bytes) {
    std::erase(bytes, '\0');
    return bytes;
}

std::string lines(Random& random) {
    static constexpr std::array all = {"at=1795352711000042\n",
                                       "type=response\n",
                                       "from=5/4711/1000\n",
                                       "to=6/4712/0\n",
                                       "bytes=46\n",
                                       "payload_bytes=5\n",
                                       "category_bytes=300\n",
                                       "elapsed_ns=42100\n",
                                       "dropped=1\n",
                                       "receivers=3\n",
                                       "reason=malformed: x\n",
                                       "\npayload"};
    std::string text;
    for (const char* const line : all) {
        text += random() % 4 == 0 ? "" : line;
    }
    if (random() % 10 == 0) {
        text += "lost=18446744073709551615\n";
    }
    mutate(text, random);
    return field(text);
}

bool isHarmless(std::string_view text) {
    return std::ranges::none_of(text, [](char byte) {
        const auto value = static_cast<unsigned char>(byte);
        return (value < 0x20 && byte != '\t') || value == 0x7f;
    });
}

}  // namespace

BOOST_AUTO_TEST_CASE(whateverIsShownIsALineOfTextAndOfJson) {
    Random random(4711);
    std::size_t losses = 0;
    for (int round = 0; round < rounds; ++round) {
        const std::string category = field(noise(random, 300));
        const std::string identifier = field(noise(random, 300));
        const std::string payload = lines(random);
        Frame frame = makeFrame(FrameType::observed, random(), {.payload = payload},
                                static_cast<std::uint16_t>(random() % 20));
        if (random() % 2 == 0) {
            frame[Field::category] = category;
            frame[Field::identifier] = identifier;
        }
        const Observed observed = readObserved(frame);
        const auto json = nlohmann::json::parse(jsonOf(observed));
        BOOST_REQUIRE(isHarmless(textOf(observed)));
        BOOST_REQUIRE(json.contains("lost") == (observed.lost > 0));
        losses += observed.lost > 0 ? 1 : 0;
    }
    BOOST_TEST(losses > 0U);
    BOOST_TEST(losses < rounds / 2U);
}
