// The options of `kavri monitor`; see monitor_command.h.
#include "cli/monitor_command.h"

#include <pwd.h>

#include <charconv>
#include <cstdint>
#include <limits>

#include "base/command_line.h"

namespace kavri::cli {

namespace {

// By name or number.
uid_t userNamed(const std::string& text) {
    uid_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size()) {
        return number;
    }
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread.
    const passwd* known = ::getpwnam(text.c_str());
    if (known == nullptr) {
        throw CLI::ValidationError("--user", "there is no user \"" + text + "\" here");
    }
    return known->pw_uid;
}

// An option whose value need not be given.
template <typename Value>
CLI::Option* addOptional(CLI::App& command, const std::string& name, std::optional<Value>& value,
                         const std::string& description) {
    return command.add_option_function<Value>(
        name, [&value](const Value& given) { value = given; }, description);
}

}  // namespace

void describeMonitor(CLI::App& command, management::MonitorOptions& options) {
    command
        .add_option("--socket", options.socket,
                    "The broker's socket; otherwise $KAVRI_BROKER and the usual places")
        ->type_name("PATH")
        ->check(base::notEmpty());
    addOptional(command, "--category", options.category, "Only what belongs to this category")
        ->type_name("NAME");
    addOptional(command, "--process", options.process, "Only what this process sends or receives")
        ->type_name("PID")
        ->check(CLI::Range(1, std::numeric_limits<pid_t>::max()));
    command
        .add_option_function<std::string>(
            "--user", [&options](const std::string& text) { options.user = userNamed(text); },
            "Only what this user, by name or number, sends or receives")
        ->type_name("USER");
    addOptional(command, "--connection", options.connection,
                "Only what this connection sends or receives, by its number")
        ->type_name("NUMBER");
    command
        .add_option("--payload", options.payloadBytes,
                    "Show the first so many bytes of each payload; only sizes unless given")
        ->type_name("BYTES")
        ->check(CLI::Range(1U, 4096U));
    command.add_flag("--json", options.json, "Print an object of JSON on each line");
    addOptional(command, "--count", options.count, "End after so many lines")
        ->type_name("N")
        ->check(CLI::Range(std::uint64_t{1}, std::numeric_limits<std::uint64_t>::max()));
    addOptional(command, "--timeout", options.timeoutSeconds, "End after this time")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.01, 1e9));
    command.footer(
        "Root and the broker's own user may monitor, and whom its configuration names in\n"
        "'manage'. The broker never waits for a monitor: one that does not keep up loses lines,\n"
        "and is told how many. When the broker ends, the next one is waited for.\n\n"
        "Exit status: 0 interrupted, or done; 1 the broker refuses; 2 the time was over before\n"
        "--count lines, or no answer; 3 no broker there; 64 the command line is wrong; 74 a line\n"
        "could not be printed.\n\n"
        "Examples:\n"
        "  kavri monitor\n"
        "  kavri monitor --category test --payload 200\n"
        "  kavri monitor --json | jq 'select(.elapsed_us > 1000)'");
}

}  // namespace kavri::cli
