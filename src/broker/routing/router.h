// Where frames go: from initiators to the responder of a category and back, and
// from a responder to those who subscribed. No I/O: it takes frames and fills
// send queues.
//
// A frame for a congested session is not routed: its sender is blocked on that session
// (see blocked.h).
#ifndef KAVRI_BROKER_ROUTING_ROUTER_H
#define KAVRI_BROKER_ROUTING_ROUTER_H

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "broker/routing/blocked.h"
#include "broker/routing/category_table.h"
#include "broker/routing/counts.h"
#include "broker/routing/flow_control.h"
#include "broker/routing/remote_services.h"
#include "broker/routing/request_table.h"
#include "broker/routing/tap.h"
#include "broker/routing/write_lists.h"
#include "broker/session/policy.h"
#include "broker/session/session.h"
#include "wire/frame.h"
#include "wire/limits.h"

namespace kavri::broker {

// A frame as it came in: its values, its bytes (whose header the router
// changes), and the block whose beginning they are, where there is one.
struct InputFrame {
    wire::Frame values;
    char* bytes = nullptr;
    std::size_t length = 0;
    BlockRef block;
    // Bytes of input after the frame; publish() adds small events from there to `length`.
    std::size_t bytesBehind = 0;
    std::size_t frames = 1;

    bool isLarge() const { return length >= wire::largeFrameBytes; }
};

class Router {
  public:
    // What the router needs of those who own the sessions.
    struct Surroundings {
        // Closes the session at the end of this round; the reason is logged and sent
        // to the peer.
        std::function<void(Session&, CloseCause, std::string_view reason)> close;
        // Logs a mistake of a session that stays connected.
        std::function<void(const Session&, std::string_view what)> note;
        // Begins to report to a manager; false while it is still being reported to.
        std::function<bool(Session&, std::uint64_t token)> report;
        std::function<Moment()> now;
    };

    Router(const wire::Limits& limits, const Policy& policy, BufferPool& pool,
           Surroundings surroundings);

    Tap& tap() { return tap_; }
    const Tap& tap() const { return tap_; }
    FlowControl& flowControl() { return flow_; }
    const FlowControl& flowControl() const { return flow_; }
    const Policy& policy() const { return policy_; }
    const TrafficCounts& counts() const { return counts_; }
    // The categories that are served within this process.
    const std::vector<const Category*>& embedded() const { return embedded_; }

    // Services on other machines; they outlive the router. To be called before anything is
    // routed, if at all.
    void join(RemoteServices& remote) { remote_ = &remote; }
    // Null where none was joined.
    const RemoteServices* remote() const { return remote_; }
    // Null where nobody serves it and nobody is subscribed to it.
    const Category* find(std::string_view category) const { return categories_.find(category); }

    // Whether a frame of this size is left in its sender's socket for now; its first
    // `count` bytes are there.
    [[nodiscard]] std::optional<Blocked> beginLarge(Session& from, const char* bytes,
                                                    std::size_t count, std::size_t frameBytes);

    [[nodiscard]] std::optional<Blocked> request(Session& from, InputFrame& frame);
    [[nodiscard]] std::optional<Blocked> response(Session& from, InputFrame& frame);
    [[nodiscard]] std::optional<Blocked> publish(Session& from, InputFrame& frame);
    // In place of a response: a completion, or, from another machine, a notice.
    void completion(Session& from, const wire::Frame& frame);
    void subscribe(Session& from, const wire::Frame& frame);
    void unsubscribe(Session& from, const wire::Frame& frame);
    void registerResponder(Session& from, const wire::Frame& frame);
    void query(Session& from, std::uint64_t token);

    // The policy has other contents than before.
    void policyChanged();

    // Serves a category within this process. The service outlives the router.
    void embed(std::string_view category, LocalService& service) {
        Category& embedded = categories_.at(category);
        embedded.local = &service;
        embedded_.push_back(&embedded);
    }

    // Removes a session that is being closed from every table: its subscriptions and
    // its registration end, its own requests are no longer pending, and the senders of
    // the requests that it had in flight get a notice.
    void forget(Session& session);

    // Enqueues a frame of the broker's own.
    void send(Session& to, const wire::Frame& frame);
    void acknowledge(Session& to, std::uint64_t token, kavri_core_status status);

    WriteLists& toWrite() { return toWrite_; }

    void addSubscription(Session& subscriber, std::string_view name);

  private:
    RemoteServices::Found responderOf(Session& from, const Category* category,
                                      std::string_view name);
    RemoteServices::Found remoteResponderOf(Session& from, std::string_view name);
    void forgetRemote(Session& session);
    void subscribersChanged(Category& category);
    void serviceChanged(const Category& category);

    std::optional<Blocked> answerLocally(Session& from, Category& category,
                                         const wire::Frame& request);
    std::optional<Blocked> blockedOnSubscriber(const Session& from, const Category& category) const;
    void gatherEvents(const Category& category, InputFrame& first) const;
    void deliverToSubscribers(const Session* from, const Category& category,
                              const InputFrame& event);
    void deliver(Session& to, const InputFrame& frame, Receivers receivers);
    void refuse(Session& from, const wire::Frame& request, kavri_core_status status);
    void answer(Session& from, const wire::Frame& asked, kavri_core_status status);
    void enqueue(Session& to, const wire::Frame& frame);

    void dropAnswer(Session& responder, const wire::Frame& frame, std::string_view mistake);
    void closeOutOfMemory(Session& session);

    const wire::Limits& limits_;
    const Policy& policy_;
    BufferPool& pool_;
    Surroundings surroundings_;
    Tap tap_;
    FlowControl flow_;
    CategoryTable categories_;
    RequestTable requests_;
    std::vector<const Category*> embedded_;
    RemoteServices* remote_ = nullptr;
    WriteLists toWrite_;
    TrafficCounts counts_;
};

}  // namespace kavri::broker

#endif
