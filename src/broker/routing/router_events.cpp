// Subscriptions, and the way of events to subscribers; see router.h.
#include <algorithm>
#include <cstring>
#include <new>

#include "broker/routing/router.h"

namespace kavri::broker {

using wire::Field;
using wire::Frame;
using wire::FrameType;

namespace {

bool isSubscribed(const Session& session, const Category& category) {
    return std::ranges::count(session.asInitiator.subscriptions, &category,
                              &Subscription::category) > 0;
}

}  // namespace

std::optional<Blocked> Router::publish(Session& from, InputFrame& frame) {
    const Category* served = from.asResponder.served;
    if (served == nullptr || served->name != frame.values[Field::category]) {
        ++counts_.droppedEvents;
        tap_.frame(&from, nullptr, frame.values, {.isDropped = true});
        surroundings_.note(from, "published an event of a category that it does not serve");
        return std::nullopt;
    }
    if (const auto blocked = blockedOnSubscriber(from, *served)) {
        return blocked;
    }
    wire::replaceType(frame.bytes, FrameType::event);
    if (!frame.isLarge()) {
        gatherEvents(*served, frame);
        if (frame.isLarge() && served->subscribers.size() > 1) {
            frame.block = pool_.take(frame.length);
            std::memcpy(frame.block->bytes(), frame.bytes, frame.length);
        }
    }
    deliverToSubscribers(&from, *served, frame);
    return std::nullopt;
}

// Small events that follow one another in the input are delivered together: each
// subscriber's send queue is then looked for once, not for each event.
void Router::gatherEvents(const Category& category, InputFrame& first) const {
    while (true) {
        char* const next = first.bytes + first.length;
        const wire::FirstFrame following =
            wire::firstFrame(next, first.bytesBehind, limits_.payloadBytes);
        if (following.state != wire::FirstFrame::State::complete ||
            following.frameBytes >= wire::largeFrameBytes ||
            wire::typeOf(next) != FrameType::publish ||
            wire::categoryOf(next, following.frameBytes) != category.name || wire::hasNul(next)) {
            return;
        }
        wire::replaceType(next, FrameType::event);
        first.length += following.frameBytes;
        first.bytesBehind -= following.frameBytes;
        ++first.frames;
    }
}

void Router::subscribe(Session& from, const Frame& frame) {
    const std::string_view name = frame[Field::category];
    if (!policy_.at(name).subscribe.contains(from.user)) {
        answer(from, frame, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    Category* known = categories_.find(name);
    const bool already = known != nullptr && isSubscribed(from, *known);
    if (!already) {
        if (from.asInitiator.subscriptions.size() >= limits_.subscriptionsPerInitiator ||
            !flow_.hasShareLeft(from, chargedFor(name))) {
            answer(from, frame, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return;
        }
        addSubscription(from, name);
    }
    answer(from, frame, KAVRI_CORE_STATUS_NO_ERROR);
}

// Strong guarantee: an allocation that fails changes nothing.
void Router::addSubscription(Session& subscriber, std::string_view name) {
    subscriber.asInitiator.subscriptions.push_back(
        {nullptr, Charge(subscriber.account.memory, chargedFor(name))});
    try {
        Category& category = categories_.at(name);
        subscriber.asInitiator.subscriptions.back().category = &category;
        category.subscribers.push_back(&subscriber);
        subscribersChanged(category);
    } catch (const std::bad_alloc&) {
        subscriber.asInitiator.subscriptions.pop_back();
        if (Category* category = categories_.find(name)) {
            categories_.removeIfUnused(*category);
        }
        throw;
    }
}

void Router::unsubscribe(Session& from, const Frame& frame) {
    Category* category = categories_.find(frame[Field::category]);
    const auto isOfCategory = [category](const Subscription& subscription) {
        return subscription.category == category;
    };
    if (category != nullptr && std::erase_if(from.asInitiator.subscriptions, isOfCategory) > 0) {
        std::erase(category->subscribers, &from);
        subscribersChanged(*category);
        categories_.removeIfUnused(*category);
    }
    answer(from, frame, KAVRI_CORE_STATUS_NO_ERROR);
}

std::optional<Blocked> Router::blockedOnSubscriber(const Session& from,
                                                   const Category& category) const {
    const auto slow = std::ranges::find_if(
        category.subscribers,
        [this, &from](const Session* subscriber) { return flow_.mustWait(from, *subscriber); });
    if (slow == category.subscribers.end()) {
        return std::nullopt;
    }
    return Blocked{**slow};
}

void Router::deliverToSubscribers(const Session* from, const Category& category,
                                  const InputFrame& event) {
    tap_.events(from, category, {event.bytes, event.length});
    counts_.publishedEvents += event.frames;
    counts_.deliveredEvents += event.frames * category.subscribers.size();
    const Receivers receivers = category.subscribers.size() > 1 ? Receivers::many : Receivers::one;
    const bool isFromElsewhere = from != nullptr && from->transport != nullptr;
    for (Session* subscriber : category.subscribers) {
        // What came over the link does not go back over it.
        if (!isFromElsewhere || subscriber->transport == nullptr) {
            deliver(*subscriber, event, receivers);
        }
    }
}

void Router::subscribersChanged(Category& category) {
    if (remote_ != nullptr) {
        remote_->subscribersChanged(category);
    }
}

}  // namespace kavri::broker
