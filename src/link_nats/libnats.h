// Objects of libnats with an owner, and the texts of its errors.
#ifndef KAVRI_LINK_NATS_LIBNATS_H
#define KAVRI_LINK_NATS_LIBNATS_H

#include <nats/nats.h>

#include <memory>
#include <string>

namespace kavri::link_nats {

template <auto destroy>
struct Destroy {
    template <typename Object>
    void operator()(Object* object) const {
        destroy(object);
    }
};

using Options = std::unique_ptr<natsOptions, Destroy<natsOptions_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;
using Statistics = std::unique_ptr<natsStatistics, Destroy<natsStatistics_Destroy>>;

// Why the last call of this thread failed: what libnats says of it, else of the status.
inline std::string reason(natsStatus status) {
    const char* const text = nats_GetLastError(nullptr);
    return text == nullptr || *text == '\0' ? natsStatus_GetText(status) : text;
}

}  // namespace kavri::link_nats

#endif
