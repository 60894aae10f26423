// Looking at pointers and at the signal mask; see handed_over.h.
#include "conformance/agent/handed_over.h"

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "conformance/agent/record.h"

namespace kavri::conformance {

namespace {

constexpr std::array<const char*, fieldCount> names = {"targetCategory", "targetIdentifier", "uuid",
                                                       "payload"};

// Every allocator aligns what it returns for any type of that size.
constexpr std::uintptr_t leastAlignment = 8;

struct Range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
};

Range stackOfThisThread() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return {};
    }
    void* begin = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &begin, &size);
    pthread_attr_destroy(&attributes);
    const auto address = reinterpret_cast<std::uintptr_t>(begin);
    return {address, address + size};
}

// Why malloc cannot have returned it; empty where it can.
std::string notAllocated(const char* text) {
    dl_find_object object{};
    if (_dl_find_object(const_cast<char*>(text), &object) == 0) {
        const std::string path = object.dlfo_link_map->l_name;
        return "lies within " + (path.empty() ? "the program" : path.substr(path.rfind('/') + 1));
    }
    thread_local const Range stack = stackOfThisThread();
    const auto address = reinterpret_cast<std::uintptr_t>(text);
    if (stack.begin <= address && address < stack.end) {
        return "lies on the stack";
    }
    return address % leastAlignment != 0 ? "is not where an allocation begins" : "";
}

}  // namespace

void checkStrings(unsigned number, const std::array<char**, fieldCount>& fields) {
    std::array<const char*, fieldCount> texts{};
    std::ranges::transform(fields, texts.begin(),
                           [](char** field) { return field != nullptr ? *field : nullptr; });
    for (std::size_t i = 0; i < fieldCount; ++i) {
        const char* text = texts.at(i);
        if (text == nullptr) {
            continue;
        }
        if (const std::string reason = notAllocated(text); !reason.empty()) {
            recordBreach("allocated-strings", number, std::string(names.at(i)) + " " + reason);
        }
        const auto* const first = std::ranges::find(texts, text);
        if (first != texts.begin() + i) {
            recordBreach("allocated-strings", number,
                         std::string(names.at(i)) + " is the same string as " +
                             names.at(static_cast<std::size_t>(first - texts.begin())));
        }
    }
}

void checkSignals(unsigned number) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (int signal = 1; signal < NSIG; ++signal) {
        // These cannot be blocked; those that follow the named ones are the C library's.
        const char* name = sigabbrev_np(signal);
        const bool isExempt = signal == SIGKILL || signal == SIGSTOP || name == nullptr;
        if (!isExempt && sigismember(&blocked, signal) == 0) {
            recordBreach("callback-signals", number, "SIG" + std::string(name) + " is not blocked");
            return;
        }
    }
}

}  // namespace kavri::conformance
