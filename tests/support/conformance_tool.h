// `kavri conformance` as a process of a test, with a temporary folder of its own. The test
// adopts its orphans, so that it finds anything left over.
#ifndef KAVRI_TESTS_SUPPORT_CONFORMANCE_TOOL_H
#define KAVRI_TESTS_SUPPORT_CONFORMANCE_TOOL_H

#include <sys/prctl.h>
#include <sys/wait.h>

#include <boost/test/unit_test.hpp>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "process/child_process.h"
#include "process/temporary_folder.h"

namespace kavri::tests {

using Arguments = std::vector<std::string>;
using Environment = std::map<std::string, std::optional<std::string>>;

// Never reached, the proof apart; short enough to end a test that hangs. A run of all
// cases takes some five seconds, and many times that on a busy machine.
constexpr std::chrono::seconds longEnough{120};

struct ToolResult {
    process::ExitState exit;
    std::string output;
    std::string error;
};

class ConformanceTool {
  public:
    ConformanceTool() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ConformanceTool(const ConformanceTool&) = delete;
    ConformanceTool& operator=(const ConformanceTool&) = delete;
    ~ConformanceTool() { prctl(PR_SET_CHILD_SUBREAPER, 0); }

    process::ChildSpawn spawn(const Arguments& arguments,
                              const Environment& environment = {}) const {
        process::ChildSpawn result = {.program = std::filesystem::path(KAVRI_BIN_DIR) / "kavri",
                                      .arguments = {"conformance"},
                                      .environment = environment};
        result.arguments.insert(result.arguments.end(), arguments.begin(), arguments.end());
        result.environment["TMPDIR"] = temporary_.path().string();
        return result;
    }

    ToolResult run(const Arguments& arguments, const Environment& environment = {}) const {
        process::ChildProcess tool(spawn(arguments, environment));
        return finish(tool);
    }

    // Waits for the tool, and checks that it has tidied up.
    ToolResult finish(process::ChildProcess& tool, std::chrono::seconds limit = longEnough) const {
        const std::optional<process::ExitState> exit = tool.wait(limit);
        BOOST_REQUIRE_MESSAGE(exit.has_value(), "the tool does not end: " << tool.error());
        checkNothingIsLeft();
        return {*exit, tool.output(), tool.error()};
    }

    void checkNothingIsLeft() const {
        BOOST_TEST(std::filesystem::is_empty(temporary_.path()));
        const bool hasChild = waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
        BOOST_TEST(!hasChild);
    }

    // Where the tool puts what it needs for a while.
    const std::filesystem::path& temporary() const { return temporary_.path(); }

  private:
    process::TemporaryFolder temporary_;
};

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline Arguments with(Arguments first, const Arguments& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace kavri::tests

#endif
