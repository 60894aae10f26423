// The command line that runs one case of a run again, under the same conditions.
#ifndef KAVRI_CONFORMANCE_RUN_REPEAT_COMMAND_H
#define KAVRI_CONFORMANCE_RUN_REPEAT_COMMAND_H

#include <optional>
#include <string>

namespace kavri::conformance {

struct RunPlan;

// To be pasted into a shell. `library`: the folder, where one was named.
std::string repeatCommand(const RunPlan& plan, const std::optional<std::string>& library,
                          const std::string& caseName);

}  // namespace kavri::conformance

#endif
