// Writing the lines; see record.h.
#include "conformance/agent/record.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>

namespace kavri::conformance {

int eventsDescriptor() {
    static const int descriptor = [] {
        const std::string text = environmentVariable("KAVRI_MODULE_EVENTS");
        int number = -1;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        return error == std::errc() && end == text.data() + text.size() ? number : -1;
    }();
    return descriptor;
}

std::string environmentVariable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the module never writes its environment.
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isRecording() {
    return eventsDescriptor() >= 0;
}

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void tell(std::string_view word, const std::string& rest) {
    if (!isRecording()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const std::string line =
        std::string(word) + " " +
        std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()) + " " +
        std::to_string(gettid()) + " " + rest + "\n";
    // Short enough that a pipe takes it in one piece. A failure is ignored: there is no
    // other place to report it.
    while (write(eventsDescriptor(), line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

unsigned nextNumber() {
    static std::atomic<unsigned> last{0};
    return ++last;
}

Json shortened(const char* text, std::size_t limitBytes) {
    if (text == nullptr) {
        return nullptr;
    }
    // A line holds four texts at most, and must stay below the 4096 bytes that a
    // pipe takes undivided, although one byte may take six in JSON.
    constexpr std::size_t limitDumpedBytes = 900;
    const std::size_t length = strnlen(text, limitBytes + 1);
    for (std::size_t kept = std::min(length, limitBytes);; kept /= 2) {
        Json result = std::string(text, kept) + (kept < length ? "…" : "");
        if (dumped(result).size() <= limitDumpedBytes) {
            return result;
        }
    }
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
