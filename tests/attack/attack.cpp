// Attacks a broker of its own and prints what a bystander notices: the figures in
// docs/reliability.md. This file reads the command line; attacks.h lists the attacks.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <exception>
#include <iterator>

#include "attacks.h"
#include "process/exit_status.h"

using kavri::process::CommandFailure;
using kavri::process::ExitStatus;
using kavri::tests::Attack;

namespace {

// An attack with the number that it is made with.
struct ChosenAttack {
    Attack attack;
    double number = 0;
};

std::vector<Attack> allAttacks() {
    std::vector<Attack> all;
    for (auto list : {kavri::tests::eventLoopAttacks(), kavri::tests::flowControlAttacks(),
                      kavri::tests::accountAttacks()}) {
        std::ranges::move(list, std::back_inserter(all));
    }
    return all;
}

std::string listing() {
    std::string text;
    for (const Attack& attack : allAttacks()) {
        char line[160];
        std::snprintf(line, sizeof line, "  %-16s%s",
                      (attack.name + (attack.usualNumber ? " N" : "")).c_str(),
                      attack.description.c_str());
        text += line;
        if (attack.usualNumber) {
            std::snprintf(line, sizeof line, " (%g)", *attack.usualNumber);
            text += line;
        }
        text += '\n';
    }
    return text;
}

// Nothing where the word is no number.
std::optional<double> numberIn(const std::string& word) {
    double number = 0;
    const char* const end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

// The attacks that the words name, each with the number behind it; all where there
// are no words. Throws CommandFailure.
std::vector<ChosenAttack> chooseAttacks(const std::vector<std::string>& words) {
    const std::vector<Attack> all = allAttacks();
    std::vector<ChosenAttack> chosen;
    const auto choose = [&chosen](const Attack& attack) {
        chosen.push_back({attack, attack.usualNumber.value_or(0)});
    };
    if (words.empty()) {
        std::ranges::for_each(all, choose);
    }
    for (const std::string& word : words) {
        const auto found = std::ranges::find(all, word, &Attack::name);
        if (found != all.end()) {
            choose(*found);
            continue;
        }
        const std::optional<double> number = numberIn(word);
        if (!number) {
            throw CommandFailure(ExitStatus::usage,
                                 "there is no attack '" + word + "'; --list shows those there are");
        }
        if (chosen.empty() || !chosen.back().attack.usualNumber || *number <= 0) {
            throw CommandFailure(ExitStatus::usage,
                                 "'" + word + "' is not the number of an attack; see --list");
        }
        chosen.back().number = *number;
    }
    return chosen;
}

int run(int argc, char** argv) {
    CLI::App app{"Attacks a broker of its own, and prints what a bystander notices of it."};
    std::string broker = KAVRI_BIN_DIR "/kavri-broker";
    app.add_option("--broker", broker, "The broker to attack; otherwise the one of this build")
        ->type_name("PROGRAM");
    bool lists = false;
    app.add_flag("--list", lists, "Print the attacks");
    std::vector<std::string> words;
    app.add_option("attack", words, "Attacks, each with its number if it has one; none: all")
        ->type_name("NAME [NUMBER]");
    app.footer("Attacks, with the number that is usual:\n" + listing());
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help
        }
        throw CommandFailure(ExitStatus::usage, std::string(error.what()) + "; see --help");
    }
    if (lists) {
        std::fputs(listing().c_str(), stdout);
        return 0;
    }
    for (const ChosenAttack& chosen : chooseAttacks(words)) {
        std::printf("%s", chosen.attack.name.c_str());
        if (chosen.attack.usualNumber) {
            std::printf(" %g", chosen.number);
        }
        std::printf("\n");
        std::fflush(stdout);
        chosen.attack.run(broker, chosen.number);
        std::fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const CommandFailure& failure) {
        std::fprintf(stderr, "attack: %s\n", failure.what());
        return static_cast<int>(failure.status());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "attack: %s\n", error.what());
        return 1;
    }
}
