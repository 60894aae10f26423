// The bus over libnats; see nats_bus.h.
#include "link_nats/nats_bus.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "base/blocked_signals.h"

namespace kavri::link_nats {

namespace {

// With encryption; see outbox.h.
constexpr std::size_t mostHandedBytes = 64U << 10U;

// libnats starts its threads with its first object.
std::vector<Server> serversWithoutSignals(const broker::BusOptions& options) {
    const base::BlockedSignals blocked;
    return serversOf(options);
}

}  // namespace

NatsBus::NatsBus(const broker::BusOptions& options)
    : epoll_(epoll_create1(EPOLL_CLOEXEC)), connector_(serversWithoutSignals(options), wakeup_) {
    if (!watch(EPOLL_CTL_ADD, wakeup_->descriptor(), EPOLLIN)) {
        throw std::system_error(errno, std::generic_category(), "epoll");
    }
    connector_.start();
}

// A socket that cannot be watched is one that a thread of libnats has closed.
bool NatsBus::watch(int operation, int descriptor, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    return epoll_ctl(epoll_.get(), operation, descriptor, &event) == 0;
}

void NatsBus::handle() {
    std::array<epoll_event, 2> ready{};
    const int count = epoll_wait(epoll_.get(), ready.data(), ready.size(), 0);
    unsigned socketEvents = 0;
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = ready.at(static_cast<std::size_t>(i));
        if (event.data.fd == wakeup_->descriptor()) {
            wakeup_->clear();
        } else {
            socketEvents = event.events;
        }
    }
    if (server_ == nullptr) {
        noteConnecting();
    } else {
        handleSocket(socketEvents);
    }
    if (server_ != nullptr && server_->isLost()) {
        lose();
    }
}

void NatsBus::handleSocket(unsigned events) {
    if ((events & EPOLLOUT) != 0) {
        write();
    }
    if ((events & ~static_cast<unsigned>(EPOLLOUT)) != 0) {
        server_->read();
        subscriptions_.noteArrivals();
        state_.complaint = server_->complaint();
    }
    flush();
}

void NatsBus::noteConnecting() {
    if (auto connection = connector_.take()) {
        establish(std::move(connection));
    } else {
        state_.failure = connector_.failure();
    }
}

void NatsBus::establish(std::unique_ptr<ServerConnection> connection) {
    server_ = std::move(connection);
    server_->adopt();
    watch(EPOLL_CTL_ADD, server_->socket(), EPOLLIN);
    state_.isUp = true;
    ++state_.times;
    state_.server = server_->server();
    state_.complaint.clear();
    state_.mostDataBytes = static_cast<std::size_t>(natsConnection_GetMaxPayload(server_->get()));
    subscriptions_.attach(server_->get());
    flush();
}

// With its socket, which is closed, the kernel has forgotten that it was watched.
void NatsBus::lose() {
    state_.isUp = false;
    state_.failure = state_.server + ": " + server_->complaint();
    state_.server.clear();
    subscriptions_.detach();
    server_.reset();
    outbox_.clear();
    waitsForRoom_ = false;
    connector_.start();
}

bool NatsBus::publish(std::string_view subject, std::string_view data, std::string_view replyTo) {
    if (server_ == nullptr || data.size() > state_.mostDataBytes) {
        return false;
    }
    if (!outbox_.isEmpty() || !mayHand(data.size())) {
        outbox_.push({std::string(subject), std::string(replyTo), std::string(data)});
        return true;
    }
    return hand(subject, data, replyTo);
}

// libnats holds what is to be written; with encryption, little of it.
bool NatsBus::mayHand(std::size_t bytes) const {
    return !server_->isEncrypted() || server_->queuedBytes() == 0 ||
           server_->queuedBytes() + bytes <= mostHandedBytes;
}

bool NatsBus::hand(std::string_view subject, std::string_view data, std::string_view replyTo) {
    subject_ = subject;
    replyTo_ = replyTo;
    const int bytes = static_cast<int>(data.size());
    const natsStatus status =
        replyTo.empty()
            ? natsConnection_Publish(server_->get(), subject_.c_str(), data.data(), bytes)
            : natsConnection_PublishRequest(server_->get(), subject_.c_str(), replyTo_.c_str(),
                                            data.data(), bytes);
    return status == NATS_OK;
}

bool NatsBus::flush() {
    const bool hadSome = queuedBytes() > 0;
    if (hadSome && !waitsForRoom_) {
        write();
    }
    return hadSome;
}

void NatsBus::write() {
    server_->write();
    while (!outbox_.isEmpty() && server_->queuedBytes() == 0) {
        while (!outbox_.isEmpty() && mayHand(outbox_.first().data.size())) {
            const Outgoing& first = outbox_.first();
            hand(first.subject, first.data, first.replyTo);
            outbox_.pop();
        }
        server_->write();
    }
    const bool waits = queuedBytes() > 0;
    if (waits != waitsForRoom_) {
        waitsForRoom_ = waits;
        watch(EPOLL_CTL_MOD, server_->socket(),
              waits ? unsigned{EPOLLIN} | unsigned{EPOLLOUT} : unsigned{EPOLLIN});
    }
}

std::size_t NatsBus::queuedBytes() const {
    return server_ == nullptr ? 0 : server_->queuedBytes() + outbox_.bytes();
}

}  // namespace kavri::link_nats
