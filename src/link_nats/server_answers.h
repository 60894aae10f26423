// What a server itself answers, where nobody listens to what was published: noted by a thread
// of libnats, taken by the bus.
#ifndef KAVRI_LINK_NATS_SERVER_ANSWERS_H
#define KAVRI_LINK_NATS_SERVER_ANSWERS_H

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "base/blocked_signals.h"
#include "link_nats/libnats.h"
#include "link_nats/wakeup.h"

namespace kavri::link_nats {

class ServerAnswers {
  public:
    struct Answer {
        std::uint32_t subscription;
        std::string subject;
    };

    explicit ServerAnswers(std::shared_ptr<const Wakeup> wakeup) : wakeup_(std::move(wakeup)) {}

    std::optional<Answer> take() {
        const std::lock_guard lock(mutex_);
        if (answers_.empty()) {
            return {};
        }
        Answer first = std::move(answers_.front());
        answers_.pop_front();
        return first;
    }

    // Null where the connection is lost. The subscription may outlive everything but its
    // share of the answers.
    static natsSubscription* subscribe(const std::shared_ptr<ServerAnswers>& answers,
                                       natsConnection* connection, const std::string& subject,
                                       std::uint32_t id) {
        const base::BlockedSignals blocked;
        auto share = std::make_unique<Share>(answers, id);
        natsSubscription* made = nullptr;
        if (natsConnection_Subscribe(&made, connection, subject.c_str(), note, share.get()) ==
            NATS_OK) {
            natsSubscription_SetOnCompleteCB(made, release, share.release());
        }
        return made;
    }

  private:
    using Share = std::pair<std::shared_ptr<ServerAnswers>, std::uint32_t>;

    static void note(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                     natsMsg* message, void* closure) {
        const auto& [answers, id] = *static_cast<Share*>(closure);
        if (natsMsg_IsNoResponders(message)) {
            const std::lock_guard lock(answers->mutex_);
            answers->answers_.push_back({id, natsMsg_GetSubject(message)});
            answers->wakeup_->ring();
        }
        natsMsg_Destroy(message);
    }

    static void release(void* closure) { delete static_cast<Share*>(closure); }

    const std::shared_ptr<const Wakeup> wakeup_;
    std::mutex mutex_;
    std::deque<Answer> answers_;
};

}  // namespace kavri::link_nats

#endif
