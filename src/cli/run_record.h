// What is known of one run of the module: the record of each case, made of the events
// of the observer and the probe.
#ifndef KAVRI_CLI_RUN_RECORD_H
#define KAVRI_CLI_RUN_RECORD_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/module_events.h"
#include "cli/report.h"

namespace kavri::cli {

class RunRecord {
  public:
    // Takes in what the module is doing. Returns the case that this ended, if it did.
    const CaseReport* add(const ModuleEvent& event);

    // Failures outside of every case, a line each.
    const std::vector<std::string>& strayFailures() const { return strayFailures_; }

    // The case under way, if one is.
    const CaseReport* underWay() const { return underWay_ ? &*underWay_ : nullptr; }
    // The call that has been under way the longest, if one is.
    const CallReport* openCall() const;
    // When the module last did anything; 0: it has not yet.
    std::int64_t lastEventNs() const { return lastEventNs_; }

    // Ends the case under way, which did not come to its end by itself. Whatever
    // is known of it is to be filled in by the caller.
    CaseReport& cutOff(Verdict verdict, std::int64_t nowNs);

    const std::vector<CaseReport>& cases() const { return cases_; }
    // What the process held after each case, as the probe found it.
    const std::vector<nlohmann::json>& usage() const { return usage_; }

  private:
    void addToCase(const ModuleEvent& event);
    void addStray(const ModuleEvent& event);
    void addCall(const ModuleEvent& event, CallReport::Kind kind);
    void endCall(const ModuleEvent& event);
    CaseReport& end(std::int64_t nowNs);

    std::vector<CaseReport> cases_;  // those that have ended
    std::optional<CaseReport> underWay_;
    std::optional<CallReport> checkCall_;   // of the probe itself, while it is under way
    std::map<unsigned, std::size_t> open_;  // number of a call to its place in the case
    std::int64_t lastEventNs_ = 0;
    std::optional<std::string> peerMissing_;
    std::vector<std::string> strayFailures_;
    std::vector<nlohmann::json> usage_;
};

}  // namespace kavri::cli

#endif
