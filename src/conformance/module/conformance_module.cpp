// Asking the loader and the module itself; see conformance_module.h.
//
// With LD_TRACE_LOADED_OBJECTS the loader resolves the libraries and every symbol as in a
// real start, prints what it found and what is missing, and ends without running anything.
#include "conformance/module/conformance_module.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "base/bounded_text.h"
#include "base/environment.h"
#include "conformance/cases/case_listing.h"
#include "conformance/loading/library_file.h"
#include "conformance/loading/loader_report.h"
#include "conformance/module/module_arguments.h"
#include "process/exit_status.h"
#include "process/exit_text.h"

namespace kavri::conformance {

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr std::string_view interfacesLibrary = "libkavri-interfaces.so";

[[noreturn]] void cannotRun(const std::string& line) {
    throw process::CommandFailure(process::ExitStatus::couldNotRun, line);
}

// Of what a program printed.
constexpr std::size_t longestQuoteBytes = 400;

std::string lastLine(const std::string& text) {
    const std::string_view trimmed(text.data(), text.find_last_not_of('\n') + 1);
    return base::bounded(trimmed.substr(trimmed.rfind('\n') + 1), longestQuoteBytes);
}

// The path of a library, whatever version its name has; empty where the module does not
// use it.
fs::path pathOf(std::string_view name, const LoaderReport& report) {
    const auto library = report.found.lower_bound(std::string(name));
    const bool isIt = library != report.found.end() && library->first.starts_with(name);
    return isIt ? library->second : "";
}

fs::path sanitizerRuntimeIn(const LoaderReport& report) {
    const fs::path address = pathOf("libasan.so", report);
    return address.empty() ? pathOf("libtsan.so", report) : address;
}

void checkIsComplete(const LoaderReport& report, const fs::path& core) {
    if (!report.notFound.empty()) {
        cannotRun(fmt::format("the loader finds no {}; give --library the folder that holds it",
                              fmt::join(report.notFound, ", ")));
    }
    if (!report.undefined.empty()) {
        cannotRun(fmt::format("{} lacks {}; the module needs every function that it calls",
                              core.string(), fmt::join(report.undefined, ", ")));
    }
}

void checkIsFrom(const fs::path& library, const fs::path& folder) {
    std::error_code error;
    if (!fs::equivalent(library.parent_path(), folder, error)) {
        cannotRun(
            fmt::format("the module takes its core library from {} and not from {}; link it "
                        "without a fixed library path",
                        library.string(), folder.string()));
    }
}

}  // namespace

ConformanceModule::ConformanceModule(fs::path program, const std::optional<fs::path>& libraryFolder,
                                     LoaderPaths& paths)
    : program_(std::move(program)) {
    if (!libraryFolder) {
        return;
    }
    std::error_code error;
    const fs::path folder = fs::canonical(*libraryFolder, error);
    if (error || !fs::is_directory(folder, error)) {
        cannotRun(fmt::format("no folder {}; give --library the folder that holds {}",
                              libraryFolder->string(), coreLibrary));
    }
    if (!fs::exists(fs::symlink_status(folder / coreLibrary, error))) {
        cannotRun(fmt::format("no {} in {}; give --library the folder that holds it", coreLibrary,
                              folder.string()));
    }
    for (const std::string_view name : {coreLibrary, interfacesLibrary}) {
        const fs::path file = folder / name;
        const bool isThere = fs::exists(fs::symlink_status(file, error));
        if (const std::string why = isThere ? whyNoLibrary(file) : ""; !why.empty()) {
            cannotRun(fmt::format("{} {}", file.string(), why));
        }
    }
    libraryFolder_ = folder;
    folderForLoader_ = paths.nameFor(folder);
}

// As far as it is known before the loader has searched for it.
fs::path ConformanceModule::coreFile() const {
    return libraryFolder_ ? *libraryFolder_ / coreLibrary : fs::path(coreLibrary);
}

process::ChildSpawn ConformanceModule::baseSpawn() const {
    process::ChildSpawn spawn;
    spawn.program = program_;
    for (const std::string& variable : reservedVariables()) {
        spawn.environment[variable] = std::nullopt;
    }
    if (libraryFolder_) {
        const std::string further = base::environmentVariable("LD_LIBRARY_PATH");
        spawn.environment["LD_LIBRARY_PATH"] =
            folderForLoader_.string() + (further.empty() ? "" : ":" + further);
    }
    return spawn;
}

