// The real broker and the real test service as processes of a test's own, on a
// socket in the test's folder. They are ready when the constructor returns, and
// gone when the object is.
#ifndef KAVRI_TESTS_SUPPORT_SERVICE_PROCESS_H
#define KAVRI_TESTS_SUPPORT_SERVICE_PROCESS_H

#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "process/child_process.h"
#include "support/waiting.h"

namespace kavri::tests {

// A program that says on standard error when it is ready.
class ServiceProcess {
  public:
    explicit ServiceProcess(process::ChildSpawn spawn)
        : spawn_(std::move(spawn)), process_(spawn_) {
        waitUntilReady();
    }

    pid_t pid() const { return process_.pid(); }

    // Ends it without giving it a chance to say anything.
    void kill() {
        process_.signal(SIGKILL);
        process_.wait(patience);
    }
    // Asks it to stop, as whoever runs it would; true when it left with status 0.
    bool stop() {
        process_.signal(SIGTERM);
        const auto exit = process_.wait(patience);
        return exit && exit->succeeded();
    }
    // Starts it anew, with what it was started with.
    void restart() {
        kill();
        process_ = process::ChildProcess(spawn_);
        waitUntilReady();
    }

    // From the return of freeze to thaw it does nothing at all.
    void freeze() {
        process_.signal(SIGSTOP);
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(pid()), &info, WSTOPPED) != 0) {
            throw std::runtime_error("the process did not stop");
        }
    }
    void thaw() { process_.signal(SIGCONT); }
    void signal(int number) { process_.signal(number); }
    // Nothing where it goes on.
    std::optional<process::ExitState> waitForEnd() { return process_.wait(patience); }

    // Whether it has nothing to do just now.
    bool sleeps() const { return stateIn("/proc/" + std::to_string(pid()) + "/stat") == "S"; }

    // What it wrote to standard error since it was started.
    std::string log() {
        process_.drain();
        return process_.error();
    }
    bool logs(const std::string& text) { return process_.waitForError(text, patience); }

    std::size_t descriptors() const {
        const std::filesystem::path folder = "/proc/" + std::to_string(pid()) + "/fd";
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(folder), {}));
    }

  private:
    void waitUntilReady() {
        if (!logs("ready")) {
            throw std::runtime_error("did not become ready: " + log());
        }
    }

    process::ChildSpawn spawn_;
    process::ChildProcess process_;
};

struct BrokerSettings {
    bool testService = false;
    std::string config{};  // the text of a configuration file
    std::map<std::string, std::optional<std::string>> environment{};
};

// The file that a broker on this socket is configured by, where it is.
inline void writeConfig(const std::filesystem::path& socket, const std::string& config) {
    std::ofstream(socket.string() + ".toml") << config;
}

class BrokerProcess : public ServiceProcess {
  public:
    explicit BrokerProcess(const std::filesystem::path& socket, const BrokerSettings& settings = {})
        : ServiceProcess(spawn(socket, settings)) {}

    static process::ChildSpawn spawn(const std::filesystem::path& socket,
                                     const BrokerSettings& settings = {}) {
        std::vector<std::string> arguments = {"--socket", socket};
        if (settings.testService) {
            arguments.emplace_back("--test-service");
        }
        if (!settings.config.empty()) {
            writeConfig(socket, settings.config);
            arguments.insert(arguments.end(), {"--config", socket.string() + ".toml"});
        }
        return {.program = KAVRI_BIN_DIR "/kavri-broker",
                .arguments = std::move(arguments),
                .environment = settings.environment};
    }
};

class TestServiceProcess : public ServiceProcess {
  public:
    explicit TestServiceProcess(const std::filesystem::path& socket)
        : ServiceProcess(spawn(socket)) {}

    static process::ChildSpawn spawn(const std::filesystem::path& socket) {
        // What the library in it has to say is looked at.
        return {.program = KAVRI_BIN_DIR "/kavri-test-service",
                .arguments = {"--socket", socket},
                .environment = {{"KAVRI_LOG", std::nullopt}}};
    }
};

}  // namespace kavri::tests

#endif
