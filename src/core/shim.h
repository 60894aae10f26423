// Around the work of every C function: exceptions become statuses, and inherited objects are
// refused.
#ifndef KAVRI_CORE_SHIM_H
#define KAVRI_CORE_SHIM_H

#include <array>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "core/endpoint/endpoint.h"
#include "core/endpoint/settings.h"
#include "core/message.h"
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

// Makes an initiator or responder as its init function does; null where that fails.
template <typename Handle>
kavri_core_status makeHandle(kavri_core_logging_cookie cookie, const void* options,
                             Settings settings, Handle*& handle) {
    kavri_core_status status = readSettings(cookie, options, settings);
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        // Allocated before the start: once its thread runs, there must be a handle to end it.
        auto made = std::make_unique<Handle>();
        using Owned = typename decltype(made->endpoint)::element_type;
        made->endpoint = std::make_shared<Owned>(std::move(settings));
        status = made->endpoint->start();
        if (status == KAVRI_CORE_STATUS_NO_ERROR) {
            handle = made.release();
        }
    }
    return status;
}

// Stores what a receive came to in the caller's variables, which keep what they hold where it
// failed. Returns the status.
inline kavri_core_status store(kavri_core_status status, const Message::Fields& fields,
                               const std::array<char**, wire::fieldCount>& variables) {
    if (status == KAVRI_CORE_STATUS_NO_ERROR) {
        for (std::size_t i = 0; i < fields.size(); ++i) {
            *variables[i] = fields[i];
        }
    }
    return status;
}

// A callback's arguments; a context belongs to a callback.
template <typename Handle, typename Callback>
bool isInstallable(const Handle* handle, Callback callback, const void* context) {
    return handle != nullptr && (callback != nullptr || context == nullptr);
}

// Ends what an init function made.
template <typename Handle>
kavri_core_status endHandle(Handle* handle) noexcept {
    if (handle == nullptr) {
        return KAVRI_CORE_STATUS_INVALID_ARGUMENT;
    }
    return guarded([&] {
        if (handle->endpoint->isInherited()) {
            Endpoint::abandon(std::move(handle->endpoint));
        } else {
            handle->endpoint->end();
        }
        delete handle;
        return KAVRI_CORE_STATUS_NO_ERROR;
    });
}

}  // namespace kavri::core

#endif
