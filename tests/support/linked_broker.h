// Brokers of several machines, with a link over a bus in memory and programs that a test
// speaks for: no sockets, and the test's clock.
//
// A LinkedBroker does in a round what the broker's loop does; a LinkedWorld goes on with the
// rounds while there is something to do, then moves its clock.
#ifndef KAVRI_TESTS_SUPPORT_LINKED_BROKER_H
#define KAVRI_TESTS_SUPPORT_LINKED_BROKER_H

#include <array>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "broker/link/link.h"
#include "broker/link/subjects.h"
#include "broker/session/goodbye.h"
#include "support/fake_bus.h"
#include "support/scripted_broker.h"

namespace kavri::tests {

// A program on a broker's machine. What its library would have read is in `heard`.
struct Program {
    Session* session = nullptr;  // null once its connection has ended
    std::string heard;
    std::string closing;  // why it has: "status 14: the reason"
    bool reads = true;

    bool isConnected() const { return session != nullptr && !session->isClosing; }
    bool maySpeak() const { return isConnected() && !session->isBlocked(); }
};

inline broker::LinkOptions linkOf(const std::vector<std::string>& exports,
                                  const std::vector<std::string>& imports) {
    broker::LinkOptions options;
    options.exports = {exports.begin(), exports.end()};
    options.imports = {imports.begin(), imports.end()};
    options.importsAll = options.imports.erase("*") > 0;
    return options;
}

// Responders of other machines may serve every category.
inline broker::Policy servedByLink() {
    broker::Policy policy;
    policy.otherCategories.serve.listed.insert(broker::linkUser);
    return policy;
}

class LinkedBroker : public ScriptedBroker {
  public:
    LinkedBroker(FakeHub& hub, std::unique_ptr<FakeBus> itsBus, const broker::LinkOptions& options,
                 const wire::Limits& itsLimits, broker::Policy itsPolicy, std::uint32_t number)
        : ScriptedBroker(itsLimits, std::move(itsPolicy)),
          bus(*itsBus),
          uuid(uuidOf(number)),
          hub_(hub) {
        now = hub.now;
        link = std::make_unique<broker::Link>(
            std::move(itsBus), options, uuid,
            broker::Link::Surroundings{
                router, now,
                [this](broker::Role role, broker::Transport& transport, Session* payer) {
                    return &connectRemote(role, transport, payer);
                },
                [this](Session& session, broker::CloseCause cause, std::string_view reason) {
                    close(session, cause, reason);
                },
                [this](Session& session, char* bytes, std::size_t count) {
                    blockOn(session, protocol.take(session, bytes, count));
                },
                [this](std::string_view what) { notes.emplace_back(what); }});
        router.join(*link);
        link->begin();
    }

    FakeBus& bus;
    const std::string uuid;
    std::unique_ptr<broker::Link> link;
    bool sentOverLink = false;  // in the last round

    broker::BrokerIdentity identity() const { return broker::identityOf(uuid); }

    Program& initiator(uid_t user = someUser) { return add("initiator", user); }
    Program& responder(std::string_view category, uid_t user = someUser) {
        Program& program = add("responder", user);
        say(program, makeFrame(FrameType::registration, 1, {.category = category}));
        return heardNothing(program);
    }
    Program& subscriber(std::string_view category, uid_t user = someUser) {
        Program& program = initiator(user);
        say(program, makeFrame(FrameType::subscribe, 1, {.category = category}));
        return heardNothing(program);
    }

    void say(Program& program, const Frame& frame) {
        if (!program.maySpeak()) {
            throw std::logic_error("a program speaks that is gone, or is not read from");
        }
        ScriptedBroker::say(*program.session, frame);
        hasSpoken_ = true;
    }
    // What it has heard since the last time: one frame a line.
    std::string hear(Program& program) { return describeAll(std::exchange(program.heard, {})); }
    // The program ends its connection.
    void leave(Program& program) {
        if (program.isConnected()) {
            close(*program.session, broker::CloseCause::leftByPeer, {});
        }
    }

