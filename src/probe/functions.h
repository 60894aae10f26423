// The twelve functions that the conformance module calls, and the way from the
// probe to the library that really has them.
#ifndef KAVRI_PROBE_FUNCTIONS_H
#define KAVRI_PROBE_FUNCTIONS_H

#include <cstddef>
#include <string>

namespace kavri::probe {

enum class Function {
    coreInit,
    coreDeinit,
    loggingInit,
    loggingDeinit,
    initiatorInit,
    initiatorDeinit,
    commandSend,
    responseReceive,
    responseCallback,
    eventSubscribe,
    eventUnsubscribe,
    eventCallback,
};
inline constexpr std::size_t functionCount = 12;

// As in the public headers.
const char* functionName(Function function);

// Ends the process: the probe cannot do what it was loaded for.
[[noreturn]] void giveUp(const std::string& why);

// The function of this name that comes after the probe's own in the order of the
// loader. Ends the process where there is none: the module would not have been
// loaded without it.
void* functionBehind(Function function);

template <typename Signature>
Signature* real(Function function) {
    return reinterpret_cast<Signature*>(functionBehind(function));
}

}  // namespace kavri::probe

#endif
