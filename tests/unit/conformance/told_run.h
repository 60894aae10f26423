// A run's record, and the events that the test tells it, with one microsecond between them.
#ifndef KAVRI_TESTS_UNIT_CONFORMANCE_TOLD_RUN_H
#define KAVRI_TESTS_UNIT_CONFORMANCE_TOLD_RUN_H

#include <cstdint>
#include <string>

#include "conformance/module/run_record.h"

namespace kavri::tests {

struct ToldRun {
    conformance::RunRecord record;
    std::int64_t nowNs = 0;
    int thread = 7;  // of the events from now on

    const conformance::CaseReport* tell(conformance::ModuleEvent::Kind kind,
                                        const std::string& text = "", unsigned number = 0,
                                        const nlohmann::json& data = nlohmann::json::object()) {
        nowNs += 1000;
        conformance::ModuleEvent event;
        event.kind = kind;
        event.atNs = nowNs;
        event.thread = thread;
        event.number = number;
        event.text = text;
        event.data = data;
        return record.add(event);
    }
};

}  // namespace kavri::tests

#endif
