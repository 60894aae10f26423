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
      tap_(limits, {[this](Session& to, const Frame& frame) { enqueue(to, frame); },
                    [this](Session& to) { toWrite_.add(to, Receivers::one); }, surroundings_.now}),
      flow_(limits),
      categories_(policy) {}

std::optional<Blocked> Router::request(Session& from, InputFrame& frame) {
    const std::string_view name = frame.values[Field::category];
    Category* category = categories_.find(name);
    const CategoryPolicy& rights = category != nullptr ? *category->policy : policy_.at(name);
    if (!rights.send.contains(from.user)) {
        refuse(from, frame.values, KAVRI_CORE_STATUS_IPC_REFUSED);
        return std::nullopt;
    }
    if (category != nullptr && category->local != nullptr) {
        return answerLocally(from, *category, frame.values);
    }
    const RemoteServices::Found found = responderOf(from, category, name);
    if (const auto* const status = std::get_if<kavri_core_status>(&found)) {
        refuse(from, frame.values, *status);
        return std::nullopt;
    }
    Session& responder = *std::get<Session*>(found);
    if (responder.transport != nullptr && frame.length > remote_->mostFrameBytes()) {
        refuse(from, frame.values, KAVRI_CORE_STATUS_IPC_TOO_LARGE);
        return std::nullopt;
    }
    if (from.asInitiator.pendingRequests >= limits_.openRequestsPerInitiator ||
        responder.asResponder.requestsInFlight >= limits_.openRequestsPerResponder ||
        !flow_.hasShareLeft(from, RequestTable::bytesEach)) {
        refuse(from, frame.values, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return std::nullopt;
    }
    switch (flow_.request(from, responder, frame.length)) {
        case FlowControl::Verdict::wait:
            return Blocked{responder};
        case FlowControl::Verdict::refuse:
            refuse(from, frame.values, KAVRI_CORE_STATUS_IPC_OVERLOADED);
            return std::nullopt;
        case FlowControl::Verdict::deliver:
            break;
    }
    tap_.frame(&from, &responder, frame.values);
    wire::replaceToken(frame.bytes,
                       requests_.open(responder, from, frame.values.token, tap_.sendingTime()));
    ++counts_.requests;
    deliver(responder, frame, Receivers::one);
    return std::nullopt;
}

// An initiator stays with the responder elsewhere that it got, even where one comes here.
RemoteServices::Found Router::responderOf(Session& from, const Category* category,
                                          std::string_view name) {
    for (const RemoteResponder& remote : from.asInitiator.remote) {
        if (remote.category == name && !remote.session->isClosing) {
            return remote.session;
        }
    }
    if (category != nullptr && category->responder != nullptr) {
        return category->responder;
    }
    return remote_ == nullptr ? RemoteServices::Found(KAVRI_CORE_STATUS_IPC_NO_RESPONDER)
                              : remoteResponderOf(from, name);
}

RemoteServices::Found Router::remoteResponderOf(Session& from, std::string_view name) {
    std::vector<RemoteResponder>& remote = from.asInitiator.remote;
    remote.reserve(remote.size() + 1);  // so that what was found is not lost again
    std::string category(name);
    const RemoteServices::Found found = remote_->responderFor(from, name);
    if (const auto* const responder = std::get_if<Session*>(&found)) {
        remote.push_back({std::move(category), *responder});
        (*responder)->asResponder.usedBy = &from;
    }
    return found;
}

// Of an initiator, and of what stands for a responder elsewhere.
void Router::forgetRemote(Session& session) {
    for (const RemoteResponder& remote : std::exchange(session.asInitiator.remote, {})) {
        remote.session->asResponder.usedBy = nullptr;
        remote_->release(*remote.session);
    }
    if (Session* const initiator = std::exchange(session.asResponder.usedBy, nullptr)) {
        std::erase_if(initiator->asInitiator.remote, [&session](const RemoteResponder& remote) {
            return remote.session == &session;
        });
    }
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
        dropAnswer(from, frame.values,
                   "answered a request that is not pending; the answer is dropped");
        return std::nullopt;
    }
    Session& initiator = *known->initiator;
    if (initiator.transport != nullptr && frame.length > remote_->mostFrameBytes()) {
        surroundings_.note(from, "answered with more than the link carries; the answer is dropped");
        completion(from, outcomeFrame(FrameType::completion, token, KAVRI_CORE_STATUS_NO_ERROR));
        return std::nullopt;
    }
    if (flow_.mustWait(from, initiator)) {
        return Blocked{initiator};
    }
    frame.values.token = known->initiatorToken;
    tap_.frame(&from, &initiator, frame.values, {.sentAt = known->sentAt});
    wire::replaceToken(frame.bytes, frame.values.token);
    requests_.close(token);
    ++counts_.responses;
    deliver(initiator, frame, Receivers::one);
    return std::nullopt;
}

void Router::completion(Session& from, const Frame& frame) {
    const PendingRequest* known = requests_.find(from, frame.token);
    if (known == nullptr) {
        dropAnswer(from, frame, "completed a request that is not pending");
        return;
    }
    const PendingRequest ended = *known;
    requests_.close(frame.token);
    ++counts_.completions;
    const Frame completion = outcomeFrame(frame.type, ended.initiatorToken,
                                          static_cast<kavri_core_status>(frame.status));
    tap_.frame(&from, ended.initiator, completion, {.sentAt = ended.sentAt});
    send(*ended.initiator, completion);
}

