// Writing the lines; see record.h.
#include "conformance/agent/record.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "base/bounded_text.h"
#include "conformance/agent/channel.h"

namespace kavri::conformance {

namespace {

// Where the lines go, and which file that was at first.
struct Channel {
    int descriptor = -1;  // -1: nothing is recorded
    struct stat file {};

    Channel() {
        const std::string text = environmentVariable("KAVRI_MODULE_EVENTS");
        const char* const end = text.data() + text.size();
        int number = -1;
        const auto [last, error] = std::from_chars(text.data(), end, number);
        if (error == std::errc() && last == end && fstat(number, &file) == 0) {
            descriptor = number;
        }
    }

    bool isStillThere() const {
        struct stat now {};
        return fstat(descriptor, &now) == 0 && now.st_dev == file.st_dev &&
               now.st_ino == file.st_ino;
    }
};

const Channel& channel() {
    static const Channel opened;
    return opened;
}

std::size_t entriesIn(const char* folder) {
    std::error_code error;
    const std::filesystem::directory_iterator entries(folder, error);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t residentKiB() {
    std::ifstream file("/proc/self/statm");
    std::size_t allPages = 0;
    std::size_t residentPages = 0;
    file >> allPages >> residentPages;
    return residentPages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

struct Holding {
    std::size_t threads = 0;
    std::size_t descriptors = 0;

    static Holding now() {
        // Without the descriptor with which they are counted.
        return {entriesIn("/proc/self/task"), entriesIn("/proc/self/fd") - 1};
    }
};

// At the last kavri_core_init.
Holding heldBefore;

// With a program's first thread a sanitizer starts one of its own, which must not count
// as the library's.
void runFirstThread() {
    pid_t id = 0;
    std::thread([&id] { id = gettid(); }).join();
    const std::string listed = "/proc/self/task/" + std::to_string(id);
    while (access(listed.c_str(), F_OK) == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

// A thread that was joined is still listed for a moment.
Holding settled() {
    using namespace std::chrono_literals;
    const auto limit = std::chrono::steady_clock::now() + 50ms;
    Holding held = Holding::now();
    while (held.threads > heldBefore.threads && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(1ms);
        held = Holding::now();
    }
    return held;
}

// A line holds four texts at most, and must stay below the 4096 bytes that a pipe takes
// undivided, although one byte may take six in JSON.
template <typename Cut>
Json fitting(std::size_t limitBytes, const Cut& cut) {
    constexpr std::size_t limitDumpedBytes = 900;
    for (std::size_t kept = limitBytes;; kept /= 2) {
        Json result = cut(kept);
        if (dumped(result).size() <= limitDumpedBytes) {
            return result;
        }
    }
}

}  // namespace

std::string environmentVariable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the module never writes its environment.
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isRecording() {
    return channel().descriptor >= 0;
}

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void tell(std::string_view word, const std::string& rest) {
    if (!isRecording()) {
        return;
    }
    if (!channel().isStillThere()) {
        _exit(channelClosedStatus);
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const std::string line =
        std::string(word) + " " +
        std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()) + " " +
        std::to_string(gettid()) + " " + rest + "\n";
    // Short enough that a pipe takes it in one piece. A failure is ignored: there is no
    // other place to report it.
    while (write(channel().descriptor, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

unsigned nextNumber() {
    static std::atomic<unsigned> last{0};
    return ++last;
}

Json shortened(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t length = strnlen(text, textLimitBytes + 1);
    if (length <= textLimitBytes) {
        return shortened(std::string(text, length));
    }
    return fitting(textLimitBytes,
                   [text](std::size_t kept) { return std::string(text, kept) + "…"; });
}

Json shortened(const std::string& text, std::size_t limitBytes) {
    return fitting(limitBytes, [&text](std::size_t kept) { return base::bounded(text, kept); });
}

void recordCall(unsigned number, const char* function, const Json& arguments) {
    tell("call", std::to_string(number) + " " + function + " " + dumped(arguments));
}

void recordReturn(unsigned number, const Json& result) {
    tell("return", std::to_string(number) + " " + dumped(result));
}

void recordDeliver(unsigned number, const char* callback, const Json& arguments) {
    tell("deliver", std::to_string(number) + " " + callback + " " + dumped(arguments));
}

void recordDelivered(unsigned number) {
    tell("delivered", std::to_string(number));
}

void recordFault(std::string_view name, unsigned number, std::string_view did) {
    tell("fault", std::string(name) + " " + dumped({{"number", number}, {"did", did}}));
}

void recordPeer(bool isThere, const Json& details) {
    tell("peer", std::string(isThere ? "ok " : "missing ") + dumped(details));
}

void noteUsage() {
    if (!isRecording()) {
        return;
    }
    static std::once_flag isFirstThreadOver;
    std::call_once(isFirstThreadOver, runFirstThread);
    heldBefore = Holding::now();
}

void recordUsage() {
    if (!isRecording()) {
        return;
    }
    const Holding held = settled();
    tell("usage", dumped({{"descriptors", held.descriptors},
                          {"threads", held.threads},
                          {"residentKiB", residentKiB()}}));
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

}  // namespace kavri::conformance
