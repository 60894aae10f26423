// One core library under the module: found, looked through, and run with a broker
// as often as somebody asks.
#ifndef KAVRI_CLI_LIBRARY_RUN_H
#define KAVRI_CLI_LIBRARY_RUN_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/broker_access.h"
#include "cli/cases_run.h"
#include "cli/conformance_module.h"

namespace kavri::cli {

// The programs and libraries that a run is made of, all installed with this one.
struct KitFiles {
    std::filesystem::path module;
    std::filesystem::path observer;
    std::filesystem::path probe;
    std::filesystem::path broker;

    // Throws CommandFailure where one is not there.
    static KitFiles find();
};

class LibraryRun {
  public:
    // Looks the library through before anything runs; throws CommandFailure where
    // it cannot be used. `folder`: none is the one that the module finds.
    LibraryRun(const KitFiles& files, const std::optional<std::string>& folder,
               const RunLimits& limits);

    // The module's cases that match one of the patterns; all where there is none.
    std::vector<std::string> select(const std::vector<std::string>& patterns,
                                    const RunLimits& limits) const;

    const std::string& name() const { return name_; }
    std::string core() const;  // its file, as it is best said in the current folder
    const ConformanceModule& module() const { return module_; }

    // For a run with the broker at the socket.
    ModuleRunRequest request(const std::filesystem::path& socket) const;

  private:
    const KitFiles& files_;
    ConformanceModule module_;
    ModuleLibraries libraries_;
    std::string name_;
};

}  // namespace kavri::cli

#endif
