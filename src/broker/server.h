// The broker's loop: sockets, sessions and time, around the protocol and the
// router. The only file of the broker that waits, reads and writes.
//
// One thread. Each round takes what the kernel has ready: one read from each
// session that has something, so that none keeps the others waiting; then one
// write to each session that something was put up for; then the sessions that
// are to go. Between rounds it tries again for a moment before it sleeps.
#ifndef KAVRI_BROKER_SERVER_H
#define KAVRI_BROKER_SERVER_H

#include <sys/epoll.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "broker/deadlines.h"
#include "broker/listener.h"
#include "broker/memory_reserve.h"
#include "broker/policy.h"
#include "broker/protocol.h"
#include "broker/router.h"
#include "broker/session.h"
#include "interfaces/spin.h"

namespace kavri::broker {

struct ServerOptions {
    interfaces::Limits limits;
    Policy policy;
    std::string identity;  // a uuid
    // Becomes readable when the broker is to stop.
    int stopDescriptor = -1;
};

class Server {
  public:
    Server(ServerOptions options, Listener& listener);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server();

    void embed(std::string_view category, test_service::TestService& service) {
        router_.embed(category, service);
    }

    // Serves until the stop descriptor is readable, then says goodbye to all.
    void run();

  private:
    static constexpr std::size_t eventsPerRound = 256;
    // One read takes at most this much from one session; in front of it there
    // is room for the beginning of a frame that came before.
    static constexpr std::size_t readBytes = 128 * interfaces::kibibyte;
    static constexpr std::size_t readBehindLargeBytes = 512;

    std::size_t waitForEvents();
    int sleepTimeMs(Clock::time_point now) const;
    void handleEvent(const epoll_event& event);
    void handleDeadlines();
    void finishRound();
    void stop();

    void acceptAll();
    void open(const Accepted& accepted);
    void turnAway(const Accepted& accepted, kavri_core_status status, std::string_view reason);

    void readFrom(Session& session);
    void readLarge(Session& session);
    void ended(Session& session, int error);
    template <typename Take>
    void takeInput(Session& session, Take take);
    void waitOrGoOn(Session& session, Session* waitFor);
    void release(Session& drained);
    void watchFrame(Session& session);
    void checkFrame(Session& session);

    void writeTo(Session& session);
    void wrote(Session& session, std::size_t count);
    void beginMeasuring(Session& session);
    void checkDrain(Session& session);
    void setDrainDeadline(const Session& session);
    void endIfDrained(Session& session);
    void poll(Session& session);

    Session* find(SessionId id);
    void close(Session& session, kavri_core_status status, std::string_view reason);
    void remove(Session& session);

    const interfaces::Limits limits_;
    const Policy policy_;
    Listener& listener_;
    const int stopDescriptor_;
    int epoll_ = -1;
    bool listening_ = false;
    bool stopping_ = false;

    MemoryReserve reserve_;
    BufferPool pool_;
    std::unordered_map<uid_t, UserAccount> users_;
    Router router_;
    Protocol protocol_;
    Deadlines deadlines_;
    interfaces::Spin spin_;
    Clock::time_point now_;

    std::size_t connections_ = 0;
    // Sessions by the index of their id; an index is used again with the next
    // generation.
    struct Place {
        std::unique_ptr<Session> session;
        std::uint32_t generation = 0;
    };
    std::vector<Place> places_;
    std::vector<std::uint32_t> freePlaces_;
    std::vector<Session*> closing_;

    std::vector<epoll_event> events_;
    std::vector<char> readBuffer_;
};

}  // namespace kavri::broker

#endif
