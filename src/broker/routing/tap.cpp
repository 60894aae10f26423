// What monitors are shown, and what they lose; see tap.h.
#include "broker/routing/tap.h"

#include <algorithm>
#include <array>

#include "base/assert.h"
#include "broker/routing/category_table.h"

namespace kavri::broker {

using wire::Field;
using wire::Frame;
using wire::FrameType;

// One thing that passed.
struct Tap::Observation {
    std::string_view type;
    const Session* from = nullptr;
    const Session* to = nullptr;
    Frame values;                 // as they are shown
    std::size_t frameBytes = 0;   // 0: it is no frame
    std::string_view category{};  // that it belongs to
    bool isDropped = false;
    std::string_view reason{};
    Clock::time_point sentAt{};              // of an answer: its request
    const Category* subscribedTo = nullptr;  // by the receivers of an event

    bool isWantedBy(const Monitor& monitor) const {
        if (monitor.category && *monitor.category != category) {
            return false;
        }
        const auto wants = [&](const Session* peer) { return peer && monitor.wants(*peer); };
        return monitor.wantsEveryPeer() || wants(from) || wants(to) ||
               (subscribedTo && std::ranges::any_of(subscribedTo->subscribers, wants));
    }
};

namespace {

// Connection, process and user; nothing of the broker.
void addPeer(Lines& lines, std::string_view name, const Session* peer) {
    if (peer == nullptr) {
        return;
    }
    lines.add(name, numberOf(peer->id), peer->process, peer->user);
}

void addMoment(Lines& lines, const Moment& moment) {
    lines.add(
        "at",
        std::chrono::floor<std::chrono::microseconds>(moment.wall.time_since_epoch()).count());
}

// Names may be 64 KiB long. Of one that is cut, the lines have the length.
std::string_view cut(std::string_view name) {
    return name.substr(0, Tap::mostNameBytes);
}

void addSizes(Lines& lines, const Frame& values, std::size_t frameBytes) {
    constexpr std::array names = {"category_bytes", "identifier_bytes", "uuid_bytes"};
    if (frameBytes > 0) {
        lines.add("bytes", frameBytes);
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (values.fields[i].size() > Tap::mostNameBytes) {
            lines.add(names[i], values.fields[i].size());
        }
    }
    if (values.has(Field::payload)) {
        lines.add("payload_bytes", values[Field::payload].size());
    }
}

}  // namespace

bool Tap::begin(Session& session, Monitor monitor) {
    const std::size_t bytes = sizeof(Monitor) + (monitor.category ? monitor.category->size() : 0);
    if (monitors_.size() >= mostMonitors ||
        session.account.memory.bytes() + bytes > limits_.bytesPerUser) {
        return false;
    }
    monitors_.reserve(monitors_.size() + 1);
    monitor.charge = Charge(session.account.memory, bytes);
    session.monitor = std::make_unique<Monitor>(std::move(monitor));
    monitors_.push_back(&session);
    return true;
}

void Tap::observeFrame(const Session* from, const Session* to, const Frame& values,
                       const Circumstances& circumstances) {
    const Category* category = from != nullptr && from->asResponder.served != nullptr
                                   ? from->asResponder.served
                                   : circumstances.category;
    Observation observation{.type = wire::typeName(values.type),
                            .from = from,
                            .to = to,
                            .values = values,
                            .frameBytes = wire::encodedBytes(values),
                            .category = category ? category->name : values[Field::category],
                            .isDropped = circumstances.isDropped,
                            .sentAt = circumstances.sentAt};
    observation.values.status = static_cast<std::uint16_t>(circumstances.status);
    if (category != nullptr && !values.has(Field::category)) {
        observation.values[Field::category] = category->name;
    }
    show(observation);
}

void Tap::observeEvents(const Session* from, const Category& category, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto values = wire::decode(bytes.data());
        KAVRI_ASSERT(values, "events are checked before they are delivered");
        const std::size_t frameBytes = wire::encodedBytes(*values);
        show({.type = wire::typeName(FrameType::event),
              .from = from,
              .values = *values,
              .frameBytes = frameBytes,
              .category = category.name,
              .subscribedTo = &category});
        bytes.remove_prefix(frameBytes);
    }
}

