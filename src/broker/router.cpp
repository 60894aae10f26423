// Routing of frames between sessions; see router.h.
#include "broker/router.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kavri::broker {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

bool isLarge(const InputFrame& frame) {
    return frame.length >= interfaces::largeFrameBytes;
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
    return std::ranges::count(session.subscriptions, &category, &Subscription::category) > 0;
}

// A frame of the broker's own making in the form of one that came in.
InputFrame asInput(const Frame& frame, BufferPool& pool) {
    InputFrame input;
    input.values = frame;
    input.length = interfaces::encodedBytes(frame);
    input.block = pool.take(input.length);
    input.bytes = input.block->bytes();
    const interfaces::Header header = interfaces::encodeHeader(frame);
    char* end = std::copy(header.begin(), header.end(), input.bytes);
    for (const std::string_view field : frame.fields) {
        end = std::copy(field.begin(), field.end(), end);
    }
    return input;
}

}  // namespace

Router::Router(const interfaces::Limits& limits, const Policy& policy, BufferPool& pool,
               Surroundings surroundings)
    : limits_(limits),
      policy_(policy),
      pool_(pool),
      surroundings_(std::move(surroundings)),
      flow_(limits) {}

Session* Router::request(Session& from, InputFrame& frame) {
    const std::string_view name = frame.values[Field::category];
    Category* category = findCategory(name);
    const CategoryPolicy& rights = category != nullptr ? *category->policy : policy_.at(name);
    if (!rights.send.contains(from.user)) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return nullptr;
    }
    if (category == nullptr || !category->isServed()) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
        return nullptr;
    }
    if (category->embedded != nullptr) {
        return answerEmbedded(from, *category, frame.values);
    }
    Session& responder = *category->responder;
    if (from.pendingRequests >= limits_.openRequestsPerInitiator ||
        responder.requestsInFlight >= limits_.openRequestsPerResponder ||
        !flow_.hasShareLeft(from, PendingRequests::bytesEach)) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return nullptr;
    }
    switch (flow_.request(from, responder, frame.length)) {
        case FlowControl::Verdict::wait:
            return &responder;
        case FlowControl::Verdict::refuse:
            refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return nullptr;
        case FlowControl::Verdict::deliver:
            break;
    }
    interfaces::replaceToken(frame.bytes,
                             pendingRequests_.open(responder, from, frame.values.token));
    deliver(responder, frame);
    return nullptr;
}

Session* Router::mustWaitToBegin(Session& from, const char* bytes, std::size_t count,
                                 std::size_t frameBytes) {
    if (from.role != Role::initiator || !flow_.isShort(from, frameBytes)) {
        return nullptr;
    }
    const std::optional<std::string_view> name = interfaces::categoryOf(bytes, count);
    const Category* category = name ? findCategory(*name) : nullptr;
    Session* responder = category == nullptr ? nullptr : category->responder;
    return responder != nullptr && flow_.mustWaitToBegin(from, *responder, frameBytes) ? responder
                                                                                       : nullptr;
}

Session* Router::response(Session& from, InputFrame& frame) {
    const std::uint64_t token = frame.values.token;
    const PendingRequest* known = pendingRequests_.find(from, token);
    if (known == nullptr) {
        if (!dropsSilently(from)) {
            surroundings_.note(from, "answered a request that it does not have in hand; dropped");
        }
        return nullptr;
    }
    Session& initiator = *known->initiator;
    if (flow_.mustWait(from, initiator)) {
        return &initiator;
    }
    interfaces::replaceToken(frame.bytes, known->initiatorToken);
    pendingRequests_.close(token);
    deliver(initiator, frame);
    return nullptr;
}

void Router::completion(Session& from, std::uint64_t token) {
    const PendingRequest* known = pendingRequests_.find(from, token);
    if (known == nullptr) {
        if (!dropsSilently(from)) {
            surroundings_.note(from, "ended a request that it does not have in hand");
        }
        return;
    }
    const PendingRequest ended = *known;
    pendingRequests_.close(token);
    send(*ended.initiator,
         outcomeFrame(FrameType::completion, ended.initiatorToken, KAVRI_CORE_STATUS_NO_ERROR));
}

