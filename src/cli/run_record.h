// What is known of a run: which cases were begun and ended, with how many
// checks, what went wrong in them, and how far they got.
#ifndef KAVRI_CLI_RUN_RECORD_H
#define KAVRI_CLI_RUN_RECORD_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "cli/module_events.h"
#include "cli/module_log.h"

namespace kavri::cli {

// The first three are the module's; the others mean that the case was cut off.
enum class Verdict { passed, failed, aborted, crashed, hung, stopped };

struct CaseRecord {
    std::string name;
    Verdict verdict = Verdict::passed;
    unsigned checksPassed = 0;
    unsigned checksFailed = 0;
    std::chrono::microseconds time{0};
    std::vector<std::string> failures;  // as the log words them
    std::string reached;                // the place of the check made last; empty: none yet
    std::string lastPassed;             // the place of the one that passed last

    unsigned checks() const { return checksPassed + checksFailed; }
    // Whether the case came to its own end.
    bool isComplete() const { return verdict <= Verdict::aborted; }
};

class RunRecord {
  public:
    using Clock = std::chrono::steady_clock;

    // Takes in what the module is doing. Returns the case that this ended, if it did.
    const CaseRecord* add(const ModuleEvent& event, Clock::time_point now);

    // Takes in what the log says; it is a failure of the case that it names, and
    // stands there when that case has ended.
    void add(const LogEntry& entry) { unclaimed_.push_back(entry); }
    // What the log said that was about no case that has ended.
    const std::vector<LogEntry>& unclaimed() const { return unclaimed_; }

    // The case under way, if one is.
    const CaseRecord* underWay() const { return underWay_ ? &*underWay_ : nullptr; }

    // Ends the case under way, which did not come to its end by itself.
    const CaseRecord& cutOff(Verdict verdict, Clock::time_point now);

    const std::vector<CaseRecord>& cases() const { return cases_; }
    unsigned checksPassed() const;
    unsigned checksFailed() const;
    unsigned casesPassed() const;

  private:
    const CaseRecord& end(std::chrono::microseconds time);

    std::vector<CaseRecord> cases_;  // those that have ended
    std::optional<CaseRecord> underWay_;
    Clock::time_point begun_;
    std::vector<LogEntry> unclaimed_;
};

}  // namespace kavri::cli

#endif
