// The tap: shows what passes the broker to those who monitor it.
//
// The router and the protocol call it wherever a frame is routed, refused or dropped, and
// where a connection begins or ends. Without a monitor that is one branch that is not
// taken. Each observation becomes a frame in the send queue of every monitor that wants it;
// the write is put off for a moment, so that one wake-up brings many.
//
// A monitor never delays anybody: where too much is queued for it already, or its user's
// share is half used up, the observation is lost, and counted. The count precedes the next
// observation that finds room, or follows when the queue has drained.
#ifndef KAVRI_BROKER_ROUTING_TAP_H
#define KAVRI_BROKER_ROUTING_TAP_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "broker/session/session.h"
#include "wire/frame.h"
#include "wire/limits.h"
#include "wire/lines.h"

namespace kavri::broker {

// One moment by both clocks: to be compared, and to be shown.
struct Moment {
    Clock::time_point steady;
    std::chrono::system_clock::time_point wall;
    static Moment now() { return {Clock::now(), std::chrono::system_clock::now()}; }
};

// What goes with an observed frame.
struct Circumstances {
    kavri_core_status status = KAVRI_CORE_STATUS_NO_ERROR;  // with which the broker answers it
    bool isDropped = false;
    // Of an answer: when its request was sent, unless nobody monitored then.
    Clock::time_point sentAt{};
    // The category that it belongs to, where its frame does not name it.
    const Category* category = nullptr;
};

class Tap {
  public:
    // No more at a time, since each costs the traffic something.
    static constexpr std::size_t mostMonitors = 16;
    // Of a category, identifier or uuid.
    static constexpr std::size_t mostNameBytes = 256;
    // For how long, and for how many bytes, the write to a monitor is put off.
    static constexpr std::chrono::milliseconds gatheringTime{20};
    static constexpr std::size_t gatheredBytes = 64 * wire::kibibyte;

    struct Surroundings {
        // Enqueues a frame for the session, but does not have it written.
        std::function<void(Session&, const wire::Frame&)> enqueue;
        // Has the session's send queue written in this round.
        std::function<void(Session&)> write;
        std::function<Moment()> now;
    };

    Tap(const wire::Limits& limits, Surroundings surroundings)
        : limits_(limits), surroundings_(std::move(surroundings)) {}

    bool isActive() const { return !monitors_.empty(); }
    // When a request is sent, for the time that its answer takes; not known without a monitor.
    Clock::time_point sendingTime() const {
        return isActive() ? surroundings_.now().steady : Clock::time_point{};
    }

    // A frame from one peer to another. Null is the broker: it made the frame, or it is
    // the broker that answers.
    void frame(const Session* from, const Session* to, const wire::Frame& values,
               const Circumstances& circumstances = {}) {
        if (isActive()) [[unlikely]] {
            observeFrame(from, to, values, circumstances);
        }
    }
    // Events that follow one another in `bytes`, to all subscribers.
    void events(const Session* from, const Category& category, std::string_view bytes) {
        if (isActive()) [[unlikely]] {
            observeEvents(from, category, bytes);
        }
    }
    // A connection ends; without a reason where its peer has closed it.
    void closed(const Session& session, kavri_core_status status, std::string_view reason) {
        if (isActive()) [[unlikely]] {
            observeClose(session, status, reason);
        }
    }

    // False where there are too many already, or its user's share is used up.
    bool begin(Session& session, Monitor monitor);
    // For a session that is removed, whether it monitors or not.
    void forget(const Session& session) { std::erase(monitors_, &session); }

    // When what was put off is to be written.
    std::optional<Clock::time_point> due() const { return due_; }
    void writeDue(Clock::time_point now);
    // The monitor has taken everything.
    void drained(Session& monitor);

  private:
    struct Observation;

    void observeFrame(const Session* from, const Session* to, const wire::Frame& values,
                      const Circumstances& circumstances);
    void observeEvents(const Session* from, const Category& category, std::string_view bytes);
    void observeClose(const Session& session, kavri_core_status status, std::string_view reason);
    void show(const Observation& observation);
    void showTo(Session& monitor, const Observation& observation, const Moment& now);
    void tellLost(Session& monitor, const Moment& now);
    bool hasRoom(const Session& monitor) const;
    void writeSoon(Session& monitor, Clock::time_point now);

    const wire::Limits& limits_;
    const Surroundings surroundings_;
    std::vector<Session*> monitors_;
    Lines lines_{1024 + Monitor::mostPayloadBytes};  // of an observation; used again for the next
    std::optional<Clock::time_point> due_;
};

}  // namespace kavri::broker

#endif
