// What the programs have in common around the parser of their command lines.
#ifndef KAVRI_BASE_COMMAND_LINE_H
#define KAVRI_BASE_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "base/suggestion.h"
#include "base/terminal.h"

namespace kavri::base {

// The options and commands of a program, or of one of its commands.
inline std::vector<std::string> namesIn(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

// The first argument that the program or command does not know, without a value behind it,
// and what it was probably meant to be: empty, or "did you mean …? ".
inline std::string suggestionFor(const CLI::App& app) {
    const std::vector<std::string> unknown = app.remaining();
    return unknown.empty()
               ? ""
               : didYouMean(unknown.front().substr(0, unknown.front().find('=')), namesIn(app));
}

// Prints what was asked for, --help or --version, as it fits the terminal. Returns the exit
// status.
inline int answer(const CLI::App& app, const CLI::Success& asked) {
    const bool isHelp = asked.get_name() == "CallForHelp";
    std::cout << fitted(isHelp ? app.help() : asked.what() + std::string("\n"),
                        DisplayStyle::ofStandardOutput())
              << std::flush;
    return 0;
}

// What is wrong, on one line, and where to read more.
inline std::string usageComplaint(const CLI::App& app, const CLI::ParseError& error,
                                  const std::string& program) {
    std::string line = error.what();
    std::ranges::replace(line, '\n', ' ');
    return line + "; " + suggestionFor(app) + "see '" + program + " --help'";
}

// For an option whose value cannot be empty. In the form that the parser asks of a check:
// empty, or what is wrong.
inline CLI::Validator notEmpty() {
    return {[](const std::string& text) {
                return text.empty() ? std::string("the value is empty") : std::string();
            },
            ""};
}

}  // namespace kavri::base

#endif