void Tap::observeClose(const Session& session, kavri_core_status status, std::string_view reason) {
    const Category* served = session.asResponder.served;
    Observation observation{.type = "close",
                            .from = &session,
                            .values = {.status = static_cast<std::uint16_t>(status)},
                            .reason = reason};
    if (served != nullptr) {
        observation.category = observation.values[Field::category] = served->name;
    }
    show(observation);
}

void Tap::show(const Observation& observation) {
    for (Session* session : monitors_) {
        if (session->isClosing || !observation.isWantedBy(*session->monitor)) {
            continue;
        }
        if (hasRoom(*session)) {
            showTo(*session, observation, surroundings_.now());
        } else {
            ++session->monitor->lost;
        }
    }
}

void Tap::showTo(Session& monitor, const Observation& observation, const Moment& now) {
    if (monitor.monitor->lost > 0) {
        tellLost(monitor, now);
    }
    Lines& lines = lines_;
    lines.clear();
    addMoment(lines, now);
    lines.add("type", observation.type);
    addPeer(lines, "from", observation.from);
    addPeer(lines, "to", observation.to);
    if (observation.subscribedTo != nullptr) {
        lines.add("receivers", observation.subscribedTo->subscribers.size());
    }
    addSizes(lines, observation.values, observation.frameBytes);
    if (observation.sentAt != Clock::time_point{}) {
        lines.add("elapsed_ns", (now.steady - observation.sentAt).count());
    }
    if (observation.isDropped) {
        lines.add("dropped", 1);
    }
    if (!observation.reason.empty()) {
        lines.add("reason", cut(observation.reason));
    }
    Frame shown = observation.values;
    if (shown.has(Field::payload) && monitor.monitor->payloadBytes > 0) {
        lines.addPayload(shown[Field::payload].substr(0, monitor.monitor->payloadBytes));
    }
    shown.type = FrameType::observed;
    for (const Field name : {Field::category, Field::identifier, Field::uuid}) {
        shown[name] = cut(shown[name]);
    }
    shown[Field::payload] = lines.text();
    surroundings_.enqueue(monitor, shown);
    writeSoon(monitor, now.steady);
}

void Tap::tellLost(Session& monitor, const Moment& now) {
    lines_.clear();
    addMoment(lines_, now);
    lines_.add("lost", std::exchange(monitor.monitor->lost, 0));
    Frame observed;
    observed.type = FrameType::observed;
    observed[Field::payload] = lines_.text();
    surroundings_.enqueue(monitor, observed);
}

// One that takes everything has room, whatever else its user has in the broker.
bool Tap::hasRoom(const Session& monitor) const {
    return monitor.sendQueue.empty() || (monitor.sendQueue.bytes() < limits_.sendQueueBytes / 8 &&
                                         monitor.account.memory.bytes() < limits_.bytesPerUser / 2);
}

// One whose socket is full is written to when that has room again.
void Tap::writeSoon(Session& monitor, Clock::time_point now) {
    if (monitor.congestion != nullptr) {
        return;
    }
    if (monitor.sendQueue.bytes() >= gatheredBytes) {
        surroundings_.write(monitor);
    } else if (!due_) {
        due_ = now + gatheringTime;
    }
}

void Tap::writeDue(Clock::time_point now) {
    if (!due_ || *due_ > now) {
        return;
    }
    due_.reset();
    for (Session* session : monitors_) {
        if (!session->sendQueue.empty() && session->congestion == nullptr) {
            surroundings_.write(*session);
        }
    }
}

void Tap::drained(Session& monitor) {
    if (monitor.monitor->lost > 0 && !monitor.isClosing) {
        const Moment now = surroundings_.now();
        tellLost(monitor, now);
        writeSoon(monitor, now.steady);
    }
}

}  // namespace kavri::broker
