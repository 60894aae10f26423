// The broker under attack; see target.h.
#include "target.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace kavri::tests {

using Clock = std::chrono::steady_clock;

Target::Target(const std::string& program, const std::string& config, bool logIsRead)
    : process_(spawn(program, config, logIsRead)) {
    ::chmod(folder_.path().c_str(), 0755);
    const auto canConnect = [this] {
        try {
            RawPeer peer(socket_, "initiator");
            return true;
        } catch (const std::exception&) {
            return false;
        }
    };
    if (!eventually([&] { return canConnect() || !isAlive(); }) || !isAlive()) {
        throw std::runtime_error(program + " does not start");
    }
}

// Started by a shell, since a child's standard error is a pipe or this process' own.
process::ChildSpawn Target::spawn(const std::string& program, const std::string& config,
                                  bool logIsRead) const {
    const std::string configFile = folder_ / "broker.toml";
    std::ofstream(configFile) << config;
    std::string command = R"(exec "$0" --socket "$1" --config "$2")";
    command += logIsRead ? R"( 2> "$3")" : "";
    return {.program = "/bin/sh", .arguments = {"-c", command, program, socket_, configFile, log_}};
}

std::optional<double> Target::stopSeconds() {
    const Clock::time_point begin = Clock::now();
    process_.signal(SIGTERM);
    if (!process_.wait(std::chrono::seconds(15))) {
        return std::nullopt;
    }
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double Target::logMegabytes() const {
    std::error_code none;
    const auto bytes = std::filesystem::file_size(log_, none);
    return none ? 0 : static_cast<double>(bytes) / 1e6;
}

std::vector<std::string> Target::closings() const {
    std::vector<std::string> lines;
    std::ifstream log(log_);
    for (std::string line; std::getline(log, line);) {
        if (line.find("closing") != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}

double Target::residentMegabytes() const {
    std::ifstream file("/proc/" + std::to_string(process_.pid()) + "/statm");
    double pages = 0;
    double residentPages = 0;
    file >> pages >> residentPages;
    return residentPages * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

double Target::processorSeconds() const {
    std::ifstream file("/proc/" + std::to_string(process_.pid()) + "/stat");
    std::string line;
    std::getline(file, line);
    // The fields behind the name, from the third on; the 14th and 15th are the times.
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    double userTicks = 0;
    double systemTicks = 0;
    fields >> userTicks >> systemTicks;
    return (userTicks + systemTicks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

void Target::limitAddressSpace(std::size_t bytes) {
    const rlimit limit{bytes, bytes};
    if (::prlimit(process_.pid(), RLIMIT_AS, &limit, nullptr) != 0) {
        throw std::system_error(errno, std::generic_category(), "prlimit");
    }
}

PingingThread::PingingThread(const std::string& socket)
    : bystander_(socket), thread_([this](const std::stop_token& stopped) { run(stopped); }) {}

void PingingThread::run(const std::stop_token& stopped) {
    try {
        while (!stopped.stop_requested()) {
            const std::chrono::nanoseconds trip = bystander_.ping();
            {
                const std::lock_guard lock(mutex_);
                trips_.times.push_back(trip);
            }
        }
    } catch (const std::exception&) {
        isCutOff_ = true;
    }
}

RoundTrips PingingThread::take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(trips_, {});
}

void printPings(const char* when, RoundTrips trips, bool isCutOff) {
    if (trips.times.empty()) {
        std::printf("  %-12s no pong\n", when);
        return;
    }
    std::printf("  %-12s %zu pings, median %.1f us, longest %.1f ms%s\n", when, trips.times.size(),
                trips.medianUs(), trips.longestMs(), isCutOff ? ", then no pong" : "");
}

// The broker gives memory back to the system in a pause of a second.
void printEnd(Target& target, double residentMegabytesBefore) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    if (target.isAlive()) {
        std::printf("  resident     %.1f MB before, %.1f MB after the attack\n",
                    residentMegabytesBefore, target.residentMegabytes());
        target.stopSeconds();
    } else {
        std::printf("  the broker ended\n");
    }
}

}  // namespace kavri::tests
