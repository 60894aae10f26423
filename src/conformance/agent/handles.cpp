// The table of handles; see handles.h.
#include "conformance/agent/handles.h"

#include <map>
#include <mutex>

namespace kavri::conformance {

namespace {

struct Table {
    std::mutex mutex;
    std::map<const void*, unsigned> numbers;
    unsigned last = 0;
};

// Outlives the process' statics: a callback may still run then.
Table& table() {
    static auto& all = *new Table;
    return all;
}

}  // namespace

unsigned numberNewHandle(const void* handle) {
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    all.numbers[handle] = ++all.last;
    return all.last;
}

Json handleNumber(const void* handle) {
    if (handle == nullptr) {
        return nullptr;
    }
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    const auto found = all.numbers.find(handle);
    return found != all.numbers.end() ? Json(found->second) : Json("unknown");
}

}  // namespace kavri::conformance
