// Around the work of every C function: exceptions become statuses, and inherited objects are
// refused.
#ifndef KAVRI_CORE_SHIM_H
#define KAVRI_CORE_SHIM_H

#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "core/endpoint/endpoint.h"
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

// The same for a function of an initiator or responder.
template <typename Owner, typename Work>
kavri_core_status guarded(const Owner& owner, const Work& work) noexcept {
    return owner->isInherited() ? KAVRI_CORE_STATUS_IPC_OTHER_PROCESS : guarded(work);
}

// Ends what an init function made.
template <typename Handle, typename Owner>
kavri_core_status endHandle(Handle* handle, std::shared_ptr<Owner>& owner) noexcept {
    return guarded([&] {
        if (owner->isInherited()) {
            Endpoint::abandon(std::move(owner));
        } else {
            owner->end();
        }
        delete handle;
        return KAVRI_CORE_STATUS_NO_ERROR;
    });
}

}  // namespace kavri::core

#endif
