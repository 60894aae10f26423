// How channels begin and end; see channels.h.
#include "broker/link/channels.h"

#include <algorithm>
#include <utility>

#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

// What is charged for a channel beside its session.
constexpr std::size_t channelBytes = 1024;

// The statuses that another broker may give for requests that it did not deliver.
kavri_core_status refusalOf(const Envelope& envelope) {
    const auto status = static_cast<kavri_core_status>(envelope.status);
    switch (status) {
        case KAVRI_CORE_STATUS_IPC_REFUSED:
        case KAVRI_CORE_STATUS_IPC_OVERLOADED:
            return status;
        default:
            return KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }
}

}  // namespace

RemoteServices::Found Channels::responderFor(Session& initiator, std::string_view category) {
    if (!line_.bus.connection().isUp || category.size() > longestLinkedCategory) {
        return KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }
    if (!line_.router.flowControl().hasShareLeft(initiator, Session::fixedBytes + channelBytes)) {
        return KAVRI_CORE_STATUS_IPC_OVERLOADED;
    }
    Channel* const channel = make(category, Role::responder, &initiator);
    if (channel == nullptr) {
        return KAVRI_CORE_STATUS_IPC_OVERLOADED;
    }
    channel->session().asResponder.lost = KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    questions_.push_back({line_.now + openTime, channel->id});
    ask(*channel);
    return &channel->session();
}

void Channels::ask(const Channel& channel) {
    message_.clear();
    appendEncoded({.kind = EnvelopeKind::open, .sender = line_.identity, .value = channel.id},
                  message_);
    message_.append(channel.category);
    line_.bus.publish(serveSubject(channel.category), message_,
                      answerSubject(line_.identity, channel.id));
}

void Channels::askAgain(std::uint64_t id) {
    const Channel* const channel = find(id);
    if (channel != nullptr && !channel->isOpen() && !channel->session().isClosing) {
        ask(*channel);
    }
}

Channel* Channels::make(std::string_view category, Role role, Session* payer) {
    auto channel = std::make_unique<Channel>(*this, ++lastId_, category);
    Session* const session = line_.openSession(role, *channel, payer);
    if (session == nullptr) {
        return nullptr;
    }
    session->charge.grow(channelBytes);
    channel->attach(*session);
    return channels_.emplace(lastId_, std::move(channel)).first->second.get();
}

