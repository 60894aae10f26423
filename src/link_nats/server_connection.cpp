// One connection; see server_connection.h.
#include "link_nats/server_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

namespace kavri::link_nats {

ServerConnection::ServerConnection(const Server& server, std::shared_ptr<const Wakeup> wakeup)
    : server_(server.address) {
    events_->wakeup = std::move(wakeup);
    natsStatus status = natsOptions_SetEventLoop(server.options.get(), &events_, attach,
                                                 ignoreReading, wantWriting, detach);
    if (status == NATS_OK) {
        status = natsConnection_Connect(&connection_, server.options.get());
    }
    if (status != NATS_OK) {
        throw std::runtime_error(server_ + ": " + reason(status));
    }
}

ServerConnection::~ServerConnection() {
    if (queuedBytes() > 0) {
        natsConnection_ProcessWriteEvent(connection_);
    }
    if (queuedBytes() > 0) {
        dropUnwritten();
    }
    natsConnection_Destroy(connection_);
}

// To end a connection with something left to be written, libnats waits half a second for an
// answer that only this thread could read. One that is lost it ends at once.
void ServerConnection::dropUnwritten() {
    if (!isLost()) {
        ::shutdown(socket(), SHUT_RDWR);
    }
    while (!isLost()) {
        natsConnection_ProcessReadEvent(connection_);
    }
}

std::string ServerConnection::complaint() const {
    const char* text = nullptr;
    const natsStatus status = natsConnection_GetLastError(connection_, &text);
    if (status == NATS_OK) {
        return {};
    }
    return text == nullptr || *text == '\0' ? natsStatus_GetText(status) : text;
}

std::size_t ServerConnection::queuedBytes() const {
    return static_cast<std::size_t>(std::max(natsConnection_Buffered(connection_), 0));
}

// The callbacks own a share of what they note, until the last of them, which may come
// when the connection is destroyed already.
natsStatus ServerConnection::attach(void** data, void* loop, natsConnection* /*connection*/,
                                    natsSock socket) {
    auto share =
        std::make_unique<std::shared_ptr<Events>>(*static_cast<std::shared_ptr<Events>*>(loop));
    (*share)->socket = socket;
    *data = share.release();
    return NATS_OK;
}

natsStatus ServerConnection::ignoreReading(void* /*data*/, bool /*add*/) {
    return NATS_OK;
}

// Whoever publishes flushes too; only what libnats itself has to say needs a wake-up.
natsStatus ServerConnection::wantWriting(void* data, bool add) {
    const Events& events = **static_cast<std::shared_ptr<Events>*>(data);
    if (add && !pthread_equal(events.user, pthread_self())) {
        events.wakeup->ring();
    }
    return NATS_OK;
}

natsStatus ServerConnection::detach(void* data) {
    const std::unique_ptr<std::shared_ptr<Events>> share(
        static_cast<std::shared_ptr<Events>*>(data));
    (*share)->isDetached = true;
    (*share)->wakeup->ring();
    return NATS_OK;
}

}  // namespace kavri::link_nats
