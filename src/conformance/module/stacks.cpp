// Asking the debugger; see stacks.h.
#include "conformance/module/stacks.h"

#include <unistd.h>

#include "base/bounded_text.h"
#include "base/text_scanner.h"
#include "process/child_process.h"

namespace kavri::conformance {

namespace {

constexpr const char* debugger = "/usr/bin/gdb";
// Reading the symbols of a large library takes seconds.
constexpr std::chrono::seconds longestTime{15};
// A library may have thousands of threads.
constexpr std::size_t longestBytes = 65536;

bool isPartOfAStack(std::string_view line) {
    return line.starts_with("Thread ") || line.starts_with("#");
}

}  // namespace

std::string stacksOf(pid_t process) {
    if (access(debugger, X_OK) != 0) {
        return "";
    }
    process::ChildProcess gdb(process::ChildSpawn{
        .program = debugger,
        .arguments = {"-batch", "-nx", "-iex", "set debuginfod enabled off", "-p",
                      std::to_string(process), "-ex", "thread apply all backtrace 30"}});
    if (!gdb.wait(longestTime)) {
        return "";
    }
    std::string stacks;
    std::string_view rest = gdb.output();
    while (const auto line = base::takeLine(rest)) {
        if (isPartOfAStack(*line)) {
            stacks.append(*line).append("\n");
        }
    }
    return base::bounded(stacks, longestBytes);
}

}  // namespace kavri::conformance
