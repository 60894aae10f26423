// A message server of a test, on a free port of this machine, with its files in the test's
// own folder.
#ifndef KAVRI_TESTS_SUPPORT_NATS_SERVER_H
#define KAVRI_TESTS_SUPPORT_NATS_SERVER_H

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

#include "process/child_process.h"
#include "support/waiting.h"

namespace kavri::tests {

class NatsServer {
  public:
    // `settings` as in the server's configuration file.
    explicit NatsServer(const std::filesystem::path& folder, std::string settings = {})
        : file_(folder / "nats-server.conf"), settings_(std::move(settings)) {
        start();
    }

    // Comes back on the port that it had.
    void start() {
        std::ofstream(file_) << "listen: \"127.0.0.1:" << (port_.empty() ? "-1" : port_) << "\"\n"
                             << settings_;
        process_.emplace(
            process::ChildSpawn{.program = KAVRI_NATS_SERVER, .arguments = {"-c", file_.string()}});
        if (!process_->waitForError("Server is ready", patience)) {
            throw std::runtime_error("nats-server does not start: " + process_->error());
        }
        const std::string text = "client connections on 127.0.0.1:";
        const std::string& log = process_->error();
        const std::size_t begin = log.find(text) + text.size();
        port_ = log.substr(begin, log.find('\n', begin) - begin);
    }
    void change(std::string settings) { settings_ = std::move(settings); }
    void kill() { process_.reset(); }
    void suspend() { process_->signal(SIGSTOP); }
    void resume() { process_->signal(SIGCONT); }

    const std::string& port() const { return port_; }
    std::string address(const std::string& scheme = "nats") const {
        return scheme + "://127.0.0.1:" + port_;
    }

  private:
    std::filesystem::path file_;
    std::string settings_;
    std::string port_;
    std::optional<process::ChildProcess> process_;
};

}  // namespace kavri::tests

#endif
