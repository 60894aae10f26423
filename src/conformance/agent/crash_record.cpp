// Writing the last lines of the record; see crash_record.h.
//
// What runs in the handler allocates nothing, takes no lock and calls no function that is not
// async-signal-safe, backtrace() apart, which is so once it has been called before: the
// unwinder is loaded then, and finds its tables without a lock.
#include "conformance/agent/crash_record.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <signal.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "conformance/agent/record.h"

namespace kavri::conformance {

namespace {

constexpr std::array crashSignals = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, SIGTRAP};

// What these did before.
std::array<struct sigaction, crashSignals.size()> previous;

// A child that the library forked is not the module.
pid_t recordedProcess = 0;
std::array<char, 1024> program{};

// A line, put together without allocating. What does not fit is left out.
class Line {
  public:
    explicit Line(std::string_view word) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        add(word).add(" ").add(now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec);
        add(" ").add(gettid()).add(" ");
    }

    Line& add(std::string_view text) {
        const std::size_t length = std::min(text.size(), bytes_.size() - used_);
        std::copy_n(text.data(), length, bytes_.data() + used_);
        used_ += length;
        return *this;
    }
    Line& add(std::int64_t number, int base = 10) {
        std::array<char, 24> digits{};
        char* const end =
            std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
        return add({digits.data(), static_cast<std::size_t>(end - digits.data())});
    }
    // Within quotes of JSON.
    Line& addPath(std::string_view path) {
        for (const char c : path) {
            add(c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20
                    ? std::string_view("?")
                    : std::string_view(&c, 1));
        }
        return *this;
    }
    std::size_t room() const { return bytes_.size() - used_; }

    void write() {
        if (const int descriptor = eventsDescriptor(); descriptor >= 0) {
            static_cast<void>(!::write(descriptor, bytes_.data(), used_));
        }
    }

  private:
    std::array<char, 4000> bytes_{};  // a pipe takes no longer line in one piece
    std::size_t used_ = 0;
};

// The program or library that holds the address, and where it begins.
struct Place {
    std::string_view file;
    std::uintptr_t begin = 0;
    const void* object = nullptr;
};

Place placeOf(const void* address) {
    dl_find_object found{};
    if (_dl_find_object(const_cast<void*>(address), &found) != 0) {
        return {};
    }
    const char* name = found.dlfo_link_map->l_name;
    return {*name == '\0' ? program.data() : name, found.dlfo_link_map->l_addr,
            found.dlfo_link_map};
}

// The frames from the one with the address `from` on, or all where it is not among them.
// Those of the probe, which stands between module and library, are left out.
void writeStack(const void* from) {
    std::array<void*, 64> frames{};
    const int count = backtrace(frames.data(), frames.size());
    const auto end = frames.begin() + std::max(count, 0);
    auto begin = std::find(frames.begin(), end, from);
    begin = begin == end ? frames.begin() : begin;
    static const auto own = placeOf(reinterpret_cast<const void*>(&writeStack)).object;
    Line line("stack");
    line.add(R"({"frames":[)");
    bool isFirst = true;
    for (auto frame = begin; frame != end; ++frame) {
        const Place place = placeOf(*frame);
        constexpr std::size_t restBytes = 64;
        if ((place.object == own && own != nullptr) ||
            place.file.size() + restBytes > line.room()) {
            continue;
        }
        line.add(isFirst ? "\"" : ",\"").addPath(place.file).add("+0x");
        line.add(static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(*frame) - place.begin),
                 16);
        line.add("\"");
        isFirst = false;
    }
    line.add("]}\n").write();
}

const void* programCounter(const void* context) {
#if defined(__x86_64__)
    const auto* machine = &static_cast<const ucontext_t*>(context)->uc_mcontext;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel has registers as integers.
    return reinterpret_cast<const void*>(machine->gregs[REG_RIP]);
#elif defined(__aarch64__)
    const auto* machine = &static_cast<const ucontext_t*>(context)->uc_mcontext;
    return reinterpret_cast<const void*>(machine->pc);
#else
    static_cast<void>(context);
    return nullptr;
#endif
}

// One thread writes how the process ends. One that comes second waits for the end.
bool isFirstToEnd() {
    static std::atomic<pid_t> writer{0};
    pid_t nobody = 0;
    if (writer.compare_exchange_strong(nobody, gettid())) {
        return true;
    }
    while (nobody != gettid()) {
        pause();
    }
    return false;
}

void onCrash(int signal, siginfo_t* info, void* context) {
    const auto place = std::ranges::find(crashSignals, signal) - crashSignals.begin();
    if (getpid() == recordedProcess && isFirstToEnd()) {
        Line("crash").add(signal).add(" {}\n").write();
        writeStack(programCounter(context));
    }
    sigaction(signal, &previous.at(static_cast<std::size_t>(place)), nullptr);
    // The kernel repeats what it sent for an instruction; what was sent by a call must be
    // sent again. It arrives when this handler has returned.
    if (info->si_code <= 0) {
        raise(signal);
    }
}

// A stack that has overflowed is no place for a handler. Only the first thread has one.
void setAlternateStack() {
    static std::array<char, 65536> memory;
    stack_t stack{};
    stack.ss_sp = memory.data();
    stack.ss_size = memory.size();
    sigaltstack(&stack, nullptr);
}

}  // namespace

void recordCrashes() {
    recordedProcess = getpid();
    static_cast<void>(!readlink("/proc/self/exe", program.data(), program.size() - 1));
    std::array<void*, 4> unused{};
    backtrace(unused.data(), unused.size());  // loads the unwinder
    eventsDescriptor();                       // reads the environment
    setAlternateStack();
    struct sigaction action {};
    action.sa_sigaction = onCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < crashSignals.size(); ++i) {
        sigaction(crashSignals.at(i), &action, &previous.at(i));
    }
}

void recordExit(const char* function, int status, const void* caller) {
    if (getpid() != recordedProcess || !isFirstToEnd()) {
        return;
    }
    Line("exit").add(status & 0xff).add(R"( {"function":")").add(function).add("\"}\n").write();
    writeStack(caller);
}

}  // namespace kavri::conformance
