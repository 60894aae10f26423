// Routing of frames between sessions; see router.h.
#include "broker/routing/router.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/assert.h"
#include "wire/frame_assembler.h"

namespace kavri::broker {

using wire::Field;
using wire::Frame;
using wire::FrameType;

namespace {

bool isLarge(const InputFrame& frame) {
    return frame.length >= wire::largeFrameBytes;
}

// What a subscription or a registration is charged: the name, and what goes with
// it in the tables.
constexpr std::size_t categoryBytes = 256;
std::size_t chargedFor(std::string_view name) {
    return categoryBytes + name.size();
}

Frame outcomeFrame(FrameType type, std::uint64_t token, kavri_core_status status) {
    Frame frame;
    frame.type = type;
    frame.token = token;
    frame.status = static_cast<std::uint16_t>(status);
    return frame;
}

bool isSubscribed(const Session& session, const Category& category) {
    return std::ranges::count(session.asInitiator.subscriptions, &category,
                              &Subscription::category) > 0;
}

// A frame of the broker's own making in the form of one that came in.
InputFrame asInput(const Frame& frame, BufferPool& pool) {
    InputFrame input;
    input.values = frame;
    input.length = wire::encodedBytes(frame);
    input.block = pool.take(input.length);
    input.bytes = input.block->bytes();
    const wire::Header header = wire::encodeHeader(frame);
    char* end = std::copy(header.begin(), header.end(), input.bytes);
    for (const std::string_view field : frame.fields) {
        end = std::copy(field.begin(), field.end(), end);
    }
    return input;
}

}  // namespace

Router::Router(const wire::Limits& limits, const Policy& policy, BufferPool& pool,
               Surroundings surroundings)
    : limits_(limits),
      policy_(policy),
      pool_(pool),
      surroundings_(std::move(surroundings)),
      flow_(limits),
      categories_(policy) {}

std::optional<Blocked> Router::request(Session& from, InputFrame& frame) {
    const std::string_view name = frame.values[Field::category];
    Category* category = categories_.find(name);
    const CategoryPolicy& rights = category != nullptr ? *category->policy : policy_.at(name);
    if (!rights.send.contains(from.user)) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return std::nullopt;
    }
    if (category == nullptr || !category->isServed()) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
        return std::nullopt;
    }
    if (category->local != nullptr) {
        return answerLocally(from, *category, frame.values);
    }
    Session& responder = *category->responder;
    if (from.asInitiator.pendingRequests >= limits_.openRequestsPerInitiator ||
        responder.asResponder.requestsInFlight >= limits_.openRequestsPerResponder ||
        !flow_.hasShareLeft(from, RequestTable::bytesEach)) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return std::nullopt;
    }
    switch (flow_.request(from, responder, frame.length)) {
        case FlowControl::Verdict::wait:
            return Blocked{responder};
        case FlowControl::Verdict::refuse:
            refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return std::nullopt;
        case FlowControl::Verdict::deliver:
            break;
    }
    wire::replaceToken(frame.bytes, requests_.open(responder, from, frame.values.token));
    ++counts_.requests;
    deliver(responder, frame, Receivers::one);
    return std::nullopt;
}

std::optional<Blocked> Router::beginLarge(Session& from, const char* bytes, std::size_t count,
                                          std::size_t frameBytes) {
    if (from.role != Role::initiator || !flow_.isShort(from, frameBytes)) {
        return std::nullopt;
    }
    const std::optional<std::string_view> name = wire::categoryOf(bytes, count);
    const Category* category = name ? categories_.find(*name) : nullptr;
    if (category == nullptr || category->responder == nullptr ||
        !flow_.mustWaitToBegin(from, *category->responder, frameBytes)) {
        return std::nullopt;
    }
    return Blocked{*category->responder};
}

