// Connects to one of the servers, on a thread that ends when it has: connecting blocks,
// and the bus does not.
//
// The servers are tried in turn, from the one after the last that was tried, and after each
// round there is a pause, of a random length so that the clients of a server that starts
// anew do not all come at once.
#ifndef KAVRI_LINK_NATS_CONNECTOR_H
#define KAVRI_LINK_NATS_CONNECTOR_H

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "link_nats/options.h"
#include "link_nats/server_connection.h"
#include "link_nats/wakeup.h"

namespace kavri::link_nats {

class Connector {
  public:
    Connector(std::vector<Server> servers, std::shared_ptr<const Wakeup> wakeup);
    Connector(const Connector&) = delete;
    Connector& operator=(const Connector&) = delete;
    // Waits a moment for the thread. One that is within libnats then cannot be interrupted:
    // it is left behind, drops what it connects, and ends.
    ~Connector();

    // Rings when there is something to take. Only while nothing else was started and not
    // taken yet.
    void start();

    // The connection, once there is one.
    std::unique_ptr<ServerConnection> take();

    // Why the last attempt failed.
    std::string failure() const;

  private:
    struct Attempts;

    void finish();

    std::shared_ptr<Attempts> attempts_;
    std::thread thread_;
};

}  // namespace kavri::link_nats

#endif
