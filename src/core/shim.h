// What every C function does around its work: no exception crosses it.
#ifndef KAVRI_CORE_SHIM_H
#define KAVRI_CORE_SHIM_H

#include <new>
#include <system_error>

#include "kavri/core.h"

#define KAVRI_EXPORT extern "C" __attribute__((visibility("default")))

namespace kavri::core {

template <typename... Pointers>
bool anyNull(const Pointers*... pointers) {
    return ((pointers == nullptr) || ...);
}

template <typename Work>
kavri_core_status guarded(const Work& work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    } catch (const std::system_error&) {  // no thread, no descriptor
        return KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
    } catch (...) {
        return KAVRI_CORE_STATUS_IPC_FAILED;
    }
}

}  // namespace kavri::core

#endif
