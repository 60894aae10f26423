// Reads the conformance module's log, which holds what went wrong.
//
// The log is the test framework's human-readable one at level "error": an entry
// per failed check or exception, each with its place in the source, its case
// and the values. An entry may go on over several lines, because the values may
// hold line breaks. So it is complete when a line that begins an entry follows,
// or when somebody knows that no more belongs to it.
#ifndef KAVRI_CLI_MODULE_LOG_H
#define KAVRI_CLI_MODULE_LOG_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::cli {

struct LogEntry {
    std::string caseName;  // "suite/case"; empty: the entry is about no case
    std::string text;      // all of it, as it stands in the log
};

class ModuleLog {
  public:
    // Takes in the next bytes of the log, and returns what they complete.
    std::vector<LogEntry> read(std::string_view bytes);

    // No more will come about this case; what that completes.
    std::vector<LogEntry> complete(std::string_view caseName);

    // No more will come at all.
    std::vector<LogEntry> finish();

  private:
    void readLine(std::string_view line);
    void emitPending();

    std::string partialLine_;
    std::optional<LogEntry> pending_;  // that further lines may belong to
    std::vector<LogEntry> entries_;
};

}  // namespace kavri::cli

#endif
