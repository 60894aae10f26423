// Routing of frames between sessions; see router.h.
#include "broker/router.h"

#include <algorithm>
#include <cstring>

namespace kavri::broker {

using interfaces::Field;
using interfaces::Frame;
using interfaces::FrameType;

namespace {

// A large request waits with its sender rather than with the responder, until
// what is ahead of it there is no more than this: so another sender's small
// request never has more than one large one before it.
constexpr std::size_t queuedAheadBytes = 64 * interfaces::kibibyte;

bool isLarge(const InputFrame& frame) {
    return frame.length >= interfaces::largeFrameBytes;
}

Frame outcomeFrame(FrameType type, std::uint64_t token, kavri_core_status status) {
    Frame frame;
    frame.type = type;
    frame.token = token;
    frame.status = static_cast<std::uint16_t>(status);
    return frame;
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
    : limits_(limits), policy_(policy), pool_(pool), surroundings_(std::move(surroundings)) {}

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
        responder.requestsInFlight >= limits_.openRequestsPerResponder) {
        refuse(from, frame.values.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return nullptr;
    }
    if (isStalled(responder) ||
        (isLarge(frame) && responder.sendQueue.bytes() > queuedAheadBytes)) {
        return &responder;
    }
    ++from.pendingRequests;
    interfaces::replaceToken(frame.bytes,
                             pendingRequests_.open(responder, {from.id, frame.values.token}));
    deliver(responder, frame);
    return nullptr;
}

Session* Router::response(Session& from, InputFrame& frame) {
    const PendingRequest* known = pendingRequests_.find(from, frame.values.token);
    if (known == nullptr) {
        surroundings_.note(from, "answered a request that it does not have in hand; dropped");
        return nullptr;
    }
    Session* initiator = surroundings_.find(known->initiator);
    if (initiator != nullptr) {
        if (isWorthWaitingFor(*initiator)) {
            return initiator;
        }
        --initiator->pendingRequests;
        interfaces::replaceToken(frame.bytes, known->initiatorToken);
        deliver(*initiator, frame);
    }
    pendingRequests_.close(from, frame.values.token);
    return nullptr;
}

void Router::completion(Session& from, std::uint64_t token) {
    const PendingRequest* known = pendingRequests_.find(from, token);
    if (known == nullptr) {
        surroundings_.note(from, "ended a request that it does not have in hand");
        return;
    }
    tell(known->initiator,
         outcomeFrame(FrameType::completion, known->initiatorToken, KAVRI_CORE_STATUS_NO_ERROR));
    pendingRequests_.close(from, token);
}

Session* Router::publish(Session& from, InputFrame& frame) {
    if (from.served == nullptr || from.served->name != frame.values[Field::category]) {
        surroundings_.note(from, "published an event of a category that it does not serve");
        return nullptr;
    }
    if (!run_.isGoneOnWith(frame)) {
        endPublishing();
        if (Session* slow = slowSubscriber(*from.served)) {
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
    const bool already = known != nullptr && std::ranges::count(from.subscriptions, known) > 0;
    if (!already) {
        if (from.subscriptions.size() >= limits_.subscriptionsPerInitiator) {
            acknowledge(from, frame.token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return;
        }
        Category& category = categoryNamed(name);
        category.subscribers.push_back(&from);
        from.subscriptions.push_back(&category);
    }
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::unsubscribe(Session& from, const Frame& frame) {
    Category* category = findCategory(frame[Field::category]);
    if (category != nullptr && std::erase(from.subscriptions, category) > 0) {
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
    from.served = &categoryNamed(name);
    from.served->responder = &from;
    acknowledge(from, frame.token, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::embed(std::string_view category, test_service::TestService& service) {
    categoryNamed(category).embedded = &service;
}

void Router::forget(Session& session) {
    for (Category* category : std::exchange(session.subscriptions, {})) {
        std::erase(category->subscribers, &session);
        dropIfUnused(*category);
    }
    while (const auto lost = pendingRequests_.closeAny(session)) {
        tell(lost->initiator, outcomeFrame(FrameType::notice, lost->initiatorToken,
                                           KAVRI_CORE_STATUS_IPC_RESPONDER_LOST));
    }
    if (Category* served = std::exchange(session.served, nullptr)) {
        served->responder = nullptr;
        dropIfUnused(*served);
    }
}

void Router::send(Session& to, const Frame& frame) {
    to.sendQueue.append(frame);
    markForWriting(to);
}

bool Router::hasRoomAgain(const Session& session) const {
    return !isFilledTo(session, 2);
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
    return *categories_.emplace(category->name, std::move(category)).first->second;
}

void Router::dropIfUnused(Category& category) {
    if (!category.isServed() && category.subscribers.empty()) {
        categories_.erase(categories_.find(category.name));
    }
}

// The service may be asked a second time when its event has to wait: the
// command that publishes changes nothing else.
Session* Router::answerEmbedded(Session& from, Category& category, const Frame& request) {
    const test_service::TestService::Reaction reaction =
        category.embedded->handle(request[Field::identifier], request[Field::payload]);
    if (reaction.publishes) {
        if (Session* slow = slowSubscriber(category)) {
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

Session* Router::slowSubscriber(const Category& category) const {
    const auto slow = std::ranges::find_if(category.subscribers, [this](const Session* subscriber) {
        return isWorthWaitingFor(*subscriber);
    });
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
    if (isFilledTo(to, 4)) {
        surroundings_.close(to, "does not take what is sent to it: its send queue is full");
        return;
    }
    if (isLarge(frame) && frame.block) {
        to.sendQueue.appendShared(frame.block, frame.length);
    } else {
        to.sendQueue.appendCopy({frame.bytes, frame.length});
    }
    markForWriting(to);
}

// What became of a request, to the initiator that sent it, if it is still there.
void Router::tell(SessionId initiator, const Frame& outcome) {
    if (Session* session = surroundings_.find(initiator)) {
        --session->pendingRequests;
        send(*session, outcome);
    }
}

void Router::refuse(Session& from, std::uint64_t token, kavri_core_status status) {
    send(from, outcomeFrame(FrameType::notice, token, status));
}

void Router::acknowledge(Session& to, std::uint64_t token, kavri_core_status status) {
    send(to, outcomeFrame(FrameType::acknowledgement, token, status));
}

// A user's limit counts against those of his sessions that have something
// waiting: a session that takes everything is never slow.
bool Router::isFilledTo(const Session& session, std::size_t quarters) const {
    if (session.sendQueue.empty()) {
        return false;
    }
    return session.sendQueue.bytes() >= limits_.sendQueueBytes / 4 * quarters ||
           session.account.sendQueueBytes >= limits_.sendQueueBytesPerUser / 4 * quarters;
}

void Router::markForWriting(Session& session) {
    if (!session.listedForWriting) {
        session.listedForWriting = true;
        toWrite_.push_back(&session);
    }
}

}  // namespace kavri::broker
