// The conformance module as a program: which core library it would run with,
// which cases it has, and how to start it.
#ifndef KAVRI_CLI_CONFORMANCE_MODULE_H
#define KAVRI_CLI_CONFORMANCE_MODULE_H

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "cli/child_process.h"
#include "cli/run_limits.h"

namespace kavri::cli {

class ConformanceModule {
  public:
    // `libraryFolder`: where the core library under test is; none: the one
    // that the module finds by itself. Throws CommandFailure when the folder
    // is not there, or cannot be handed to the loader.
    ConformanceModule(std::filesystem::path program,
                      std::optional<std::filesystem::path> libraryFolder);

    // The core library that the loader puts under the module. Throws
    // CommandFailure when there is none, not in the folder asked for, it cannot
    // be loaded, or it lacks functions. Asks the loader alone: no code of the
    // library is run.
    std::filesystem::path findLibrary(const RunLimits& limits) const;

    // The names of all cases, "suite/case", in the order of the module. The
    // first step that runs the library's code: throws CommandFailure when
    // loading it ends the module.
    std::vector<std::string> listCases(const RunLimits& limits) const;

    // How to run these cases (all where there are none), with the log written
    // to the descriptor.
    ChildSpawn runSpawn(const std::filesystem::path& brokerSocket,
                        const std::vector<std::string>& cases, int logDescriptor,
                        const std::vector<std::string>& userArguments) const;

  private:
    ChildSpawn baseSpawn() const;

    std::filesystem::path program_;
    std::optional<std::filesystem::path> libraryFolder_;
};

}  // namespace kavri::cli

#endif
