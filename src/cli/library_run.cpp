// Finding the pieces; see library_run.h.
#include "cli/library_run.h"

#include <fmt/format.h>
#include <unistd.h>

#include "cli/case_listing.h"
#include "cli/exit_status.h"

namespace kavri::cli {

namespace {

namespace fs = std::filesystem;

// A file that belongs to this program, by its place relative to it.
fs::path installedFile(const char* place) {
    fs::path file = fs::read_symlink("/proc/self/exe").parent_path() / place;
    file = file.lexically_normal();
    if (access(file.c_str(), R_OK) != 0) {
        throw CommandFailure(
            ExitStatus::couldNotRun,
            fmt::format("{} is missing; build it, or install it with kavri", file.string()));
    }
    return file;
}

}  // namespace

KitFiles KitFiles::find() {
    return {installedFile("test_ipc_initiator"),
            installedFile("../lib/libkavri-module-observer.so"),
            installedFile("../lib/libkavri-probe.so"), installedFile("kavri-broker")};
}

LibraryRun::LibraryRun(const KitFiles& files, const std::optional<std::string>& folder,
                       const RunLimits& limits)
    : files_(files),
      module_(files.module, folder ? std::optional<fs::path>(*folder) : std::nullopt),
      libraries_(module_.findLibraries(limits)),
      name_(folder.value_or(libraries_.core.filename().string())) {}

std::vector<std::string> LibraryRun::select(const std::vector<std::string>& patterns,
                                            const RunLimits& limits) const {
    return selectCases(module_.listCases(limits), patterns);
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
    request.observer = files_.observer;
    request.probe = files_.probe;
    return request;
}

}  // namespace kavri::cli