ModuleLibraries ConformanceModule::findLibraries(const RunLimits& limits) const {
    process::ChildSpawn spawn = baseSpawn();
    spawn.environment["LD_TRACE_LOADED_OBJECTS"] = "1";
    spawn.environment["LD_WARN"] = "1";
    spawn.environment["LD_BIND_NOW"] = "1";
    spawn.interruptDescriptor = limits.signals().descriptor();
    process::ChildProcess loader(spawn);
    const std::optional<process::ExitState> exit = loader.wait(limits.left());
    if (!exit) {
        limits.giveUp("before the libraries were checked");
    }
    if (!exit->succeeded()) {
        cannotRun(fmt::format("the module cannot be loaded{}: {}",
                              libraryFolder_ ? " with " + libraryFolder_->string() : "",
                              lastLine(loader.error())));
    }
    const LoaderReport report =
        parseLoaderReport(loader.output() + loader.error(), program_.string());
    checkIsComplete(report, coreFile());
    const fs::path core = pathOf(coreLibrary, report);
    if (libraryFolder_) {
        checkIsFrom(core, *libraryFolder_);
    }
    return {libraryFolder_ ? coreFile() : core, sanitizerRuntimeIn(report)};
}

std::vector<std::string> ConformanceModule::listCases(const RunLimits& limits,
                                                      milliseconds loadLimit) const {
    process::ChildSpawn spawn = baseSpawn();
    // Unlike the plain list, DOT cannot be confused with what a library prints on loading.
    spawn.arguments = {"--list_content=DOT"};
    spawn.interruptDescriptor = limits.signals().descriptor();
    process::ChildProcess module(spawn);
    const std::optional<process::ExitState> exit = module.wait(std::min(loadLimit, limits.left()));
    std::vector<std::string> cases = casesInListing(module.error());
    // The module has listed its cases by the time at which the library is unloaded.
    const char* step = cases.empty() ? "loaded" : "unloaded";
    if (!exit && (limits.signals().received() || limits.left() <= milliseconds(0))) {
        limits.giveUp(
            fmt::format("before any case, while {} was being {}", coreFile().string(), step));
    }
    if (!exit) {
        cannotRun(fmt::format(
            "{} hangs when it is {}: that took more than {:.1f} s, before any "
            "case",
            coreFile().string(), step, std::chrono::duration<double>(loadLimit).count()));
    }
    if (!exit->succeeded()) {
        const std::string reason = cases.empty() ? lastLine(module.error()) : "";
        cannotRun(fmt::format("{} fails when it is {}: the module {} before any case{}",
                              coreFile().string(), step, process::exitText(*exit),
                              reason.empty() ? "" : ". It printed: " + reason));
    }
    if (cases.empty()) {
        cannotRun(fmt::format("{} has no cases; is it the conformance module?", program_.string()));
    }
    return cases;
}

process::ChildSpawn ConformanceModule::runSpawn(const ModuleRunRequest& request) const {
    process::ChildSpawn spawn = baseSpawn();
    if (!request.brokerSocket.empty()) {
        spawn.environment["KAVRI_BROKER"] = request.brokerSocket.string();
    }
    spawn.environment["KAVRI_MODULE_EVENTS"] = std::to_string(request.eventsDescriptor);
    spawn.environment["KAVRI_MODULE_ROUNDS"] = std::to_string(request.rounds);
    spawn.environment["KAVRI_PROBE_CHECK_PEER"] = "1";
    spawn.environment["KAVRI_PROBE_FAULT"] =
        request.fault.empty() ? std::nullopt : std::optional(request.fault);
    std::string preloaded;
    for (const std::string& library :
         {request.libraries.runtime.string(), request.observer.string(), request.probe.string(),
          base::environmentVariable("LD_PRELOAD")}) {
        preloaded += (preloaded.empty() || library.empty() ? "" : ":") + library;
    }
    spawn.environment["LD_PRELOAD"] = preloaded;
    spawn.inheritedDescriptors = {request.eventsDescriptor};
    if (request.releaseDescriptor >= 0) {
        spawn.environment["KAVRI_MODULE_RELEASE"] = std::to_string(request.releaseDescriptor);
        spawn.inheritedDescriptors.push_back(request.releaseDescriptor);
    }
    spawn.arguments = moduleCommandLine(request.cases, request.userArguments);
    return spawn;
}

}  // namespace kavri::conformance
