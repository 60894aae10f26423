// Reads the conformance module's log as it is written, and says what it means.
//
// The log is the test framework's human-readable one at level "all": a line
// when a case begins and ends, and one per check, each naming a place in the
// source. Bytes go in as they arrive, events come out. An entry about a failure
// may go on over several lines, because the values in it may hold line breaks;
// it is complete when a line that begins an entry follows it, or the log ends.
#ifndef KAVRI_CLI_MODULE_LOG_H
#define KAVRI_CLI_MODULE_LOG_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::cli {

struct LogEvent {
    enum class Kind {
        caseBegan,    // name
        caseEnded,    // name, time
        caseSkipped,  // name, text: why
        checkPassed,  // text: the place and the check
        checkFailed,  // text: the whole entry
        caseAborted,  // text: the whole entry, about an exception or a signal
        remark,       // text: anything else that the log says
    };
    Kind kind;
    std::string name;  // of a case, with its suites: "suite/case"
    std::string text;
    std::optional<std::chrono::microseconds> time;
};

class ModuleLog {
  public:
    // Takes in the next bytes of the log, and returns what they complete.
    std::vector<LogEvent> read(std::string_view bytes);

    // What was not complete yet, when no more will come.
    std::vector<LogEvent> finish();

  private:
    void readLine(std::string_view line);
    void readUnitBoundary(std::string_view text);
    bool readEntry(std::string_view line, std::string_view location, std::string_view text);
    void beginUnit(std::string_view type, std::string_view name);
    void emit(LogEvent event);
    void completePending();
    std::string fullName(std::string_view caseName) const;

    std::string partialLine_;
    std::vector<std::string> suites_;
    std::optional<LogEvent> pending_;  // a failure that further lines may belong to
    std::vector<LogEvent> events_;
};

}  // namespace kavri::cli

#endif
