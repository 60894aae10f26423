// Reading /proc; see holding.h.
#include "conformance/agent/holding.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "conformance/agent/record.h"

namespace kavri::conformance {

namespace {

namespace fs = std::filesystem;

// A thread that has ended is listed in /proc for a moment longer, even after it was joined.
// By then the kernel has set this flag in its stat.
constexpr unsigned exitingFlag = 0x4;  // PF_EXITING

bool isExiting(const fs::path& task) {
    std::ifstream file(task / "stat");
    std::string line;
    std::getline(file, line);
    // The name before the last bracket may hold anything.
    const std::size_t name = line.rfind(") ");
    if (name == std::string::npos) {
        return true;  // it is gone by now
    }
    // State, parent, group, session, terminal, its group, flags.
    constexpr int wordsBefore = 6;
    std::size_t word = name + 2;
    for (int i = 0; i < wordsBefore; ++i) {
        word = line.find(' ', word) + 1;
    }
    return (std::strtoul(line.c_str() + word, nullptr, 10) & exitingFlag) != 0;
}

std::size_t threadsNow() {
    std::error_code error;
    const fs::directory_iterator tasks("/proc/self/task", error);
    return static_cast<std::size_t>(std::count_if(
        begin(tasks), end(tasks), [](const auto& task) { return !isExiting(task.path()); }));
}

std::size_t descriptorsNow() {
    std::error_code error;
    const fs::directory_iterator entries("/proc/self/fd", error);
    // Without the descriptor with which they are counted.
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries))) - 1;
}

// At the last kavri_core_init.
Holding heldBefore;

// With a program's first thread a sanitizer starts one of its own, which must not count
// as the library's.
void runFirstThread() {
    std::thread([] {}).join();
}

// A thread that is about to end by itself has a moment for it.
Holding settled(std::size_t threadsBefore) {
    using namespace std::chrono_literals;
    const auto limit = std::chrono::steady_clock::now() + 50ms;
    Holding held = Holding::now();
    while (held.threads > threadsBefore && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(1ms);
        held = Holding::now();
    }
    return held;
}

Json asJson(const Holding& held) {
    return {{"descriptors", held.descriptors},
            {"threads", held.threads},
            {"residentKiB", held.residentKiB},
            {"mappedKiB", held.mappedKiB}};
}

}  // namespace

Holding Holding::now() {
    std::ifstream file("/proc/self/statm");
    // In pages: all, resident, shared, text, unused, data and stacks.
    std::size_t resident = 0;
    std::size_t data = 0;
    std::size_t ignored = 0;
    file >> ignored >> resident >> ignored >> ignored >> ignored >> data;
    const std::size_t pageKiB = static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
    return {threadsNow(), descriptorsNow(), resident * pageKiB, data * pageKiB};
}

void noteHolding() {
    if (!isRecording()) {
        return;
    }
    static std::once_flag isFirstThreadOver;
    std::call_once(isFirstThreadOver, runFirstThread);
    heldBefore = Holding::now();
}

void recordLeft() {
    if (!isRecording()) {
        return;
    }
    const Holding held = settled(heldBefore.threads);
    Json left = Json::object();
    const auto compare = [&left](const char* what, std::size_t now, std::size_t before) {
        if (now > before) {
            left[what] = now - before;
        }
    };
    compare("threads", held.threads, heldBefore.threads);
    compare("descriptors", held.descriptors, heldBefore.descriptors);
    if (!left.empty()) {
        tell("left", dumped(left));
    }
}

void recordRound(unsigned number) {
    static std::size_t threadsBefore = 1;
    const Holding held = settled(threadsBefore);
    threadsBefore = held.threads;
    tell("round", std::to_string(number) + " " + dumped(asJson(held)));
}

}  // namespace kavri::conformance
