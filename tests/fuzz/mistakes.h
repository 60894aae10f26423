// Noise, and mistakes put into bytes that were right.
#ifndef KAVRI_TESTS_FUZZ_MISTAKES_H
#define KAVRI_TESTS_FUZZ_MISTAKES_H

#include <cstddef>
#include <random>
#include <string>

namespace kavri::tests {

using Random = std::mt19937;

inline std::string noise(Random& random, std::size_t most) {
    std::string bytes(random() % (most + 1), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// None to three mistakes.
inline void mutate(std::string& bytes, Random& random) {
    for (auto count = random() % 4; count > 0 && !bytes.empty(); --count) {
        const std::size_t at = random() % bytes.size();
        switch (random() % 5) {
            case 0:
                bytes[at] = static_cast<char>(random());
                break;
            case 1:
                bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
                break;
            case 2:
                bytes.erase(at, random() % 40);
                break;
            case 3:
                bytes.insert(at, noise(random, 40));
                break;
            default:
                bytes.insert(at, bytes.substr(random() % bytes.size(), 64));
                break;
        }
    }
}

}  // namespace kavri::tests

#endif
