// The twelve functions that the conformance module calls, and how the probe finds them
// in the library under test.
#ifndef KAVRI_CONFORMANCE_AGENT_FUNCTIONS_H
#define KAVRI_CONFORMANCE_AGENT_FUNCTIONS_H

#include <cstddef>
#include <string>

namespace kavri::conformance {

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

// The next function of this name, after the probe's own, in the loader's search order.
// Ends the process where there is none.
void* functionBehind(Function function);

template <typename Signature>
Signature* real(Function function) {
    return reinterpret_cast<Signature*>(functionBehind(function));
}

}  // namespace kavri::conformance

#endif
