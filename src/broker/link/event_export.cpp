// Events for other brokers; see event_export.h.
#include "broker/link/event_export.h"

#include <algorithm>

#include "broker/link/frame_row.h"
#include "broker/link/subjects.h"

namespace kavri::broker {

namespace {

// The frames at the beginning that are of the first one's category, of about `most` bytes.
std::size_t sameCategoryBytes(std::string_view row, std::string_view category, std::size_t most) {
    std::size_t bytes = firstFrameBytes(row);
    while (bytes < row.size()) {
        const std::string_view rest = row.substr(bytes);
        const std::size_t next = firstFrameBytes(rest);
        if (bytes + next > most || wire::categoryOf(rest.data(), next) != category) {
            break;
        }
        bytes += next;
    }
    return bytes;
}

// Events as their publisher sent them. Behind the last there may be a goodbye, which is cut off:
// it is for nobody else.
void makePublishFrames(std::string& row) {
    std::size_t at = 0;
    while (at < row.size() && wire::typeOf(&row[at]) == wire::FrameType::event) {
        wire::replaceType(&row[at], wire::FrameType::publish);
        at += firstFrameBytes(std::string_view(row).substr(at));
    }
    row.resize(at);
}

}  // namespace

void EventExport::keepSubscribed() {
    if (session_ != nullptr || options_.exports.empty()) {
        return;
    }
    session_ = line_.openSession(Role::initiator, *this, nullptr);
    if (session_ == nullptr) {
        return;
    }
    for (const std::string& category : options_.exports) {
        if (line_.router.policy().at(category).subscribe.contains(linkUser) &&
            category.size() <= longestLinkedCategory) {
            line_.router.addSubscription(*session_, category);
        }
    }
}

void EventExport::subscribeAnew() {
    if (session_ != nullptr) {
        line_.closeSession(*session_, CloseCause::notPermitted, "the rights have changed");
    }
}

// What it had not sent is lost to those who import it.
void EventExport::end() {
    session_ = nullptr;
    for (auto& [category, published] : published_) {
        ++published.next;
    }
}

std::size_t EventExport::send(std::span<const iovec> pieces) {
    if (line_.bus.connection().isUp && !line_.hasRoom()) {
        waitsForRoom_ = true;
        return 0;
    }
    copyFrames(pieces, LinkLine::mostQueuedBytes, row_);
    const std::size_t taken = row_.size();
    makePublishFrames(row_);
    for (std::string_view rest = row_; !rest.empty();) {
        const std::string_view category =
            wire::categoryOf(rest.data(), firstFrameBytes(rest)).value_or("");
        const std::size_t bytes = sameCategoryBytes(rest, category, LinkLine::messageBytes);
        publish(category, rest.substr(0, bytes));
        rest.remove_prefix(bytes);
    }
    return taken;
}

void EventExport::publish(std::string_view category, std::string_view frames) {
    auto known = published_.find(category);
    if (known == published_.end()) {
        known =
            published_.try_emplace(std::string(category), Published{eventsSubject(category)}).first;
    }
    message_.clear();
    appendEncoded(
        {.kind = EnvelopeKind::events, .sender = line_.identity, .number = known->second.next++},
        message_);
    message_.append(frames);
    if (!line_.bus.publish(known->second.subject, message_) && line_.bus.connection().isUp) {
        line_.note("an event is larger than the link carries: it reaches no other machine");
    }
}

void EventExport::writeWaiting() {
    if (waitsForRoom_ && line_.hasRoom() && session_ != nullptr) {
        waitsForRoom_ = false;
        line_.router.toWrite().add(*session_, Receivers::one);
    }
}

}  // namespace kavri::broker
