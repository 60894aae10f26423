// The names of the status values in words.
#include <array>
#include <cstddef>

#include "kavri/core.h"

namespace {

// By number.
constexpr std::array<const char*, 17> texts = {
    "no error",
    "invalid argument",
    "library not initialised",
    "out of resources",
    "operation not possible in this state",
    "no message",
    "broker unavailable",
    "broker address invalid",
    "broker speaks another protocol version",
    "refused by the broker",
    "no responder",
    "responder lost",
    "connection lost",
    "message too large",
    "overloaded",
    "category already served",
    "made by the process that forked this one",
};
static_assert(texts.size() == KAVRI_CORE_STATUS_IPC_OTHER_PROCESS + 1);

}  // namespace

extern "C" __attribute__((visibility("default"))) const char* kavri_core_status_text(
    kavri_core_status status) {
    const auto number = static_cast<std::size_t>(status);
    return number < texts.size() ? texts[number] : "unknown status";
}