void Channels::asked(const Envelope& envelope, std::string_view category, bool isOffered) {
    if (!isOffered) {
        return refuse(envelope, KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    }
    Channel* const channel = make(category, Role::initiator, nullptr);
    if (channel == nullptr) {
        return refuse(envelope, KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
    if (!line_.router.flowControl().hasShareLeft(channel->session(), 0)) {
        line_.closeSession(channel->session(), CloseCause::shareUsedUp, {});
        return refuse(envelope, KAVRI_CORE_STATUS_IPC_OVERLOADED);
    }
    neighbours_.addChannel(envelope.sender);
    channel->open(envelope.sender, envelope.value);
    neighbours_.send(
        envelope.sender,
        {.kind = EnvelopeKind::opened, .channel = envelope.value, .value = channel->id});
}

void Channels::refuse(const Envelope& asked, kavri_core_status status) {
    neighbours_.send(asked.sender, {.kind = EnvelopeKind::refused,
                                    .status = static_cast<std::uint16_t>(status),
                                    .channel = asked.value});
}

void Channels::handle(const Envelope& envelope, std::string_view content) {
    if (envelope.kind == EnvelopeKind::opened) {
        return opened(envelope);
    }
    if (envelope.kind == EnvelopeKind::refused) {
        Channel* const asked = find(envelope.channel);
        if (asked != nullptr && !asked->isOpen() && !asked->session().isClosing) {
            endWith(*asked, refusalOf(envelope));
        }
        return;
    }
    Channel* const channel = find(envelope);
    if (channel == nullptr || channel->session().isClosing) {
        return;  // it has ended here, which the other side is about to learn
    }
    switch (envelope.kind) {
        case EnvelopeKind::frames:
            takeContent(*channel, envelope, content);
            break;
        case EnvelopeKind::credit:
            channel->takeCredit(envelope.value);
            break;
        case EnvelopeKind::close:
            neighbours_.removeChannel(envelope.sender);
            channel->forgetOther();
            endWith(*channel, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
            break;
        default:
            break;
    }
}

void Channels::opened(const Envelope& envelope) {
    Channel* const channel = find(envelope.channel);
    if (channel == nullptr || channel->isOpen() || channel->session().isClosing) {
        neighbours_.send(envelope.sender, {.kind = EnvelopeKind::close, .channel = envelope.value});
        return;
    }
    neighbours_.addChannel(envelope.sender);
    channel->open(envelope.sender, envelope.value);
    channel->session().asResponder.lost = KAVRI_CORE_STATUS_IPC_RESPONDER_LOST;
    writeSoon(*channel);
}

void Channels::takeContent(Channel& channel, const Envelope& envelope, std::string_view content) {
    Session& session = channel.session();
    channel.takeCredit(envelope.value);
    if (session.isBlocked() && !line_.router.flowControl().hasShareLeft(session, content.size())) {
        line_.closeSession(session, CloseCause::shareUsedUp,
                           "its user has used up bytes_per_user: there is no room for what came "
                           "over the link");
    } else if (!channel.takeFrames(content)) {
        line_.closeSession(session, CloseCause::malformed,
                           "malformed: another broker sent no frames, or more than it may");
    }
}

void Channels::nobodyServes(std::uint64_t id) {
    Channel* const channel = find(id);
    if (channel != nullptr && !channel->isOpen() && !channel->session().isClosing) {
        endWith(*channel, KAVRI_CORE_STATUS_IPC_NO_RESPONDER);
    }
}

void Channels::withdraw(std::string_view category) {
    for (const auto& [id, channel] : channels_) {
        if (channel->session().role == Role::initiator && channel->category == category) {
            endWith(*channel, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
        }
    }
}

void Channels::endForbidden() {
    for (const auto& [id, channel] : channels_) {
        if (channel->session().role == Role::responder &&
            !line_.router.policy().at(channel->category).serve.contains(linkUser)) {
            line_.closeSession(channel->session(), CloseCause::leftByPeer, {});
        }
    }
}

void Channels::lose(const BrokerIdentity& broker) {
    for (const auto& [id, channel] : channels_) {
        if (channel->isOpen() && channel->broker() == broker) {
            channel->forgetOther();
            endWith(*channel, KAVRI_CORE_STATUS_IPC_RESPONDER_LOST);
        }
    }
}

// Ends the channel; `lost` is what becomes of the requests that its session still has.
void Channels::endWith(Channel& channel, kavri_core_status lost) {
    channel.session().asResponder.lost = lost;
    line_.closeSession(channel.session(), CloseCause::leftByPeer, {});
}

void Channels::ended(Channel& channel) {
    if (channel.isOpen()) {
        neighbours_.send(channel.broker(),
                         {.kind = EnvelopeKind::close, .channel = channel.theirId()});
        neighbours_.removeChannel(channel.broker());
    }
    channels_.erase(channel.id);
}

std::optional<Clock::time_point> Channels::due() const {
    return questions_.empty() ? std::nullopt : std::optional(questions_.front().due);
}

void Channels::advance() {
    giveUpUnanswered();
    for (const std::uint64_t id : std::exchange(inputs_, {})) {
        if (Channel* const channel = find(id)) {
            channel->handleInput();
        }
    }
}

void Channels::giveUpUnanswered() {
    while (!questions_.empty() && questions_.front().due <= line_.now) {
        nobodyServes(questions_.front().channel);
        questions_.pop_front();
    }
}

void Channels::writeWaiting() {
    if (!waitingForRoom_.empty() && line_.hasRoom()) {
        for (const std::uint64_t id : std::exchange(waitingForRoom_, {})) {
            if (Channel* const channel = find(id)) {
                channel->hasRoomAgain();
            }
        }
    }
}

void Channels::describe(const Channel& channel, Lines& lines) const {
    lines.add("way", channel.session().role == Role::responder ? "requests_out" : "requests_in");
    if (channel.isOpen()) {
        neighbours_.describe(channel.broker(), lines);
    }
}

Channel* Channels::find(std::uint64_t id) {
    const auto known = channels_.find(id);
    return known == channels_.end() ? nullptr : known->second.get();
}

Channel* Channels::find(const Envelope& envelope) {
    Channel* const channel = find(envelope.channel);
    const bool isTheirs =
        channel != nullptr && channel->isOpen() && channel->broker() == envelope.sender;
    return isTheirs ? channel : nullptr;
}

std::size_t Channels::messageBytes() const {
    return std::min(LinkLine::messageBytes, line_.mostContentBytes());
}

void Channels::send(Channel& channel, EnvelopeKind kind, std::string_view content) {
    neighbours_.send(channel.broker(),
                     {.kind = kind, .channel = channel.theirId(), .value = channel.sayHandled()},
                     content);
}

void Channels::writeSoon(Channel& channel) {
    line_.router.toWrite().add(channel.session(), Receivers::one);
}

void Channels::handleInputSoon(Channel& channel) {
    inputs_.push_back(channel.id);
}

void Channels::handleFrames(Channel& channel, char* bytes, std::size_t count) {
    line_.receive(channel.session(), bytes, count);
}

}  // namespace kavri::broker
