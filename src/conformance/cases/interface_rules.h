// The rules of the public headers that a record can show to be broken, each with the sentence
// that states it. A test looks for every sentence in its header, word for word.
#ifndef KAVRI_CONFORMANCE_CASES_INTERFACE_RULES_H
#define KAVRI_CONFORMANCE_CASES_INTERFACE_RULES_H

#include <span>
#include <string_view>

namespace kavri::conformance {

struct InterfaceRule {
    std::string_view name;
    std::string_view header;  // "ipc.h"
    std::string_view sentence;
};

std::span<const InterfaceRule> interfaceRules();

// Null where there is none of the name.
const InterfaceRule* findInterfaceRule(std::string_view name);

// The rule that each of the lists below is one sentence of.
inline constexpr std::string_view listedStatusRule = "listed-status";

// Which statuses a function returns. The sentence is that of `listed`, which another function
// may share.
struct StatusList {
    std::string_view function;
    std::string_view header;
    std::string_view sentence;
    std::string_view listed = sentence;

    // Whether the list has the status, be it under a condition.
    bool has(int status) const;
};

std::span<const StatusList> statusLists();

// Null where it is none of the twelve functions.
const StatusList* findStatusList(std::string_view function);

// "IPC_FAILED", as the headers have it; empty for a number that is no status.
std::string_view statusName(int status);

}  // namespace kavri::conformance

#endif