    // The configuration was read anew.
    void changePolicy(const broker::Policy& changed) {
        policy = changed;
        router.policyChanged();
        link->policyChanged();
        hasSpoken_ = true;
    }

    // All sessions are closed, as when the broker stops.
    void stop() {
        forEachSession([this](Session& session) {
            close(session, broker::CloseCause::stopping, "the broker is stopping");
        });
        while (leaveClosing()) {
        }
        link->flush();
    }

    bool isDue() {
        bool somebodyIsClosing = false;
        forEachSession([&](const Session& session) { somebodyIsClosing |= session.isClosing; });
        return hasSpoken_ || bus.isReadable() || link->hasWork() || !router.toWrite().empty() ||
               somebodyIsClosing || (link->due() && *link->due() <= hub_.now) ||
               hub_.now >= nextSample_;
    }

    void round() {
        now = hub_.now;
        hasSpoken_ = false;
        if (bus.isReadable()) {
            link->handle();
        }
        measureDrains();
        link->advance();
        const auto writeTo = [this](Session& session) { write(session); };
        router.toWrite().writeAllOfOne(writeTo);
        router.toWrite().writeSomeOfMany(SIZE_MAX, writeTo);
        leaveClosing();
        sentOverLink = link->flush();
    }

    // Frames in the send queues, of what is sent over the link.
    std::size_t bytesInChannels() {
        std::size_t bytes = 0;
        forEachSession([&](const Session& session) {
            bytes += session.transport == nullptr ? 0 : session.sendQueue.bytes();
        });
        return bytes;
    }

    void resumeReading(Program& program) {
        program.reads = true;
        if (program.session != nullptr) {
            write(*program.session);
        }
        hasSpoken_ = true;
    }

  private:
    static std::string uuidOf(std::uint32_t number) {
        std::string digits = std::to_string(number);
        return "00000000-0000-0000-0000-" + std::string(12 - digits.size(), '0') + digits;
    }

    Program& add(std::string_view role, uid_t user) {
        Program& program = programs_.emplace_back();
        program.session = &connect(user);
        say(program, makeFrame(FrameType::hello, wire::protocolVersion, {.identifier = role}));
        return heardNothing(program);
    }
    Program& heardNothing(Program& program) {
        write(*program.session);
        program.heard.clear();
        return program;
    }
    Program* programOf(const Session& session) {
        for (Program& program : programs_) {
            if (program.session == &session) {
                return &program;
            }
        }
        return nullptr;
    }

    void write(Session& session) {
        if (session.isClosing) {
            return;
        }
        const std::size_t count = send(session);
        session.sendQueue.consume(count);
        if (session.congestion != nullptr) {
            session.congestion->writtenBytes += static_cast<std::int64_t>(count);
            resumeAllAt(session);
            endIfDrained(session);
        }
        if (!session.sendQueue.empty()) {
            beginMeasuring(session);
        }
        if (session.transport != nullptr) {
            session.transport->watchInput(!session.isBlocked());
        }
    }
    std::size_t send(Session& session) {
        std::array<iovec, 64> pieces{};
        const std::size_t count = session.sendQueue.gather(pieces.data(), pieces.size());
        if (session.transport != nullptr) {
            return session.transport->send({pieces.data(), count});
        }
        Program& program = *programOf(session);
        std::size_t bytes = 0;
        for (std::size_t i = 0; i < count && program.reads; ++i) {
            program.heard.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
            bytes += pieces[i].iov_len;
        }
        if (bytes > 0 && bytes < session.sendQueue.bytes()) {
            router.toWrite().add(session, broker::Receivers::one);
        }
        return bytes;
    }

