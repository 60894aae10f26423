// Whether a session still has the rights that it uses, where the policy changed.
#ifndef KAVRI_BROKER_ROUTING_RIGHTS_H
#define KAVRI_BROKER_ROUTING_RIGHTS_H

#include <algorithm>
#include <string_view>

#include "broker/routing/router.h"
#include "broker/session/policy.h"
#include "broker/session/session.h"

namespace kavri::broker {

// The right that it lost, as the reason to close it; empty when it lost none.
inline std::string_view lostRight(const Session& session, const Policy& policy) {
    if (session.user != linkUser && !policy.connect.contains(session.user)) {
        return "this user may no longer connect";
    }
    if (session.role == Role::manager && !policy.manage.contains(session.user)) {
        return "this user may no longer manage the broker";
    }
    if (session.asResponder.served != nullptr &&
        !session.asResponder.served->policy->serve.contains(session.user)) {
        return "this user may no longer serve its category";
    }
    const bool maySubscribe =
        std::ranges::all_of(session.asInitiator.subscriptions, [&](const Subscription& to) {
            return to.category->policy->subscribe.contains(session.user);
        });
    return maySubscribe ? "" : "this user may no longer subscribe to one of its categories";
}

}  // namespace kavri::broker

#endif
