// Writing the lines; see record.h.
#include "conformance/agent/record.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "base/bounded_text.h"
#include "conformance/agent/channel.h"

namespace kavri::conformance {

namespace {

// Where the lines go, and which file that was at first.
struct Channel {
    int descriptor = -1;  // -1: nothing is recorded
    struct stat file {};

    Channel() {
        const int named = descriptorIn("KAVRI_MODULE_EVENTS");
        if (fstat(named, &file) == 0) {
            descriptor = named;
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

int descriptorIn(const char* variable) {
    const std::string text = environmentVariable(variable);
    int number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : -1;
}

bool isRecording() {
    return channel().descriptor >= 0;
}

int eventsDescriptor() {
    return isRecording() && channel().isStillThere() ? channel().descriptor : -1;
}

void endProcess(int status) {
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void tell(std::string_view word, const std::string& rest) {
    if (!isRecording()) {
        return;
    }
    if (!channel().isStillThere()) {
        endProcess(channelClosedStatus);
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

Json pointerText(const void* pointer) {
    if (pointer == nullptr) {
        return nullptr;
    }
    std::ostringstream stream;
    stream << "0x" << std::hex << reinterpret_cast<std::uintptr_t>(pointer);
    return stream.str();
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

void recordBreach(std::string_view rule, unsigned number, const std::string& what) {
    tell("breach", std::to_string(number) + " " + dumped({{"rule", rule}, {"what", what}}));
}

}  // namespace kavri::conformance
