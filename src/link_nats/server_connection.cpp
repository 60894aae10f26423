// One connection; see server_connection.h.
#include "link_nats/server_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace kavri::link_nats {

namespace {

// Of up to 16 KiB each: what is read at a time.
constexpr int mostRecords = 4;

// The socket becomes readable once so many bytes have arrived.
void setReadableAt(int socket, int bytes) {
    ::setsockopt(socket, SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes);
}

// An incomplete TLS record stays in the receive buffer until the rest has arrived. It may begin
// in one TCP segment of 64 KiB and end in the next, and the kernel frees no segment in part: two
// of them fill the default buffer of 128 KiB, and the rest would never come. A low-water mark
// makes the kernel enlarge the buffer; SO_RCVBUF would do it too, but end its automatic tuning.
void makeRoomForRecords(int socket) {
    setReadableAt(socket, 512 << 10);
    setReadableAt(socket, 1);
}

}  // namespace

ServerConnection::ServerConnection(const Server& server, std::shared_ptr<const Wakeup> wakeup)
    : server_(server.address), isEncrypted_(server.isEncrypted) {
    events_->wakeup = std::move(wakeup);
    natsStatus status = natsOptions_SetEventLoop(server.options.get(), &events_, attach,
                                                 ignoreReading, wantWriting, detach);
    if (status == NATS_OK) {
        status = natsConnection_Connect(&connection_, server.options.get());
    }
    if (status != NATS_OK) {
        throw std::runtime_error(server_ + ": " + reason(status));
    }
    socket_ = base::Descriptor(::fcntl(events_->socket, F_DUPFD_CLOEXEC, 0));
    if (isEncrypted_) {
        makeRoomForRecords(socket());
    }
}

ServerConnection::~ServerConnection() {
    write();
    if (queuedBytes() > 0) {
        dropUnwritten();
    }
    natsConnection_Destroy(connection_);
}

void ServerConnection::read() {
    if (!isEncrypted_) {
        natsConnection_ProcessReadEvent(connection_);
        return;
    }
    for (int records = 0; records < mostRecords && !isLost() && hasWholeRecord(); ++records) {
        natsConnection_ProcessReadEvent(connection_);
    }
}

// libnats waits for the rest of an encrypted record that has begun to arrive, without a time
// limit: it is called once the record is all there, and the socket becomes readable then.
bool ServerConnection::hasWholeRecord() const {
    constexpr int headerBytes = 5;
    std::array<unsigned char, headerBytes> header{};
    const bool hasHeader =
        ::recv(socket(), header.data(), header.size(), MSG_PEEK | MSG_DONTWAIT) == headerBytes;
    const int bytes = headerBytes + (hasHeader ? header[3] << 8 | header[4] : 0);
    int arrived = 0;
    ::ioctl(socket(), FIONREAD, &arrived);
    const bool isWhole = hasHeader && arrived >= bytes;
    const int awaited = isWhole ? headerBytes : bytes;
    setReadableAt(socket(), awaited);
    pollfd end{socket(), POLLRDHUP, 0};
    return isWhole || ::poll(&end, 1, 0) > 0;
}

// With encryption, nothing is begun that the kernel does not take now.
void ServerConnection::write() {
    pollfd room{socket(), POLLOUT, 0};
    if (queuedBytes() > 0 && (!isEncrypted_ || ::poll(&room, 1, 0) > 0)) {
        natsConnection_ProcessWriteEvent(connection_);
    }
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