// A responder need not know that the initiator has left meanwhile.
bool Router::dropsSilently(Session& responder) {
    if (responder.abandonedRequests == 0) {
        return false;
    }
    --responder.abandonedRequests;
    return true;
}

Session* Router::publish(Session& from, InputFrame& frame) {
    if (from.served == nullptr || from.served->name != frame.values[Field::category]) {
        surroundings_.note(from, "published an event of a category that it does not serve");
        return nullptr;
    }
    if (!run_.isGoneOnWith(frame)) {
        endPublishing();
        if (Session* slow = slowSubscriber(from, *from.served)) {
            return slow;
        }
        run_ = {&from, frame.bytes, 0};
    }
    interfaces::replaceType(frame.bytes, FrameType::event);
    if (isLarge(frame)) {
        run_ = {};
        deliverToSubscribers(*from.served, frame);
    } else {
        run_.length += frame.length;
    }
    return nullptr;
}

void Router::endPublishing() {
    const EventRun run = std::exchange(run_, {});
    if (run.length == 0) {
        return;
    }
    InputFrame events{{}, run.bytes, run.length, {}};
    if (isLarge(events) && run.from->served->subscribers.size() > 1) {
        events.block = pool_.take(events.length);
        std::memcpy(events.block->bytes(), events.bytes, events.length);
    }
    deliverToSubscribers(*run.from->served, events);
}