std::optional<Blocked> Router::response(Session& from, InputFrame& frame) {
    const std::uint64_t token = frame.values.token;
    const PendingRequest* known = requests_.find(from, token);
    if (known == nullptr) {
        dropAnswer(from, "answered a request that is not pending; the answer is dropped");
        return std::nullopt;
    }
    Session& initiator = *known->initiator;
    if (flow_.mustWait(from, initiator)) {
        return Blocked{initiator};
    }
    wire::replaceToken(frame.bytes, known->initiatorToken);
    requests_.close(token);
    ++counts_.responses;
    deliver(initiator, frame, Receivers::one);
    return std::nullopt;
}

void Router::completion(Session& from, std::uint64_t token) {
    const PendingRequest* known = requests_.find(from, token);
    if (known == nullptr) {
        dropAnswer(from, "completed a request that is not pending");
        return;
    }
    const PendingRequest ended = *known;
    requests_.close(token);
    ++counts_.completions;
    send(*ended.initiator,
         outcomeFrame(FrameType::completion, ended.initiatorToken, KAVRI_CORE_STATUS_NO_ERROR));
}

// The response to a request whose initiator has left is no mistake of the responder.
void Router::dropAnswer(Session& responder, std::string_view mistake) {
    ++counts_.droppedAnswers;
    if (responder.asResponder.abandonedRequests == 0) {
        surroundings_.note(responder, mistake);
    } else {
        --responder.asResponder.abandonedRequests;
    }
}

