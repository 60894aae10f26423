// The broker's event loop: sockets, sessions and time, around the protocol and the
// router.
//
// One thread. Each round does a bounded amount of each kind of work, so that no
// peer starves another: signals; then one read from each session that is ready,
// the smaller the more there are; then the deadlines that have passed; then a few
// of the connections that wait; then one write to each session with new output,
// and the closing of some sessions. Between rounds the loop tries again for a
// moment before it sleeps.
#ifndef KAVRI_BROKER_SERVER_H
#define KAVRI_BROKER_SERVER_H

#include <functional>
#include <string>
#include <vector>

#include "broker/acceptor.h"
#include "broker/deadlines.h"
#include "broker/listener.h"
#include "broker/log.h"
#include "broker/loop_clock.h"
#include "broker/memory_reserve.h"
#include "broker/policy.h"
#include "broker/protocol.h"
#include "broker/readiness.h"
#include "broker/router.h"
#include "broker/sessions.h"
#include "broker/traffic.h"
#include "interfaces/spin.h"

namespace kavri::broker {

struct ServerOptions {
    interfaces::Limits limits;
    Policy policy;
    std::string identity;  // a uuid
};

class Server {
  public:
    Server(ServerOptions options, Listener& listener, const Log& log);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const interfaces::Limits& limits() const { return limits_; }

    void embed(std::string_view category, test_service::TestService& service) {
        router_.embed(category, service);
    }

    // Serves until it is stopped, then says goodbye to all. Throws CannotListen,
    // after the goodbye, where its socket was taken away for good. Calls onSignal
    // once in each round in which the descriptor is readable; it may call stop and
    // reconfigure.
    void run(int signalDescriptor, std::function<void()> onSignal);
    void stop() { stopping_ = true; }

    // What is decided from now on goes by these, except that the longest payload
    // stays as it was negotiated. Closes the sessions that lose a right they use.
    void reconfigure(interfaces::Limits limits, Policy policy);

  private:
    static constexpr std::size_t removalsPerRound = 64;
    // What all reads of a round share in frames, about, and what one session gets of it:
    // so a peer with much to say delays others by some microseconds only, and many by
    // less than a millisecond.
    static constexpr std::size_t framesPerRound = 4096;
    static constexpr std::size_t framesPerRead = 128;
    static constexpr std::size_t leastFramesPerRead = 16;
    // From one that may have events for several more is read, since these then leave in
    // fewer writes; but a round delivers no more than this.
    static constexpr std::size_t eventBytesPerRound = 1 * interfaces::mebibyte;
    static constexpr std::size_t leastEventBytesPerRead = 2 * interfaces::kibibyte;

    void waitForEvents();
    Clock::duration sleep();
    int sleepTimeMs(Clock::time_point now) const;
    bool hasWorkLeft() { return !router_.toWrite().empty() || !closing_.empty(); }
    void handleEvent(const epoll_event& event);
    std::size_t readShare(const Session& session) const;
    void handleDeadlines();
    void handleDeadline(DeadlineKind kind, Session& session);
    void finishRound();
    void sayGoodbye();

    void open(const Accepted& accepted);
    void keepListening();

    Session* find(SessionId id) { return sessions_.find(id); }
    void close(Session& session, kavri_core_status status, std::string_view reason);
    void remove(Session& session);

    interfaces::Limits limits_;
    Policy policy_;
    std::function<void()> onSignal_;
    bool connectionsWait_ = false;
    bool filesChanged_ = false;
    bool stopping_ = false;
    std::string failure_;  // why it cannot go on, if so

    MemoryReserve reserve_;
    BufferPool pool_;
    SessionTable sessions_;
    Router router_;
    Protocol protocol_;
    Deadlines deadlines_;
    Readiness readiness_;
    Acceptor acceptor_;
    Traffic traffic_;
    interfaces::Spin spin_;
    LoopClock clock_;
    Clock::time_point now_;  // by the loop's clock

    std::vector<Session*> closing_;
};

}  // namespace kavri::broker

#endif
