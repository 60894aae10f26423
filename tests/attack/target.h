// The broker under attack, and the figures that are read from outside of it: its
// log, its memory, its processor time.
#ifndef KAVRI_TESTS_ATTACK_TARGET_H
#define KAVRI_TESTS_ATTACK_TARGET_H

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "process/child_process.h"
#include "process/temporary_folder.h"
#include "support/attack.h"

namespace kavri::tests {

// A broker in a folder of its own that any user may enter. Throws
// std::runtime_error when it does not start.
class Target {
  public:
    // Its log goes to a file, or, where it is not read, to a pipe that fills up.
    explicit Target(const std::string& program, const std::string& config = "",
                    bool logIsRead = true);

    const std::string& socket() const { return socket_; }
    bool isAlive() { return !process_.wait(std::chrono::milliseconds(0)); }
    void signal(int number) { process_.signal(number); }
    // How long it took to end after SIGTERM; nothing where it did not in 15 s.
    std::optional<double> stopSeconds();

    double logMegabytes() const;
    // The lines of the log about connections that the broker closed.
    std::vector<std::string> closings() const;
    double residentMegabytes() const;
    double processorSeconds() const;
    // From now on.
    void limitAddressSpace(std::size_t bytes);

  private:
    process::ChildSpawn spawn(const std::string& program, const std::string& config,
                              bool logIsRead) const;

    process::TemporaryFolder folder_;
    const std::string socket_ = folder_ / "broker.sock";
    const std::string log_ = folder_ / "log";
    process::ChildProcess process_;
};

// A bystander on a thread of its own, which sends one ping after the other until a pong fails to
// come.
class PingingThread {
  public:
    explicit PingingThread(const std::string& socket);

    // The round trips since the last call.
    RoundTrips take();
    // Whether a pong failed to come.
    bool isCutOff() const { return isCutOff_; }

  private:
    void run(const std::stop_token& stopped);

    Bystander bystander_;
    std::mutex mutex_;
    RoundTrips trips_;
    std::atomic<bool> isCutOff_{false};
    std::jthread thread_;  // the last, since it uses the others
};

void printPings(const char* when, RoundTrips trips, bool isCutOff);
// The broker's memory after an attack, or that it ended.
void printEnd(Target& target, double residentMegabytesBefore);

// Makes an attack that prints its own figures, and prints those of a pinging
// bystander and the broker's memory beside. The attack goes on for as long as what
// `attack` returns exists.
template <typename MakeAttack>
void watchAttack(Target& target, const MakeAttack& attack) {
    double residentBefore = 0;
    {
        PingingThread pinging(target.socket());
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        printPings("undisturbed", pinging.take(), pinging.isCutOff());
        residentBefore = target.residentMegabytes();
        [[maybe_unused]] const auto underWay = attack();
        printPings("attacked", pinging.take(), pinging.isCutOff());
    }
    printEnd(target, residentBefore);
}

}  // namespace kavri::tests

#endif
