// One connection to a server, from the attempt to connect to its loss. It never becomes a
// connection to another server: whoever needs a new one connects anew, so nothing that was
// published on the old one can turn up late.
//
// libnats calls back on whichever thread notices something: the one that connects, its own
// timer's for pings, or the bus'. What is said there is only noted, and the bus woken.
#ifndef KAVRI_LINK_NATS_SERVER_CONNECTION_H
#define KAVRI_LINK_NATS_SERVER_CONNECTION_H

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>

#include "base/descriptor.h"
#include "link_nats/libnats.h"
#include "link_nats/options.h"
#include "link_nats/wakeup.h"

namespace kavri::link_nats {

class ServerConnection {
  public:
    // Connects: blocks up to the time limit of the options, and longer where the server's
    // name takes long to resolve. Throws std::runtime_error with the reason.
    ServerConnection(const Server& server, std::shared_ptr<const Wakeup> wakeup);
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;
    // Does not block; what the kernel does not take at once is dropped.
    ~ServerConnection();

    const std::string& server() const { return server_; }
    natsConnection* get() const { return connection_; }
    // Of our own: that of libnats may be closed by one of its threads.
    int socket() const { return socket_.get(); }
    bool isEncrypted() const { return isEncrypted_; }

    // To be called first on the thread that is going to use it.
    void adopt() { events_->user = pthread_self(); }

    bool isLost() const { return events_->isDetached; }
    // What libnats noted last as wrong, even where the connection survived it; may be empty.
    std::string complaint() const;

    // Bytes that are published, and not taken by the kernel.
    std::size_t queuedBytes() const;
    // Reads once, where that does not wait.
    void read();
    // Writes what is queued, as far as the kernel takes it.
    void write();

  private:
    struct Events {
        std::shared_ptr<const Wakeup> wakeup;
        std::atomic<pthread_t> user{};
        int socket = -1;
        std::atomic<bool> isDetached = false;
    };

    static natsStatus attach(void** data, void* loop, natsConnection* connection, natsSock socket);
    static natsStatus ignoreReading(void* data, bool add);
    static natsStatus wantWriting(void* data, bool add);
    static natsStatus detach(void* data);

    bool hasWholeRecord() const;
    void dropUnwritten();

    std::string server_;
    const bool isEncrypted_;
    std::shared_ptr<Events> events_ = std::make_shared<Events>();
    natsConnection* connection_ = nullptr;
    base::Descriptor socket_;
};

}  // namespace kavri::link_nats

#endif
