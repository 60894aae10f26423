// A run of the conformance module against the stand-in core library, as lines of text: each
// call with its arguments and result, each delivery, release and pause, which the stand-in
// records, and each check with its verdict and values, which the module logs. Both write to
// one pipe, so the order is that of the events. A line is
//
//   a call or pause           kavri_core_init() = 0
//   what a receive stored     store response1("test", "echo", "0", "CLIENT:echo 0")
//   what a callback is given  deliver event1("test", "event", "text") 0x12345678
//   a released string         release response1 payload
//   a check                   passed uuid == ruuid
//                             failed uuid == ruuid [0 != 7]
//                             fatal c != __null
//
// A check that stands on one of the lines that readers of the log know has the line number
// in front.
//
// What is expected is written as a script. There, lines that begin with "* " stand for ten
// repetitions, in which <n> is the number from 0 and <m> that from 1. "OK" is short for
// KAVRI_CORE_STATUS_NO_ERROR, "release response1" for its four strings, and an indented
// line continues the one before it.
#ifndef KAVRI_TESTS_SUPPORT_MODULE_LOG_H
#define KAVRI_TESTS_SUPPORT_MODULE_LOG_H

#include <algorithm>
#include <array>
#include <boost/test/unit_test.hpp>
#include <chrono>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "process/child_process.h"

namespace kavri::tests {

using Lines = std::vector<std::string>;

inline void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

inline void append(Lines& lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

// A line with everything that it stands for.
inline Lines written(std::string line, int n) {
    replaceAll(line, "<n>", std::to_string(n));
    replaceAll(line, "<m>", std::to_string(n + 1));
    replaceAll(line, " OK ==", " KAVRI_CORE_STATUS_NO_ERROR ==");
    if (line.starts_with("release response")) {
        return {line + " targetCategory", line + " targetIdentifier", line + " uuid",
                line + " payload"};
    }
    if (line.starts_with("release event")) {
        return {line + " targetCategory", line + " targetIdentifier", line + " payload"};
    }
    return {line};
}

inline Lines script(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with("    ")) {
            lines.back() += line.substr(4);
        } else if (!line.empty()) {
            lines.push_back(line);
        }
    }
    Lines result;
    const auto isRepeated = [](const std::string& line) { return line.starts_with("* "); };
    for (auto at = lines.begin(); at != lines.end();) {
        const auto end = std::find_if_not(at, lines.end(), isRepeated);
        for (int n = 0; n < 10 && at != end; ++n) {
            for (auto line = at; line != end; ++line) {
                append(result, written(line->substr(2), n));
            }
        }
        at = end;
        if (at != lines.end()) {
            append(result, written(*at++, 0));
        }
    }
    return result;
}

inline int linesWith(const Lines& lines, const std::string& fragment) {
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const auto& line) {
        return line.find(fragment) != std::string::npos;
    }));
}

inline bool isVerdict(const std::string& line, const std::string& verdict) {
    return line.substr(0, 12).find(verdict + " ") != std::string::npos;
}

// How many checks have this verdict.
inline int count(const Lines& lines, const std::string& verdict) {
    return static_cast<int>(std::count_if(
        lines.begin(), lines.end(), [&](const auto& line) { return isVerdict(line, verdict); }));
}

struct Run {
    Lines lines;  // as in a script
    std::string report;
    kavri::process::ExitState exit;
};

inline std::string suiteOf(const std::string& name) {
    return name == "initiatorRepeatEventCallback" ? "initiatorEvent" : "initiatorSend";
}

// The lines of the log on which the checks of the callback cases are known to be.
inline bool lineIsKnown(const std::string& line) {
    constexpr std::array<const char*, 10> known = {"265", "268", "278", "279", "316",
                                                   "319", "322", "332", "333", "335"};
    return std::find(known.begin(), known.end(), line) != known.end();
}

// What stands between two texts, and nothing where they do not both stand.
inline std::optional<std::string> between(const std::string& line, const std::string& before,
                                          const std::string& after) {
    const size_t start = line.find(before);
    const size_t end = start == std::string::npos ? start : line.rfind(after);
    if (end == std::string::npos || end < start + before.size()) {
        return std::nullopt;
    }
    return line.substr(start + before.size(), end - start - before.size());
}

// A check as the framework logs it, as a script has it:
//
//   FILE(LINE): info: check TEXT has passed
//   FILE(LINE): error: in "SUITE/CASE": check TEXT has failed VALUES
//   FILE(LINE): fatal error: in "SUITE/CASE": critical check TEXT has failed
inline std::optional<std::string> checkAsScript(const std::string& logged,
                                                const std::string& runningCase) {
    const std::optional<std::string> sourceLine =
        between(logged.substr(0, logged.find("): ") + 1), "test_ipc_initiator.cpp(", ")");
    if (!sourceLine) {
        return std::nullopt;
    }
    const std::string place = lineIsKnown(*sourceLine) ? *sourceLine + " " : "";
    if (const auto text = between(logged, "): info: check ", " has passed")) {
        return place + "passed " + *text;
    }
    const std::string in = "error: in \"" + suiteOf(runningCase) + "/" + runningCase + "\": ";
    if (const auto text = between(logged, "): fatal " + in + "critical check ", " has failed")) {
        return place + "fatal " + *text;
    }
    if (const auto text = between(logged, "): " + in + "check ", " has failed")) {
        return place + "failed " + *text + logged.substr(logged.rfind(" has failed") + 11);
    }
    return std::nullopt;
}

inline bool isRecord(const std::string& line) {
    constexpr std::array<const char*, 7> starts = {"kavri_core_", "store ", "deliver ", "release ",
                                                   "unreleased ", "sleep(", "usleep("};
    return std::any_of(starts.begin(), starts.end(),
                       [&](const char* start) { return line.starts_with(start); });
}

inline Lines asScript(std::string output) {
    // A value that ends in a newline breaks the line it is printed on.
    replaceAll(output, "\n]\n", "\\n]\n");
    Lines result;
    std::string runningCase;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (const auto entered = between(line, "Entering test case \"", "\"")) {
            runningCase = *entered;
            result.push_back("case " + runningCase);
        } else if (isRecord(line)) {
            result.push_back(line);
        } else if (const auto check = checkAsScript(line, runningCase)) {
            result.push_back(*check);
        } else if (line.find(": error: ") != std::string::npos) {
            result.push_back(line);  // in no script: makes the comparison fail
        }
    }
    return result;
}

inline Run runModule(const std::string& cases, const std::string& defect) {
    kavri::process::ChildSpawn spawn{
        .program = KAVRI_BIN_DIR "/test_ipc_initiator",
        .arguments = {"--run_test=" + cases, "--log_level=all", "--report_level=detailed",
                      "--color_output=no", "--catch_system_errors=no"},
        .environment = {{"LD_LIBRARY_PATH", KAVRI_STAND_IN_DIR},
                        {"STAND_IN_DEFECT", defect},
                        {"STAND_IN_RECORD", "/dev/stdout"}}};
#ifdef __SANITIZE_THREAD__
    // The sanitizer puts its own `sleep` before all others and calls the next one
    // from there with its eyes shut: the stand-in's must be the first, or the
    // hand-over to its thread is not seen.
    spawn.environment["LD_PRELOAD"] = KAVRI_STAND_IN_DIR "/libkavri-core-test.so";
#endif
    kavri::process::ChildProcess module(spawn);
    const auto exit = module.wait(std::chrono::seconds(30));
    BOOST_REQUIRE_MESSAGE(exit, "the module hangs");
    return {asScript(module.output()), module.error(), *exit};
}

}  // namespace kavri::tests

#endif
