// The attacks that the program knows, one list for each part of the broker that
// they are aimed at. An attack starts a broker of its own, attacks it, prints what
// a bystander and the broker's figures show, and leaves no process behind.
#ifndef KAVRI_TESTS_ATTACK_ATTACKS_H
#define KAVRI_TESTS_ATTACK_ATTACKS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavri::tests {

struct Attack {
    std::string name;
    std::string description;  // says what NUMBER means, where there is one
    // NUMBER where the command line gives none; nothing: the attack takes none.
    std::optional<double> usualNumber;
    std::function<void(const std::string& broker, double number)> run;
};

// Storms of connections, floods of frames, a log that nobody reads.
std::vector<Attack> eventLoopAttacks();
// Slow receivers and large requests.
std::vector<Attack> flowControlAttacks();
// Memory that the broker holds for somebody.
std::vector<Attack> accountAttacks();

}  // namespace kavri::tests

#endif