// The response to a request whose initiator has left is no mistake of the responder.
void Router::dropAnswer(Session& responder, const Frame& frame, std::string_view mistake) {
    ++counts_.droppedAnswers;
    tap_.frame(&responder, nullptr, frame, {.isDropped = true});
    if (responder.asResponder.abandonedRequests == 0) {
        surroundings_.note(responder, mistake);
    } else {
        --responder.asResponder.abandonedRequests;
    }
}

void Router::registerResponder(Session& from, const Frame& frame) {
    const std::string_view name = frame[Field::category];
    if (!policy_.at(name).serve.contains(from.user)) {
        answer(from, frame, KAVRI_CORE_STATUS_IPC_REFUSED);
        return;
    }
    const Category* known = categories_.find(name);
    if (from.asResponder.served != nullptr || (known != nullptr && known->isServed())) {
        answer(from, frame, KAVRI_CORE_STATUS_IPC_CATEGORY_TAKEN);
        return;
    }
    if (!flow_.hasShareLeft(from, chargedFor(name))) {
        answer(from, frame, KAVRI_CORE_STATUS_IPC_OVERLOADED);
        return;
    }
    from.asResponder.served = &categories_.at(name);
    from.asResponder.served->responder = &from;
    from.asResponder.served->responderCharge = Charge(from.account.memory, chargedFor(name));
    serviceChanged(*from.asResponder.served);
    answer(from, frame, KAVRI_CORE_STATUS_NO_ERROR);
}

void Router::forget(Session& session) {
    tap_.forget(session);
    for (const Subscription& subscription : std::exchange(session.asInitiator.subscriptions, {})) {
        std::erase(subscription.category->subscribers, &session);
        subscribersChanged(*subscription.category);
        categories_.removeIfUnused(*subscription.category);
    }
    requests_.abandonAll(session);
    const kavri_core_status status = session.asResponder.lost;
    while (const auto lost = requests_.closeAny(session)) {
        ++counts_.noticesOf(status);
        const Frame notice = outcomeFrame(FrameType::notice, lost->initiatorToken, status);
        tap_.frame(
            nullptr, lost->initiator, notice,
            {.status = status, .sentAt = lost->sentAt, .category = session.asResponder.served});
        send(*lost->initiator, notice);
    }
    if (Category* served = std::exchange(session.asResponder.served, nullptr)) {
        if (served->responder == &session) {
            served->responder = nullptr;
            served->responderCharge = {};
            serviceChanged(*served);
        }
        categories_.removeIfUnused(*served);
    }
    forgetRemote(session);
    FlowControl::unblock(session);
    KAVRI_ASSERT(
        session.asInitiator.pendingRequests == 0 && session.asResponder.requestsInFlight == 0,
        "no request names a session that is removed");
}

void Router::policyChanged() {
    categories_.policyChanged();
    if (remote_ != nullptr) {
        categories_.forEach([this](Category& category) {
            remote_->serviceChanged(category);
            remote_->subscribersChanged(category);
        });
    }
}

void Router::serviceChanged(const Category& category) {
    if (remote_ != nullptr) {
        remote_->serviceChanged(category);
    }
}

void Router::send(Session& to, const Frame& frame) {
    enqueue(to, frame);
    toWrite_.add(to, Receivers::one);
}

void Router::enqueue(Session& to, const Frame& frame) {
    try {
        to.sendQueue.append(frame);
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
    const Clock::time_point sentAt = tap_.sendingTime();
    const LocalService::Reaction reaction = category.local->handle(asked);
    if (reaction.event) {
        if (const auto blocked = blockedOnSubscriber(from, category)) {
            return blocked;
        }
    }
    category.local->decided(asked, reaction);
    tap_.frame(&from, nullptr, request);
    ++counts_.requests;
    if (reaction.event) {
        Frame event;
        event.type = FrameType::event;
        event[Field::category] = category.name;
        event[Field::identifier] = reaction.event->identifier;
        event[Field::payload] = reaction.event->payload;
        deliverToSubscribers(nullptr, category, asInput(event, pool_));
    }
    Frame answer = outcomeFrame(FrameType::completion, request.token, KAVRI_CORE_STATUS_NO_ERROR);
    if (reaction.answer) {
        answer = request;
        answer.type = FrameType::response;
        answer[Field::payload] = *reaction.answer;
    }
    ++(reaction.answer ? counts_.responses : counts_.completions);
    tap_.frame(nullptr, &from, answer, {.sentAt = sentAt, .category = &category});
    send(from, answer);
    return std::nullopt;
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
        if (frame.isLarge() && frame.block) {
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

void Router::refuse(Session& from, const Frame& request, kavri_core_status status) {
    tap_.frame(&from, nullptr, request, {.status = status});
    ++counts_.noticesOf(status);
    send(from, outcomeFrame(FrameType::notice, request.token, status));
}

void Router::query(Session& from, std::uint64_t token) {
    if (!surroundings_.report(from, token)) {
        acknowledge(from, token, KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
}

void Router::answer(Session& from, const Frame& asked, kavri_core_status status) {
    tap_.frame(&from, nullptr, asked, {.status = status});
    acknowledge(from, asked.token, status);
}

void Router::acknowledge(Session& to, std::uint64_t token, kavri_core_status status) {
    send(to, outcomeFrame(FrameType::acknowledgement, token, status));
}

}  // namespace kavri::broker
