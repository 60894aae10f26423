// What is fuzzed: each takes any bytes and ends the program (SIGABRT) where a
// rule does not hold; what the sanitizers find ends it too.
//
// Run in two ways: by fuzz_test over fixed inputs, in every build; and by
// libFuzzer, without end, in a build with -DKAVRI_FUZZ=ON (see CMakeLists.txt).
#ifndef KAVRI_TESTS_FUZZ_TARGETS_H
#define KAVRI_TESTS_FUZZ_TARGETS_H

#include <cstddef>
#include <string>
#include <string_view>

namespace kavri::tests {

// The bytes are read as a peer's: split into frames, decoded, and encoded
// again, which must give the same. Returns how many frames there were.
std::size_t fuzzFrames(std::string_view bytes);

// The bytes are a script of what five peers of a broker do: speak, in pieces of
// any size, take what waits for them or not, leave and come back. Returns how
// many frames they heard.
std::size_t fuzzProtocol(std::string_view bytes);

// What a peer may do in a step of such a script.
enum class Action : unsigned { speak, speakMuch, hear, hearALittle, lose, comeBack, loseHeart };
inline constexpr unsigned actions = 7;

// A step other than speaking; `much`: of what waits for it, up to 255 bytes.
std::string quietStep(unsigned peer, Action action, unsigned char much = 0);
// The peer speaks all of these bytes.
std::string spokenSteps(unsigned peer, std::string_view bytes);

}  // namespace kavri::tests

#endif
