// The functions that end a process, interposed: where the library calls one, the record says
// so, before anything is torn down. What the C library itself ends goes past them.
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include "conformance/agent/crash_record.h"
#include "conformance/agent/record.h"

namespace {

[[noreturn]] void end(const char* function, int status, const void* caller) {
    if (kavri::conformance::isRecording()) {
        kavri::conformance::recordExit(function, status, caller);
    }
    const auto real = reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, function));
    real(status);
    __builtin_unreachable();
}

__attribute__((constructor)) void watchForTheEnd() {
    if (kavri::conformance::isRecording()) {
        kavri::conformance::recordCrashes();
    }
}

}  // namespace

void exit(int status) noexcept {
    end("exit", status, __builtin_return_address(0));
}
void quick_exit(int status) noexcept {
    end("quick_exit", status, __builtin_return_address(0));
}
void _exit(int status) {
    end("_exit", status, __builtin_return_address(0));
}
void _Exit(int status) noexcept {
    end("_Exit", status, __builtin_return_address(0));
}
