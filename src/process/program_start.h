// Starting a program: fork, exec, and what is set up in between.
#ifndef KAVRI_PROCESS_PROGRAM_START_H
#define KAVRI_PROCESS_PROGRAM_START_H

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kavri::process {

// What to start.
struct ChildSpawn {
    // A path; a name without a slash is searched in PATH.
    std::filesystem::path program{};
    std::vector<std::string> arguments{};
    // Set in (or, as nullopt, removed from) a copy of this process' environment.
    std::map<std::string, std::optional<std::string>> environment{};
    // What it reads as its standard input; -1: nothing.
    int inputDescriptor = -1;
    bool captureOutput = true;
    bool captureError = true;
    // Output that is not captured is appended to this file; where there is none it goes
    // where this process' own goes.
    std::filesystem::path logFile{};
    // Open descriptors that the program inherits, under the same numbers.
    std::vector<int> inheritedDescriptors{};
    // Waiting for the program returns early while this is readable; -1: never.
    int interruptDescriptor = -1;
};

// Starts the program with these as its standard output and error; -1: this process' own.
// Throws std::system_error, whose text names the program, where it cannot be started.
pid_t startProgram(const ChildSpawn& spawn, int output, int error);

// Throws the error in errno as startProgram does.
[[noreturn]] void throwStartError(const std::filesystem::path& program);

}  // namespace kavri::process

#endif