    // Of a program that does not read, there is always something in its socket.
    std::size_t bytesInTransit(const Session& session) {
        return session.transport != nullptr ? session.transport->bytesInTransit()
               : programOf(session)->reads  ? 0
                                            : 1;
    }
    void beginMeasuring(Session& session) {
        broker::Congestion& congestion = router.flowControl().congestionOf(session, now);
        if (!congestion.isMeasured) {
            congestion.isMeasured = true;
            congestion.writtenBytes = static_cast<std::int64_t>(bytesInTransit(session));
        }
    }
    static void endIfDrained(Session& session) {
        if (session.congestion != nullptr && session.sendQueue.empty() &&
            !session.congestion->somebodyWaits()) {
            session.congestion = nullptr;
        }
    }
    void measureDrains() {
        if (now < nextSample_) {
            return;
        }
        nextSample_ = now + std::chrono::milliseconds(50);
        forEachSession([this](Session& session) {
            if (session.congestion != nullptr && !session.isClosing) {
                beginMeasuring(session);
                measureDrain(session);
            }
        });
    }
    void measureDrain(Session& session) {
        const std::size_t left = bytesInTransit(session);
        broker::DrainMeter& meter = session.congestion->meter;
        meter.sample(now, session.congestion->writtenBytes - static_cast<std::int64_t>(left), left);
        if (!session.sendQueue.empty() && meter.lastTaken() + limits.progressTime <= now) {
            close(session, broker::CloseCause::notDraining,
                  "its send queue made no progress for too long");
            return;
        }
        resumeAllAt(session);
        endIfDrained(session);
    }

    // False where none is closing.
    bool leaveClosing() {
        std::vector<Session*> all;
        forEachSession([&](Session& session) {
            if (session.isClosing) {
                all.push_back(&session);
            }
        });
        for (Session* session : all) {
            sayLast(*session);
            if (Program* const program = programOf(*session)) {
                program->closing = closing(*session);
                program->session = nullptr;
            }
            ScriptedBroker::leave(*session);
        }
        return !all.empty();
    }
    // Why it is closed, behind all that waits.
    void sayLast(Session& session) {
        const std::string why = closing(session);
        const std::string reason = why.substr(why.find(": ") + 2);
        if (!reason.empty()) {
            const auto status = static_cast<kavri_core_status>(std::stoi(why.substr(7)));
            session.sendQueue.append(broker::goodbyeFrame(status, reason));
        }
        send(session);
    }

    FakeHub& hub_;
    std::list<Program> programs_;
    bool hasSpoken_ = false;
    broker::Clock::time_point nextSample_{};
};

class LinkedWorld {
  public:
    explicit LinkedWorld(std::uint64_t seed = 1) : hub(seed) {}
    LinkedWorld(const LinkedWorld&) = delete;
    LinkedWorld& operator=(const LinkedWorld&) = delete;

    FakeHub hub;

    LinkedBroker& start(const broker::LinkOptions& options = linkOf({"test"}, {"test"}),
                        const broker::Policy& policy = servedByLink(),
                        const wire::Limits& limits = {}) {
        brokers_.push_back(std::make_unique<LinkedBroker>(hub, hub.connect(), options, limits,
                                                          policy, ++lastNumber_));
        return *brokers_.back();
    }
    // At once, without a word.
    void kill(const LinkedBroker& broker) {
        std::erase_if(brokers_, [&](const auto& each) { return each.get() == &broker; });
    }

    // Goes on until nobody has anything to do before the clock moves.
    void settle() {
        for (int rounds = 0; goOn(); ++rounds) {
            if (rounds > 10000) {
                throw std::logic_error("the brokers do not come to rest");
            }
        }
    }
    void run(broker::Clock::duration time,
             broker::Clock::duration step = std::chrono::milliseconds(10)) {
        const auto end = hub.now + time;
        settle();
        while (hub.now < end) {
            hub.now = std::min(hub.now + step, end);
            settle();
        }
    }

  private:
    bool goOn() {
        bool hasWorked = false;
        for (const auto& broker : brokers_) {
            if (broker->isDue()) {
                broker->round();
                hasWorked = true;
            }
        }
        return hasWorked;
    }

    std::vector<std::unique_ptr<LinkedBroker>> brokers_;
    std::uint32_t lastNumber_ = 0;
};

}  // namespace kavri::tests

#endif
