// A broker and five peers that do what the bytes say; see targets.h.
//
// A script is a row of steps of at least two bytes: who and what, how much, and
// then as many bytes as that says.
#include <array>

#include "broker/hosted_test_service.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/targets.h"
#include "support/scripted_broker.h"

namespace kavri::tests {

namespace {

constexpr unsigned peers = 5;
constexpr unsigned pieceUnit = 128;  // how much a step with a large piece counts by

wire::Limits tightLimits() {
    wire::Limits limits;
    limits.payloadBytes = 40'000;
    limits.sendQueueBytes = 65'536;
    limits.bytesPerUser = 150'000;
    limits.openRequestsPerInitiator = 4;
    limits.openRequestsPerResponder = 6;
    limits.subscriptionsPerInitiator = 2;
    return limits;
}

class Stage {
  public:
    Stage() : broker_(tightLimits()) {
        broker_.router.embed("embedded", service_);
        for (unsigned who = 0; who < peers; ++who) {
            comeBack(who);
        }
    }

    void act(unsigned who, Action action, std::string_view bytes) {
        switch (action) {
            case Action::speak:
            case Action::speakMuch:
                speak(who, bytes);
                break;
            case Action::hear:
                hear(who);
                break;
            case Action::hearALittle:
                hearALittle(who, bytes.size());
                break;
            case Action::lose:
                leave(who);
                break;
            case Action::comeBack:
                comeBack(who);
                break;
            case Action::loseHeart:
                if (sessions_[who] != nullptr) {
                    broker_.giveUpOn(*sessions_[who]);
                    broker_.resumeAllAt(*sessions_[who]);
                }
                break;
        }
        broker_.reports.advance();
        broker_.router.tap().writeDue(broker_.moment.steady + broker::Tap::gatheringTime);
        endRound();
        check();
    }

    // All leave: nothing may be left of them.
    void end() {
        for (unsigned who = 0; who < peers; ++who) {
            leave(who);
        }
        mustHold(broker_.userBytes(someUser) == 0, "an account without sessions is empty");
        Session& last = broker_.initiator();
        broker_.say(last, makeFrame(FrameType::request, 1, {"test", "", "", ""}));
        mustHold(broker_.hear(last) == "notice 1 status=10", "nothing is served by nobody");
    }

    std::size_t framesHeard() const { return framesHeard_; }

  private:
    // The first says what it likes from the beginning; the others have a role.
    void comeBack(unsigned who) {
        leave(who);
        constexpr std::array<Session& (*)(ScriptedBroker&), peers> roles = {
            [](ScriptedBroker& broker) -> Session& { return broker.connect(); },
            [](ScriptedBroker& broker) -> Session& { return broker.initiator(); },
            [](ScriptedBroker& broker) -> Session& { return broker.responder("test"); },
            [](ScriptedBroker& broker) -> Session& { return broker.subscriber("test"); },
            [](ScriptedBroker& broker) -> Session& { return broker.join("manager"); },
        };
        sessions_[who] = &roles[who](broker_);
    }

    // As the loop does: a session that has to wait is not read from.
    void speak(unsigned who, std::string_view bytes) {
        Session* session = sessions_[who];
        if (session != nullptr && !session->isBlocked() && !bytes.empty()) {
            broker_.sayBytes(*session, bytes);
        }
    }

    void hear(unsigned who) {
        if (sessions_[who] != nullptr) {
            hearALittle(who, sessions_[who]->sendQueue.bytes());
        }
    }

    void hearALittle(unsigned who, std::size_t most) {
        Session* session = sessions_[who];
        if (session == nullptr) {
            return;
        }
        std::array<iovec, 3> pieces{};
        while (most > 0 && !session->sendQueue.empty()) {
            const std::size_t count = session->sendQueue.gather(pieces.data(), pieces.size());
            mustHold(count > 0, "a send queue that is not empty gives something");
            const std::size_t part = std::min(most, pieces[0].iov_len);
            mustHold(part > 0, "a piece is not empty");
            heard_[who].append(static_cast<const char*>(pieces[0].iov_base), part);
            session->sendQueue.consume(part);
            most -= part;
        }
        checkHeard(who);
        if (session->monitor != nullptr && session->sendQueue.empty()) {
            broker_.router.tap().drained(*session);
        }
        broker_.resumeAllAt(*session);
    }