std::optional<Blocked> Router::publish(Session& from, InputFrame& frame) {
    const Category* served = from.asResponder.served;
    if (served == nullptr || served->name != frame.values[Field::category]) {
        ++counts_.droppedEvents;
        surroundings_.note(from, "published an event of a category that it does not serve");
        return std::nullopt;
    }
    if (const auto blocked = blockedOnSubscriber(from, *served)) {
        return blocked;
    }
    wire::replaceType(frame.bytes, FrameType::event);
    if (!isLarge(frame)) {
        gatherEvents(*served, frame);
        if (isLarge(frame) && served->subscribers.size() > 1) {
            frame.block = pool_.take(frame.length);
            std::memcpy(frame.block->bytes(), frame.bytes, frame.length);
        }
    }
    deliverToSubscribers(*served, frame);
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
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    Category* known = categories_.find(name);
    const bool already = known != nullptr && isSubscribed(from, *known);
    if (!already) {
        if (from.asInitiator.subscriptions.size() >= limits_.subscriptionsPerInitiator ||
            !flow_.hasShareLeft(from, chargedFor(name))) {
            acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return;
        }
        addSubscription(from, name);
    }
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

// Strong guarantee: an allocation that fails changes nothing.
void Router::addSubscription(Session& subscriber, std::string_view name) {
    subscriber.asInitiator.subscriptions.push_back(
        {nullptr, Charge(subscriber.account.memory, chargedFor(name))});
    try {
        Category& category = categories_.at(name);
        subscriber.asInitiator.subscriptions.back().category = &category;
        category.subscribers.push_back(&subscriber);
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
        categories_.removeIfUnused(*category);
    }
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::registerResponder(Session& from, const Frame& frame) {
    const std::string_view name = frame[Field::category];
    if (!policy_.at(name).serve.contains(from.user)) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    const Category* known = categories_.find(name);
    if (from.asResponder.served != nullptr || (known != nullptr && known->isServed())) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
        return;
    }
    if (!flow_.hasShareLeft(from, chargedFor(name))) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return;
    }
    from.asResponder.served = &categories_.at(name);
    from.asResponder.served->responder = &from;
    from.asResponder.served->responderCharge = Charge(from.account.memory, chargedFor(name));
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::forget(Session& session) {
    for (const Subscription& subscription : std::exchange(session.asInitiator.subscriptions, {})) {
        std::erase(subscription.category->subscribers, &session);
        categories_.removeIfUnused(*subscription.category);
    }
    requests_.abandonAll(session);
    while (const auto lost = requests_.closeAny(session)) {
        ++counts_.responderLost;
        send(*lost->initiator, outcomeFrame(FrameType::notice, lost->initiatorToken,
                                            KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
    }
    if (Category* served = std::exchange(session.asResponder.served, nullptr)) {
        served->responder = nullptr;
        served->responderCharge = {};
        categories_.removeIfUnused(*served);
    }
    FlowControl::unblock(session);
    KAVRI_ASSERT(
        session.asInitiator.pendingRequests == 0 && session.asResponder.requestsInFlight == 0,
        "no request names a session that is removed");
}

void Router::send(Session& to, const Frame& frame) {
    try {
        to.sendQueue.append(frame);
        toWrite_.add(to, Receivers::one);
    } catch (const std::bad_alloc&) {
        closeOutOfMemory(to);
    }
}

std::optional<Blocked> Router::answerLocally(Session& from, Category& category,
                                             const Frame& request) {
    const LocalService::Request asked = {.connection = numberOf(from.id),
                                         .process = from.process,
                                         .category = request[Field::category],
                                         .identifier = request[Field::identifier],
                                         .uuid = request[Field::uuid],
                                         .payload = request[Field::payload]};
    const LocalService::Reaction reaction = category.local->handle(asked);
    if (reaction.event) {
        if (const auto blocked = blockedOnSubscriber(from, category)) {
            return blocked;
        }
    }
    category.local->decided(asked, reaction);
    ++counts_.requests;
    if (reaction.event) {
        Frame event;
        event.type = FrameType::event;
        event[Field::category] = category.name;
        event[Field::identifier] = reaction.event->identifier;
        event[Field::payload] = reaction.event->payload;
        deliverToSubscribers(category, asInput(event, pool_));
    }
    if (reaction.answer) {
        Frame response = request;
        response.type = FrameType::response;
        response[Field::payload] = *reaction.answer;
        ++counts_.responses;
        send(from, response);
    } else {
        ++counts_.completions;
        send(from, outcomeFrame(FrameType::completion, request.token, KAVRI_CORE_STATUS_NO_ERROR));
    }
    return std::nullopt;
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

void Router::deliverToSubscribers(const Category& category, const InputFrame& event) {
    counts_.publishedEvents += event.frames;
    counts_.deliveredEvents += event.frames * category.subscribers.size();
    const Receivers receivers = category.subscribers.size() > 1 ? Receivers::many : Receivers::one;
    for (Session* subscriber : category.subscribers) {
        deliver(*subscriber, event, receivers);
    }
}

void Router::deliver(Session& to, const InputFrame& frame, Receivers receivers) {
    if (to.isClosing) {
        return;
    }
    if (flow_.isFull(to)) {
        surroundings_.close(to, CloseCause::sendQueueFull,
                            "its send queue is full: it reads too slowly");
        return;
    }
    try {
        if (isLarge(frame) && frame.block) {
            to.sendQueue.appendShared(frame.block, frame.length);
        } else {
            to.sendQueue.appendCopy({frame.bytes, frame.length});
        }
        toWrite_.add(to, receivers);
    } catch (const std::bad_alloc&) {
        closeOutOfMemory(to);
    }
}

// Part of a frame may be in the send queue already, so no other frame can follow.
void Router::closeOutOfMemory(Session& session) {
    surroundings_.close(session, CloseCause::outOfResources,
                        "the broker has no memory for what is sent to it");
}

void Router::refuse(Session& from, std::uint64_t token, kavri_core_status status) {
    ++(status == KAVRI_CORE_STATUS_IPC_REFUSED        ? counts_.refused
       : status == KAVRI_CORE_STATUS_IPC_NO_RESPONDER ? counts_.noResponder
                                                      : counts_.overloaded);
    send(from, outcomeFrame(FrameType::notice, token, status));
}

void Router::query(Session& from, std::uint64_t token) {
    if (!surroundings_.report(from, token)) {
        acknowledge(from, token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
}

void Router::acknowledge(Session& to, std::uint64_t token, kavri_core_status status) {
    send(to, outcomeFrame(FrameType::acknowledgement, token, status));
}

}  // namespace kavri::broker
