// Reading /proc, and counters of this process; see usage.h.
#include "usage.h"

#include <sys/resource.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

namespace kavri::bench {

namespace {

// The number behind `name` in a file of lines "name: number …".
std::uint64_t valueIn(const std::string& path, const std::string& name) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with(name + ":")) {
            return std::stoull(line.substr(name.size() + 1));
        }
    }
    return 0;
}

}  // namespace

Usage usageOf(pid_t process) {
    Usage usage;
    const std::string folder = "/proc/" + std::to_string(process);
    for (const auto& task : std::filesystem::directory_iterator(folder + "/task")) {
        std::ifstream times(task.path() / "schedstat");
        std::uint64_t processorNs = 0;
        times >> processorNs;
        usage.processorNs += processorNs;
        usage.wakeUps += valueIn(task.path() / "status", "voluntary_ctxt_switches");
    }
    usage.proportionalBytes = valueIn(folder + "/smaps_rollup", "Pss") * 1024;
    usage.residentBytes = valueIn(folder + "/smaps_rollup", "Rss") * 1024;
    return usage;
}

Usage ownUsage() {
    timespec time{};
    rusage counted{};
    ::getrusage(RUSAGE_SELF, &counted);
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    Usage usage;
    usage.processorNs = static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
                        static_cast<std::uint64_t>(time.tv_nsec);
    usage.wakeUps = static_cast<std::uint64_t>(counted.ru_nvcsw);
    return usage;
}

}  // namespace kavri::bench
