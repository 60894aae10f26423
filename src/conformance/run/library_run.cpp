// Finding the pieces; see library_run.h.
#include "conformance/run/library_run.h"

#include <fmt/format.h>
#include <unistd.h>

#include <ostream>

#include "base/installed_path.h"
#include "conformance/cases/case_listing.h"
#include "process/exit_status.h"

namespace kavri::conformance {

namespace {

namespace fs = std::filesystem;

fs::path installedFile(const char* place) {
    fs::path file = base::installedPath(place);
    if (access(file.c_str(), R_OK) != 0) {
        throw process::CommandFailure(
            process::ExitStatus::couldNotRun,
            fmt::format("{} is missing; build it, or install it with kavri", file.string()));
    }
    return file;
}

}  // namespace

KitFiles KitFiles::find() {
    return {installedFile("test_ipc_initiator"),
            installedFile(KAVRI_AGENT_PLACE "/libkavri-module-observer.so"),
            installedFile(KAVRI_AGENT_PLACE "/libkavri-probe.so"), installedFile("kavri-broker")};
}

LibraryRun::LibraryRun(const KitFiles& files, const std::optional<std::string>& folder,
                       const RunLimits& limits)
    : module_(files.module, folder ? std::optional<fs::path>(*folder) : std::nullopt, paths_),
      libraries_(module_.findLibraries(limits)),
      observer_(paths_.nameFor(files.observer)),
      probe_(paths_.nameFor(files.probe)) {
    libraries_.runtime = paths_.nameFor(libraries_.runtime);
}

std::vector<std::string> LibraryRun::select(const std::vector<std::string>& patterns,
                                            const RunLimits& limits,
                                            std::chrono::milliseconds loadLimit) const {
    return selectCases(module_.listCases(limits, loadLimit), patterns);
}

std::string LibraryRun::core() const {
    const fs::path normal = libraries_.core.lexically_normal();
    const fs::path relative = normal.lexically_relative(fs::current_path());
    return relative.empty() || *relative.begin() == ".." ? normal.string() : relative.string();
}

ModuleRunRequest LibraryRun::request(const fs::path& socket) const {
    ModuleRunRequest request;
    request.brokerSocket = socket;
    request.libraries = libraries_;
    request.observer = observer_;
    request.probe = probe_;
    return request;
}

CasesOutcome runUnseen(const RunContext& context, const OtherEnd& otherEnd,
                       ModuleRunRequest request, const std::vector<std::string>& cases) {
    std::ostream nowhere(nullptr);
    RunDisplay silent(nowhere, nowhere, DisplayStyle(), cases);
    CasesRun run(context.library.module(), otherEnd, context.limits, silent, context.watchdog);
    return run.run(std::move(request), cases, [](const auto&) {});
}

unsigned runRoundsUnseen(const RunContext& context, const OtherEnd& otherEnd,
                         ModuleRunRequest request, const std::vector<std::string>& cases,
                         const CasesRun::TakeRound& takeRound) {
    std::ostream nowhere(nullptr);
    RunDisplay silent(nowhere, nowhere, DisplayStyle(), cases);
    CasesRun run(context.library.module(), otherEnd, context.limits, silent, context.watchdog);
    return run.runRounds(
        std::move(request), cases, [](const auto&) {}, takeRound);
}

}  // namespace kavri::conformance