    // Whatever the peers say: what the broker says is frames.
    void checkHeard(unsigned who) {
        std::string& heard = heard_[who];
        std::size_t begin = 0;
        while (heard.size() - begin >= wire::headerBytes) {
            const auto measured = wire::measure(heard.data() + begin, broker_.limits.payloadBytes);
            mustHold(!measured.error, "the broker says nothing malformed");
            if (measured.frameBytes > heard.size() - begin) {
                break;
            }
            mustHold(wire::decode(heard.data() + begin).has_value(),
                     "the broker says nothing with a NUL in it");
            begin += measured.frameBytes;
            ++framesHeard_;
        }
        heard.erase(0, begin);
    }

    // Those that were closed go.
    void endRound() {
        for (unsigned who = 0; who < peers; ++who) {
            if (sessions_[who] != nullptr && sessions_[who]->isClosing) {
                leave(who);
            }
        }
    }

    void leave(unsigned who) {
        if (sessions_[who] != nullptr) {
            broker_.leave(*sessions_[who]);
            sessions_[who] = nullptr;
            heard_[who].clear();
        }
    }

    void check() {
        std::size_t charged = 0;
        std::size_t inHand = 0;
        std::size_t open = 0;
        for (const Session* session : sessions_) {
            if (session != nullptr) {
                charged += chargedFor(*session);
                mustHold(session->waiting.on == nullptr || !session->waiting.on->sendQueue.empty(),
                         "nobody waits for a peer with an empty send queue");
                inHand += session->asResponder.requestsInFlight;
                open += session->asInitiator.pendingRequests;
                mustHold(
                    session->asInitiator.pendingRequests <= broker_.limits.openRequestsPerInitiator,
                    "open requests stay within their limit");
                mustHold(session->asResponder.requestsInFlight <=
                             broker_.limits.openRequestsPerResponder,
                         "requests in flight stay within their limit");
                mustHold(session->asInitiator.subscriptions.size() <=
                             broker_.limits.subscriptionsPerInitiator,
                         "subscriptions stay within their limit");
            }
        }
        mustHold(charged == broker_.userBytes(someUser), "the account is the sum");
        mustHold(open == inHand, "every pending request is in flight");
    }

    static std::size_t chargedFor(const Session& session) {
        std::size_t bytes =
            session.sendQueue.bytes() + session.charge.bytes() + session.input.charge.bytes();
        if (session.monitor != nullptr) {
            bytes += session.monitor->charge.bytes();
        }
        for (const broker::Subscription& subscription : session.asInitiator.subscriptions) {
            bytes += subscription.charge.bytes();
        }
        if (session.asResponder.served != nullptr) {
            bytes += session.asResponder.served->responderCharge.bytes();
        }
        return bytes;
    }

    broker::HostedTestService service_{[](std::string_view) {}};
    ScriptedBroker broker_;
    std::array<Session*, peers> sessions_{};
    std::array<std::string, peers> heard_;  // the beginning of a frame
    std::size_t framesHeard_ = 0;
};

}  // namespace

std::size_t fuzzProtocol(std::string_view bytes) {
    Stage stage;
    while (bytes.size() >= 2) {
        const auto what = static_cast<unsigned char>(bytes[0]);
        const auto action = static_cast<Action>(what / peers % actions);
        const std::size_t unit = action == Action::speakMuch ? pieceUnit : 1;
        const std::size_t much = static_cast<unsigned char>(bytes[1]) * unit;
        bytes.remove_prefix(2);
        const std::string_view piece = bytes.substr(0, much);
        bytes.remove_prefix(piece.size());
        stage.act(what % peers, action, piece);
    }
    stage.end();
    return stage.framesHeard();
}

std::string quietStep(unsigned peer, Action action, unsigned char much) {
    std::string step;
    step += static_cast<char>(static_cast<unsigned>(action) * peers + peer);
    step += static_cast<char>(much);
    return step + std::string(much, '.');
}

std::string spokenSteps(unsigned peer, std::string_view bytes) {
    std::string steps;
    while (!bytes.empty()) {
        const bool much = bytes.size() >= pieceUnit;
        const std::size_t count =
            much ? std::min<std::size_t>(bytes.size() / pieceUnit, 255) : bytes.size();
        const auto action = static_cast<unsigned>(much ? Action::speakMuch : Action::speak);
        steps += static_cast<char>(action * peers + peer);
        steps += static_cast<char>(count);
        const std::size_t part = much ? count * pieceUnit : count;
        steps += bytes.substr(0, part);
        bytes.remove_prefix(part);
    }
    return steps;
}

}  // namespace kavri::tests
