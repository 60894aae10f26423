// The fuzz targets over fixed inputs: conversations as they should be, the same
// with mistakes in them, and noise. The same every time.
#define BOOST_TEST_MODULE fuzz

#include <boost/test/unit_test.hpp>
#include <filesystem>

#include "fuzz/mistakes.h"
#include "fuzz/targets.h"
#include "support/frames.h"
#include "support/hex_text.h"

using namespace kavri::tests;

namespace {

// Builds with sanitizers are some ten times as slow.
#ifdef KAVRI_SANITIZED
constexpr std::size_t rounds = 1500;
#else
constexpr std::size_t rounds = 6000;
#endif

std::string goldenFrames(Random& random) {
    static const std::vector<std::string> all = [] {
        std::vector<std::filesystem::path> files;
        for (const auto& file :
             std::filesystem::directory_iterator(KAVRI_SOURCE_DIR "/tests/unit/golden")) {
            files.push_back(file.path());
        }
        std::sort(files.begin(), files.end());  // a folder has no order of its own
        std::vector<std::string> frames(files.size());
        std::transform(files.begin(), files.end(), frames.begin(), bytesOfHexFile);
        return frames;
    }();
    std::string bytes;
    for (auto count = random() % 5; count > 0; --count) {
        bytes += all[random() % all.size()];
    }
    return bytes;
}

// What the peer of each number in the protocol's target may well say: so deep
// that a mistake finds something to break.
std::string sensibleFrame(unsigned peer, Random& random) {
    static constexpr std::array categories = {"test", "embedded", "nobody", "another"};
    static constexpr std::array identifiers = {"echo", "event", "inc_repeat_count", ""};
    const std::string_view category = categories[random() % categories.size()];
    const std::string_view identifier = identifiers[random() % identifiers.size()];
    const std::string payload(random() % 8 == 0 ? random() % 40'001 : random() % 50, 'p');
    // Tokens of the broker's own begin at 0 and have the generation above.
    const std::uint64_t token = random() % 4 | std::uint64_t{random() % 3} << 32U;
    if (peer == 0 && random() % 2 == 0) {
        static constexpr std::array roles = {"initiator", "responder", "manager"};
        return encode(
            makeFrame(FrameType::hello, 1, {.identifier = roles[random() % roles.size()]}));
    }
    if (peer == 4 || (peer == 0 && random() % 4 == 0)) {
        if (random() % 3 == 0) {
            static constexpr std::array options = {"", "payload_bytes=5000\n", "process=0\n",
                                                   "connection=2\nuser=1000\n", "process=x\n"};
            return encode(makeFrame(FrameType::monitor, random() % 4,
                                    {.payload = options[random() % options.size()]}));
        }
        return encode(
            makeFrame(random() % 4 == 0 ? FrameType::ping : FrameType::query, random() % 4));
    }
    const bool serves = peer == 2 || (peer == 0 && random() % 2 == 0);
    static constexpr std::array asked = {FrameType::request, FrameType::request,
                                         FrameType::subscribe, FrameType::unsubscribe,
                                         FrameType::ping};
    static constexpr std::array served = {FrameType::response, FrameType::completion,
                                          FrameType::publish, FrameType::registration,
                                          FrameType::ping};
    Frame frame = smallestFrame(
        serves ? served[random() % served.size()] : asked[random() % asked.size()], token);
    const std::array<std::string_view, 4> values = {serves ? "test" : category, identifier, "u",
                                                    payload};
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (frame.fields[i].data() != nullptr) {
            frame.fields[i] = values[i];
        }
    }
    return encode(frame);
}

// What the five peers do, with or without mistakes in what they say.
std::string script(Random& random, bool withMistakes) {
    static constexpr std::array quietly = {Action::hear,        Action::hear,     Action::hear,
                                           Action::hearALittle, Action::lose,     Action::comeBack,
                                           Action::comeBack,    Action::loseHeart};
    std::string steps;
    for (auto count = random() % 60; count > 0; --count) {
        const auto peer = static_cast<unsigned>(random() % 5);
        if (random() % 3 == 0) {
            steps += quietStep(peer, quietly[random() % quietly.size()],
                               static_cast<unsigned char>(random() % 100));
            continue;
        }
        std::string bytes = sensibleFrame(peer, random);
        if (withMistakes && random() % 8 == 0) {
            mutate(bytes, random);
        }
        const std::size_t cut = random() % 3 == 0 ? random() % (bytes.size() + 1) : bytes.size();
        steps += spokenSteps(peer, std::string_view(bytes).substr(0, cut));
        steps += spokenSteps(peer, std::string_view(bytes).substr(cut));
    }
    return steps;
}

// What a target comes to in so many rounds.
template <typename Target>
std::size_t inRounds(std::size_t count, unsigned seed, Target target) {
    Random random(seed);  // NOLINT(cert-msc51-cpp): the same every time
    std::size_t sum = 0;
    for (std::size_t round = 0; round < count; ++round) {
        sum += target(random);
    }
    return sum;
}

}  // namespace

// The targets end the program where a rule is broken. What they come to is
// checked so that an input which no longer reaches anything is noticed.

BOOST_AUTO_TEST_CASE(framesWithMistakesBreakNothing) {
    BOOST_TEST(inRounds(5 * rounds, 1, [](Random& random) {
                   std::string bytes = goldenFrames(random);
                   mutate(bytes, random);
                   return fuzzFrames(bytes);
               }) > rounds);
}

BOOST_AUTO_TEST_CASE(noiseIsNoFrame) {
    BOOST_TEST(inRounds(5 * rounds, 2,
                        [](Random& random) { return fuzzFrames(noise(random, 200)); }) == 0U);
}

BOOST_AUTO_TEST_CASE(sensiblePeersBreakNothing) {
    BOOST_TEST(inRounds(rounds, 3, [](Random& random) {
                   return fuzzProtocol(script(random, false));
               }) > rounds);
}

BOOST_AUTO_TEST_CASE(peersWithMistakesBreakNothing) {
    BOOST_TEST(inRounds(rounds, 4, [](Random& random) {
                   return fuzzProtocol(script(random, true));
               }) > rounds);
}

BOOST_AUTO_TEST_CASE(noiseIsNotAnswered) {
    BOOST_TEST(inRounds(rounds, 5,
                        [](Random& random) { return fuzzProtocol(noise(random, 1000)); }) == 0U);
}
