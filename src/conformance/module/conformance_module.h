// The conformance module as a program: which core library it would run with,
// which cases it has, and how to start it.
#ifndef KAVRI_CONFORMANCE_MODULE_CONFORMANCE_MODULE_H
#define KAVRI_CONFORMANCE_MODULE_CONFORMANCE_MODULE_H

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conformance/cases/requirements.h"
#include "conformance/loading/loader_paths.h"
#include "conformance/module/run_limits.h"
#include "process/child_process.h"

namespace kavri::conformance {

// The file of a core library.
inline constexpr std::string_view coreLibrary = "libkavri-core-test.so";

// The libraries with which the loader runs the module.
struct ModuleLibraries {
    std::filesystem::path core;
    // A sanitizer's, which must be loaded before anything else; or empty.
    std::filesystem::path runtime;
};

// One run of the module.
struct ModuleRunRequest {
    std::filesystem::path brokerSocket;  // empty: the library finds its broker by itself
    std::vector<std::string> cases;      // none: all
    std::vector<std::string> userArguments;
    ModuleLibraries libraries;
    // The two libraries that write what module_events.h reads.
    std::filesystem::path observer;
    std::filesystem::path probe;
    std::string fault;           // for the probe to inject; empty: none
    unsigned rounds = 1;         // how often the process runs the cases
    bool warningsFail = false;   // a case with a warning is no pass
    Level level = Level::may;    // that the cases are judged by
    int eventsDescriptor = -1;   // where these two write
    int releaseDescriptor = -1;  // what the observer waits for between cases; -1: nothing
};

class ConformanceModule {
  public:
    // `libraryFolder`: where the core library under test is; none: the one
    // that the module finds by itself. Throws CommandFailure where there is no core
    // library in the folder, or its file cannot be one.
    ConformanceModule(std::filesystem::path program,
                      const std::optional<std::filesystem::path>& libraryFolder,
                      LoaderPaths& paths);

    // Throws CommandFailure when there is no core library, not in the folder
    // asked for, it cannot be loaded, or it lacks functions. Asks the loader
    // alone: no code of the library is run.
    ModuleLibraries findLibraries(const RunLimits& limits) const;

    // The names of all cases, "suite/case", in the order of the module. The
    // first step that runs the library's code: throws CommandFailure where the library
    // cannot be loaded and unloaded, or not within the time.
    std::vector<std::string> listCases(const RunLimits& limits,
                                       std::chrono::milliseconds loadLimit) const;

    process::ChildSpawn runSpawn(const ModuleRunRequest& request) const;

  private:
    process::ChildSpawn baseSpawn() const;
    std::filesystem::path coreFile() const;

    std::filesystem::path program_;
    std::optional<std::filesystem::path> libraryFolder_;
    std::filesystem::path folderForLoader_;
};

}  // namespace kavri::conformance

#endif
