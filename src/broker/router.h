// Where frames go: from initiators to the responder of a category and back, and
// from a responder to those who subscribed. No I/O: it takes frames and fills
// send queues.
//
// A frame may have to wait for a congested session (see flow_control.h): the
// router then names that session and leaves the frame to its sender, which is not
// read from until it is resumed.
#ifndef KAVRI_BROKER_ROUTER_H
#define KAVRI_BROKER_ROUTER_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/flow_control.h"
#include "broker/pending_requests.h"
#include "broker/policy.h"
#include "broker/session.h"
#include "interfaces/frame.h"
#include "interfaces/limits.h"
#include "test_service/test_service.h"

namespace kavri::broker {

// A frame as it came in: its values, its bytes (whose header the router
// changes), and the block whose beginning they are, where there is one.
struct InputFrame {
    interfaces::Frame values;
    char* bytes = nullptr;
    std::size_t length = 0;
    BlockRef block;
};

struct Category {
    std::string name;
    const CategoryPolicy* policy = nullptr;
    Session* responder = nullptr;
    Charge responderCharge;                         // for the name
    test_service::TestService* embedded = nullptr;  // in a responder's place
    std::vector<Session*> subscribers;

    bool isServed() const { return responder != nullptr || embedded != nullptr; }
};

class Router {
  public:
    // What the router needs of those who own the sessions.
    struct Surroundings {
        // Closes the session at the end of this round; the reason is logged and
        // told to it.
        std::function<void(Session&, std::string_view reason)> close;
        // Logs what a session did wrong, where it is let go on.
        std::function<void(const Session&, std::string_view what)> note;
    };

    Router(const interfaces::Limits& limits, const Policy& policy, BufferPool& pool,
           Surroundings surroundings);

    FlowControl& flowControl() { return flow_; }

    // The session that a frame of this size has to wait for before the rest of it
    // is read, or null; the first `count` bytes are there.
    Session* mustWaitToBegin(Session& from, const char* bytes, std::size_t count,
                             std::size_t frameBytes);

    // Each returns the session that the frame must wait for, or null when it
    // was handled.
    [[nodiscard]] Session* request(Session& from, InputFrame& frame);
    [[nodiscard]] Session* response(Session& from, InputFrame& frame);
    [[nodiscard]] Session* publish(Session& from, InputFrame& frame);
    // Small events that stand behind one another in the same input are delivered
    // together: each subscriber's send queue is then looked for once, not for each.
    // To be called before any other frame of theirs is handled, and before their
    // bytes go.
    void endPublishing();
    // Drops those that are not delivered yet.
    void cancelPublishing() { run_ = {}; }

    void completion(Session& from, std::uint64_t token);
    void subscribe(Session& from, const interfaces::Frame& frame);
    void unsubscribe(Session& from, const interfaces::Frame& frame);
    void registerResponder(Session& from, const interfaces::Frame& frame);

    // The policy has other contents than before.
    void policyChanged();

    // Serves a category within this process.
    void embed(std::string_view category, test_service::TestService& service);

    // The session is about to go: its subscriptions and what it serves end, and
    // the senders of the requests that it had in flight get a notice. Its own
    // requests are no longer pending.
    void forget(Session& session);

    // For everything else that is to be said to a session.
    void send(Session& to, const interfaces::Frame& frame);

    // Sessions whose send queue got something since the list was last taken.
    std::vector<Session*>& toWrite() { return toWrite_; }

  private:
    Category* findCategory(std::string_view name);
    Category& categoryNamed(std::string_view name);
    void dropIfUnused(Category& category);
    void addSubscription(Session& subscriber, std::string_view name);

    // Events behind one another, of the category that `from` serves.
    struct EventRun {
        const Session* from = nullptr;
        char* bytes = nullptr;
        std::size_t length = 0;

        bool isGoneOnWith(const InputFrame& frame) const { return bytes + length == frame.bytes; }
    };

    Session* answerEmbedded(Session& from, Category& category, const interfaces::Frame& request);
    Session* slowSubscriber(const Session& from, const Category& category) const;
    void deliverToSubscribers(const Category& category, const InputFrame& event);
    void deliver(Session& to, const InputFrame& frame);
    void refuse(Session& from, std::uint64_t token, kavri_core_status status);
    void acknowledge(Session& to, std::uint64_t token, kavri_core_status status);

    bool dropsSilently(Session& responder);
    void closeOutOfMemory(Session& session);
    void markForWriting(Session& session);

    const interfaces::Limits& limits_;
    const Policy& policy_;
    BufferPool& pool_;
    Surroundings surroundings_;
    FlowControl flow_;
    std::unordered_map<std::string_view, std::unique_ptr<Category>> categories_;
    PendingRequests pendingRequests_;
    std::vector<Session*> toWrite_;
    EventRun run_;
};

}  // namespace kavri::broker

#endif
