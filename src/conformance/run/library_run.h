// One core library under test: found, checked, and ready to run under the module.
#ifndef KAVRI_CONFORMANCE_RUN_LIBRARY_RUN_H
#define KAVRI_CONFORMANCE_RUN_LIBRARY_RUN_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "conformance/module/broker_access.h"
#include "conformance/module/conformance_module.h"
#include "conformance/run/cases_run.h"

namespace kavri::conformance {

// The programs and libraries of a run, all installed with this program.
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
    // Checks the library before anything runs; throws CommandFailure where it cannot be
    // used. `folder`: where none is given, the library that the module finds.
    LibraryRun(const KitFiles& files, const std::optional<std::string>& folder,
               const RunLimits& limits);

    // The module's cases that match one of the patterns; all where there is none.
    // `loadLimit`: how long the library may take to be loaded.
    std::vector<std::string> select(const std::vector<std::string>& patterns,
                                    const RunLimits& limits,
                                    std::chrono::milliseconds loadLimit) const;

    std::string core() const;  // its file, relative to the current folder where it is below that
    const ConformanceModule& module() const { return module_; }

    // For a run with the broker at the socket; none: with the library's own broker.
    ModuleRunRequest request(const std::filesystem::path& socket) const;

  private:
    LoaderPaths paths_;
    ConformanceModule module_;
    ModuleLibraries libraries_;
    // As the loader takes them.
    std::filesystem::path observer_;
    std::filesystem::path probe_;
};

// What all runs of a library have in common. Does not own what it refers to.
struct RunContext {
    const KitFiles& files;
    const LibraryRun& library;
    const RunLimits& limits;
    WatchdogSettings watchdog;
};

// Runs the cases without output.
CasesOutcome runUnseen(const RunContext& context, const OtherEnd& otherEnd,
                       ModuleRunRequest request, const std::vector<std::string>& cases);
// The same in rounds; see CasesRun::runRounds.
unsigned runRoundsUnseen(const RunContext& context, const OtherEnd& otherEnd,
                         ModuleRunRequest request, const std::vector<std::string>& cases,
                         const CasesRun::TakeRound& takeRound);

}  // namespace kavri::conformance

#endif
