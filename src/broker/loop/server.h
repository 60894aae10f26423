// The broker's event loop: sockets, sessions and time, around the protocol and the
// router.
//
// One thread. Each round does a bounded amount of each kind of work, so that no
// peer starves another: signals; then one read from each session that is ready,
// the smaller the more there are, and from a few of those that send more than their
// share; then the deadlines that have passed; then a few of the connections that
// wait, and some of the reports that managers asked for; then one write to each
// session with new output, and the closing of some sessions. Between rounds the loop
// tries again for a moment before it sleeps.
#ifndef KAVRI_BROKER_LOOP_SERVER_H
#define KAVRI_BROKER_LOOP_SERVER_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "broker/link/link.h"
#include "broker/log/log.h"
#include "broker/loop/acceptor.h"
#include "broker/loop/deadlines.h"
#include "broker/loop/heartbeat.h"
#include "broker/loop/listener.h"
#include "broker/loop/loop_clock.h"
#include "broker/loop/readiness.h"
#include "broker/loop/sessions.h"
#include "broker/loop/traffic.h"
#include "broker/management/reports.h"
#include "broker/memory/memory_reserve.h"
#include "broker/routing/protocol.h"
#include "broker/routing/router.h"
#include "broker/session/policy.h"
#include "wire/spin.h"

namespace kavri::broker {

struct ServerOptions {
    wire::Limits limits;
    Policy policy;
    std::string identity;  // a uuid
    BrokerFacts facts;
    Heartbeat heartbeat{};
};

class Server {
  public:
    Server(ServerOptions options, Listener& listener, const Log& log);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const wire::Limits& limits() const { return limits_; }

    void embed(std::string_view category, LocalService& service) {
        router_.embed(category, service);
    }

    // Joins the broker to others. To be called before run, once.
    void join(std::unique_ptr<Bus> bus, LinkOptions options);

    // Runs until stop is called, then closes all sessions with a goodbye. Throws
    // CannotListen, after the goodbyes, if its socket was replaced by another's. Calls
    // onSignal once in each round in which the descriptor is readable; it may call stop
    // and reconfigure.
    void run(int signalDescriptor, std::function<void()> onSignal);
    void stop() { stopping_ = true; }

    // Applies from now on, except that the payload limit stays as it was negotiated.
    // Closes the sessions that lose a right that they use.
    void reconfigure(wire::Limits limits, Policy policy);

  private:
    static constexpr std::size_t goodbyesPerRound = 64;
    // About how many frames all reads of a round share, and how many of them one session
    // gets: a busy peer delays others by microseconds, and many by less than a
    // millisecond.
    static constexpr std::size_t framesPerRound = 4096;
    static constexpr std::size_t framesPerRead = 128;
    static constexpr std::size_t leastFramesPerRead = 16;
    // What all bulk sessions share in a round in which others may be waiting.
    static constexpr std::size_t bulkFramesPerRound = 64;
    // What a round does for events to several: the more, the fewer writes they leave in,
    // and the longer others wait for the end of the round.
    struct FanOutShare {
        std::size_t deliveredBytes;
        std::size_t leastReadBytes;
        std::size_t writes;
    };
    static constexpr FanOutShare fanOutAlone{1 * wire::mebibyte, 2 * wire::kibibyte, 32};
    static constexpr FanOutShare fanOutBesideOthers{256 * wire::kibibyte, wire::headerBytes, 8};
    // What a delivery costs beside the copying of its bytes, in such bytes.
    static constexpr std::size_t deliveryCostBytes = 256;
    // For so long after others sent something, they are expected to send more.
    static constexpr std::chrono::milliseconds othersStay{1};

    void waitForEvents();
    Clock::duration sleep(wire::Spin& spin);
    std::optional<Clock::time_point> sleepUntil(Clock::time_point now) const;
    bool hasWorkLeft() {
        return !router_.toWrite().empty() || !closing_.empty() || traffic_.hasRestToRelease() ||
               reports_.hasWork() || (link_ != nullptr && link_->hasWork());
    }
    void handleEvent(const epoll_event& event);
    void handleSession(Session& session, const epoll_event& event);
    void handleBulk();
    Session* openRemote(Role role, Transport& transport, Session* payer);
    void advanceLink();
    void receive(Session& session);
    std::size_t readShare(const Session& session) const;
    const FanOutShare& fanOutShare() const;
    void handleDeadlines();
    void handleDeadline(DeadlineKind kind, Session& session);
    void write(Session& session);
    void finishRound();
    void sayGoodbye();

    void open(const Accepted& accepted);
    void keepListening();

    Session* find(SessionId id) { return sessions_.find(id); }
    void close(Session& session, CloseCause cause, std::string_view reason);
    void logClosing(const Session& session, std::string_view reason);
    void leave(Session& session);
    void remove(Session& session);

    wire::Limits limits_;
    Policy policy_;
    const std::string identity_;
    const BrokerFacts facts_;
    const Log& log_;
    ConnectionCounts counts_;
    std::function<void()> onSignal_;
    Clock::time_point othersSentAt_;  // than a publisher to several
    bool bulkIsReady_ = false;
    bool connectionsWait_ = false;
    bool filesChanged_ = false;
    bool stopping_ = false;
    std::string failure_;  // why the loop ends, unless it was stopped

    MemoryReserve reserve_;
    BufferPool pool_;
    SessionTable sessions_;
    Router router_;
    Reports reports_;
    Protocol protocol_;
    Deadlines deadlines_;
    Readiness readiness_;
    Acceptor acceptor_;
    Traffic traffic_;
    wire::Spin spin_;
    // Another machine takes longer to answer, and one kind of wait says nothing of the other.
    wire::Spin spinForLink_{wire::Spin::answerOfAnotherMachine};
    bool sentOverLink_ = false;  // in the last round
    Heartbeat heartbeat_;
    LoopClock clock_;
    Clock::time_point now_;  // by the loop's clock

    std::unique_ptr<Link> link_;  // to other brokers, where there is one

    std::vector<Session*> closing_;
    std::vector<Session*> leaving_;  // removed when no sender is blocked on them
};

}  // namespace kavri::broker

#endif