void Router::subscribe(Session& from, const Frame& frame) {
    const std::string_view name = frame[Field::category];
    if (!policy_.at(name).subscribe.contains(from.user)) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    Category* known = findCategory(name);
    const bool already = known != nullptr && isSubscribed(from, *known);
    if (!already) {
        if (from.subscriptions.size() >= limits_.subscriptionsPerInitiator ||
            !flow_.hasShareLeft(from, chargedFor(name))) {
            acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return;
        }
        addSubscription(from, name);
    }
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

// Whatever of this fails for lack of memory leaves nothing behind.
void Router::addSubscription(Session& subscriber, std::string_view name) {
    subscriber.subscriptions.push_back(
        {nullptr, Charge(subscriber.account.memory, chargedFor(name))});
    try {
        Category& category = categoryNamed(name);
        subscriber.subscriptions.back().category = &category;
        category.subscribers.push_back(&subscriber);
    } catch (const std::bad_alloc&) {
        subscriber.subscriptions.pop_back();
        if (Category* category = findCategory(name)) {
            dropIfUnused(*category);
        }
        throw;
    }
}

void Router::unsubscribe(Session& from, const Frame& frame) {
    Category* category = findCategory(frame[Field::category]);
    const auto isOfCategory = [category](const Subscription& subscription) {
        return subscription.category == category;
    };
    if (category != nullptr && std::erase_if(from.subscriptions, isOfCategory) > 0) {
        std::erase(category->subscribers, &from);
        dropIfUnused(*category);
    }
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::registerResponder(Session& from, const Frame& frame) {
    const std::string_view name = frame[Field::category];
    if (!policy_.at(name).serve.contains(from.user)) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    const Category* known = findCategory(name);
    if (from.served != nullptr || (known != nullptr && known->isServed())) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
        return;
    }
    if (!flow_.hasShareLeft(from, chargedFor(name))) {
        acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return;
    }
    from.served = &categoryNamed(name);
    from.served->responder = &from;
    from.served->responderCharge = Charge(from.account.memory, chargedFor(name));
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::policyChanged() {
    for (const auto& [name, category] : categories_) {
        category->policy = &policy_.at(name);
    }
}

void Router::embed(std::string_view category, test_service::TestService& service) {
    categoryNamed(category).embedded = &service;
}

void Router::forget(Session& session) {
    for (const Subscription& subscription : std::exchange(session.subscriptions, {})) {
        std::erase(subscription.category->subscribers, &session);
        dropIfUnused(*subscription.category);
    }
    pendingRequests_.abandonAll(session);
    while (const auto lost = pendingRequests_.closeAny(session)) {
        send(*lost->initiator, outcomeFrame(FrameType::notice, lost->initiatorToken,
                                            KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
    }
    if (Category* served = std::exchange(session.served, nullptr)) {
        served->responder = nullptr;
        served->responderCharge = {};
        dropIfUnused(*served);
    }
    FlowControl::unblock(session);
}

void Router::send(Session& to, const Frame& frame) {
    try {
        to.sendQueue.append(frame);
        markForWriting(to);
    } catch (const std::bad_alloc&) {
        closeOutOfMemory(to);
    }
}

Category* Router::findCategory(std::string_view name) {
    const auto found = categories_.find(name);
    return found == categories_.end() ? nullptr : found->second.get();
}

Category& Router::categoryNamed(std::string_view name) {
    if (Category* known = findCategory(name)) {
        return *known;
    }
    auto category = std::make_unique<Category>();
    category->name = name;
    category->policy = &policy_.at(name);
    const std::string_view key = category->name;
    return *categories_.emplace(key, std::move(category)).first->second;
}

void Router::dropIfUnused(Category& category) {
    if (!category.isServed() && category.subscribers.empty()) {
        categories_.erase(categories_.find(category.name));
        if (categories_.bucket_count() / 8 > std::max<std::size_t>(categories_.size(), 8)) {
            categories_.rehash(0);  // its memory after many came and went
        }
    }
}

// The service may be asked a second time when its event has to wait: the
// command that publishes changes nothing else.
Session* Router::answerEmbedded(Session& from, Category& category, const Frame& request) {
    const test_service::TestService::Reaction reaction =
        category.embedded->handle(request[Field::identifier], request[Field::payload]);
    if (reaction.publishes) {
        if (Session* slow = slowSubscriber(from, category)) {
            return slow;
        }
        Frame event;
        event.type = FrameType::event;
        event[Field::category] = category.name;
        event[Field::identifier] = test_service::eventIdentifier;
        event[Field::payload] = request[Field::payload];
        deliverToSubscribers(category, asInput(event, pool_));
    }
    if (reaction.answers) {
        Frame response = request;
        response.type = FrameType::response;
        response[Field::payload] = reaction.payload;
        send(from, response);
    } else {
        send(from, outcomeFrame(FrameType::completion, request.token, KAVRI_CORE_STATUS_NO_ERROR));
    }
    return nullptr;
}

Session* Router::slowSubscriber(const Session& from, const Category& category) const {
    const auto slow = std::ranges::find_if(
        category.subscribers,
        [this, &from](const Session* subscriber) { return flow_.mustWait(from, *subscriber); });
    return slow == category.subscribers.end() ? nullptr : *slow;
}

void Router::deliverToSubscribers(const Category& category, const InputFrame& event) {
    for (Session* subscriber : category.subscribers) {
        deliver(*subscriber, event);
    }
}

void Router::deliver(Session& to, const InputFrame& frame) {
    if (to.isClosing) {
        return;
    }
    if (flow_.isFull(to)) {
        surroundings_.close(to, "does not take what is sent to it: its send queue is full");
        return;
    }
    try {
        if (isLarge(frame) && frame.block) {
            to.sendQueue.appendShared(frame.block, frame.length);
        } else {
            to.sendQueue.appendCopy({frame.bytes, frame.length});
        }
        markForWriting(to);
    } catch (const std::bad_alloc&) {
        closeOutOfMemory(to);
    }
}

// A part of a frame may be queued already, so nothing can follow it.
void Router::closeOutOfMemory(Session& session) {
    surroundings_.close(session, "the broker has no memory for what is sent to it");
}

void Router::refuse(Session& from, std::uint64_t token, kavri_core_status status) {
    send(from, outcomeFrame(FrameType::notice, token, status));
}

void Router::acknowledge(Session& to, std::uint64_t token, kavri_core_status status) {
    send(to, outcomeFrame(FrameType::acknowledgement, token, status));
}

void Router::markForWriting(Session& session) {
    if (!session.listedForWriting) {
        toWrite_.push_back(&session);
        session.listedForWriting = true;
    }
}

}  // namespace kavri::broker
