// The tool as a process of a test, beside a broker in the test's own folder.
#ifndef KAVRI_TESTS_SUPPORT_TOOL_H
#define KAVRI_TESTS_SUPPORT_TOOL_H

#include <fcntl.h>

#include <algorithm>
#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/pipe.h"
#include "support/service_process.h"

namespace kavri::tests {

struct Result {
    process::ExitState exit;
    std::string output;
    std::string error;
};

inline Result finish(process::ChildProcess& tool) {
    const auto exit = tool.wait(patience);
    BOOST_REQUIRE_MESSAGE(exit.has_value(), "the tool does not end: " << tool.error());
    return {*exit, tool.output(), tool.error()};
}

// Runs commands of the tool against the broker on one socket.
class Tool {
  public:
    explicit Tool(std::filesystem::path socket) : socket_(std::move(socket)) {}

    process::ChildSpawn spawn(std::vector<std::string> arguments) const {
        return {.program = KAVRI_BIN_DIR "/kavri",
                .arguments = std::move(arguments),
                .environment = {{"KAVRI_BROKER", socket_}, {"KAVRI_LOG", "off"}}};
    }
    process::ChildProcess start(std::vector<std::string> arguments) const {
        return process::ChildProcess(spawn(std::move(arguments)));
    }
    Result run(std::vector<std::string> arguments) const {
        process::ChildProcess tool = start(std::move(arguments));
        return finish(tool);
    }
    // With that as its standard input, which a file holds.
    Result runWith(const std::string& input, std::vector<std::string> arguments) const {
        const std::string file = socket_.string() + ".input";
        std::ofstream(file, std::ios::binary) << input;
        const base::Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
        process::ChildSpawn what = spawn(std::move(arguments));
        what.inputDescriptor = descriptor.get();
        process::ChildProcess tool(what);
        return finish(tool);
    }
    // With its standard output on a disk that is full.
    Result runOnFullDisk(std::vector<std::string> arguments) const {
        process::ChildSpawn what = spawn(std::move(arguments));
        what.captureOutput = false;
        what.logFile = "/dev/full";
        process::ChildProcess tool(what);
        return finish(tool);
    }
    // What a shell makes of `$kavri`, with PIPESTATUS.
    Result runInShell(const std::string& script) const {
        process::ChildSpawn what = spawn({"-c", script});
        what.environment["kavri"] = what.program;
        what.program = "bash";
        process::ChildProcess shell(what);
        return finish(shell);
    }

  private:
    std::filesystem::path socket_;
};

// It ended with that status, and said why in one line.
inline void refuses(const Result& result, int status, const std::string& reason) {
    BOOST_TEST(result.exit.signal == 0);
    BOOST_TEST(result.exit.code == status, result.error);
    BOOST_TEST(result.output.empty(), result.output);
    BOOST_TEST(std::ranges::count(result.error, '\n') == 1, result.error);
    BOOST_TEST(result.error.find(reason) != std::string::npos, result.error);
}

inline void succeeds(const Result& result, const std::string& output) {
    BOOST_TEST(result.exit.signal == 0);
    BOOST_TEST(result.exit.code == 0, result.error);
    BOOST_TEST(result.output == output);
    BOOST_TEST(result.error.empty(), result.error);
}

}  // namespace kavri::tests

#endif
