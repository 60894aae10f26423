// What the link does in a round; see link.h.
#include "broker/link/link.h"

#include <algorithm>
#include <utility>

#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

// Those who serve a category are one queue: each question reaches one of them.
constexpr std::string_view serversQueue = "kavri";

std::optional<Clock::time_point> earlier(std::optional<Clock::time_point> one,
                                         std::optional<Clock::time_point> other) {
    return one && other ? std::min(*one, *other) : one ? one : other;
}

}  // namespace

Link::Link(std::unique_ptr<Bus> bus, LinkOptions options, std::string_view identity,
           Surroundings surroundings)
    : bus_(std::move(bus)),
      options_(std::move(options)),
      line_{*bus_,
            surroundings.router,
            identityOf(identity),
            options_.bus.name,
            surroundings.now,
            std::move(surroundings.openSession),
            std::move(surroundings.closeSession),
            std::move(surroundings.receive),
            std::move(surroundings.note)},
      neighbours_(line_, [this](const BrokerIdentity& broker) { lose(broker); }),
      channels_(line_, neighbours_),
      export_(line_, options_),
      import_(line_, options_) {}

void Link::begin() {
    inbox_ = bus_->subscribe(brokerSubject(line_.identity));
    answers_ = bus_->subscribeAnswers(allAnswersSubject(line_.identity));
    for (const Category* category : line_.router.embedded()) {
        serviceChanged(*category);
    }
    export_.keepSubscribed();
}

// Nothing more is read before what was read is handled: so the rest waits at the server.
void Link::handle() {
    if (!isBehind_) {
        bus_->handle();
        noteConnection();
        isBehind_ = true;
    }
}

void Link::noteConnection() {
    const Bus::Connection& connection = bus_->connection();
    const bool isAnother = std::exchange(connectionsSeen_, connection.times) != connection.times;
    const bool isLost = wasUp_ && (!connection.isUp || isAnother);
    if (isLost) {
        neighbours_.loseAll();
    }
    noteTrouble(connection);
    if (connection.isUp && isAnother) {
        line_.note("the link is up, by server " + connection.server);
        if (connection.times > 1) {
            import_.missedAll();
        }
    }
    wasUp_ = connection.isUp;
}

// Once for each reason: the bus tries again and again.
void Link::noteTrouble(const Bus::Connection& connection) {
    const std::string& trouble = connection.isUp ? connection.complaint : connection.failure;
    if (!trouble.empty() && trouble != trouble_) {
        line_.note((connection.isUp ? "the link's server refuses: " : "the link is down: ") +
                   trouble);
    }
    trouble_ = trouble;
}

void Link::handleMessages() {
    std::size_t cost = 0;
    isBehind_ = false;
    while (const auto message = bus_->next()) {
        cost += message->data.size();
        handleMessage(*message, cost);
        if (cost >= costPerRound) {
            isBehind_ = true;
            return;
        }
    }
}

void Link::handleMessage(const Bus::Message& message, std::size_t& costBytes) {
    if (message.nobodyListens) {
        if (const auto number = numberOfAnswer(message.subject)) {
            channels_.nobodyServes(*number);
        }
        return;
    }
    if (message.subscription == inbox_) {
        return handleFromBroker(message);
    }
    if (message.subscription != answers_ && !import_.handle(message, costBytes)) {
        handleQuestion(message);
    }
}

void Link::handleFromBroker(const Bus::Message& message) {
    const auto opened = openEnvelope(message.data);
    if (!opened || opened->envelope.sender == line_.identity) {
        line_.note("a message over the link is none of another broker's; it is dropped");
        return;
    }
    const Envelope& envelope = opened->envelope;
    const bool isAnswer =
        envelope.kind == EnvelopeKind::opened || envelope.kind == EnvelopeKind::refused;
    const Neighbours::Received received = neighbours_.receive(envelope, opened->content);
    if (received == Neighbours::Received::next) {
        channels_.handle(envelope, opened->content);
    } else if (received == Neighbours::Received::stray && isAnswer) {
        channels_.askAgain(envelope.channel);
    }
}

void Link::handleQuestion(const Bus::Message& message) {
    const auto opened = openEnvelope(message.data);
    if (!opened || opened->envelope.kind != EnvelopeKind::open ||
        opened->envelope.sender == line_.identity) {
        line_.note("what came over the link as a question is none; it is dropped");
        return;
    }
    channels_.asked(opened->envelope, opened->content, mayBeAsked(opened->content));
}

bool Link::mayBeAsked(std::string_view category) const {
    const Category* const known = line_.router.find(category);
    return known != nullptr && known->isServed() && options_.isExported(category) &&
           known->policy->send.contains(linkUser);
}

void Link::advance() {
    if (isBehind_) {
        handleMessages();
    }
    neighbours_.keepUp();
    channels_.advance();
    import_.advance();
    export_.keepSubscribed();
}

std::optional<Clock::time_point> Link::due() const {
    return earlier(neighbours_.due(), channels_.due());
}

bool Link::flush() {
    const bool hadSome = bus_->flush();
    channels_.writeWaiting();
    export_.writeWaiting();
    return hadSome;
}

RemoteServices::Found Link::responderFor(Session& initiator, std::string_view category) {
    if (initiator.user == linkUser || !options_.isImported(category) ||
        !line_.router.policy().at(category).serve.contains(linkUser)) {
        return KAVRI_CORE_STATUS_IPC_NO_RESPONDER;
    }
    return channels_.responderFor(initiator, category);
}

void Link::release(Session& responder) {
    line_.closeSession(responder, CloseCause::leftByPeer, {});
}

void Link::serviceChanged(const Category& category) {
    const bool isOffered = mayBeAsked(category.name);
    const auto known = offers_.find(category.name);
    if (isOffered && known == offers_.end()) {
        offers_.emplace(category.name, bus_->subscribe(serveSubject(category.name), serversQueue));
    } else if (!isOffered && known != offers_.end()) {
        bus_->unsubscribe(known->second);
        offers_.erase(known);
        channels_.withdraw(category.name);
    }
}

std::string_view Link::describe(Lines& lines) const {
    const Bus::Connection& connection = bus_->connection();
    lines.add("connected", connection.isUp ? 1 : 0);
    lines.add("connections", connection.times);
    lines.add("message_bytes", connection.mostDataBytes);
    lines.add("queued_bytes", bus_->queuedBytes());
    lines.add("brokers", neighbours_.size());
    lines.add("channels", channels_.size());
    lines.add("categories_out", offers_.size());
    lines.add("events_in", import_.size());
    return connection.isUp ? connection.server : connection.failure;
}

void Link::policyChanged() {
    channels_.endForbidden();
    export_.subscribeAnew();
}

}  // namespace kavri::broker
