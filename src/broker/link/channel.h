// One initiator's way to a responder on another machine, as one of the two brokers sees it:
// a session's transport.
//
// Each side may send so many bytes ahead of what the other has handled. So a slow program
// holds up its own channel, by its session's send queue, and no other.
#ifndef KAVRI_BROKER_LINK_CHANNEL_H
#define KAVRI_BROKER_LINK_CHANNEL_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "broker/link/envelope.h"
#include "broker/link/inbox.h"
#include "broker/link/link_line.h"
#include "broker/session/session.h"
#include "broker/session/transport.h"
#include "wire/limits.h"

namespace kavri::broker {

class Channel : public Transport {
  public:
    // How far one side may be ahead of what the other has said that it handled, which it says
    // at each quarter. A frame of any length goes while less than a quarter is ahead.
    static constexpr std::size_t windowBytes = 256 * wire::kibibyte;

    // What a channel needs of the link.
    class Host {
      public:
        // Whether the bus takes more.
        virtual bool hasRoom() = 0;
        // Has hasRoomAgain called when it does.
        virtual void waitForRoom(Channel& channel) = 0;
        virtual std::size_t messageBytes() const = 0;
        virtual void send(Channel& channel, EnvelopeKind kind, std::string_view content) = 0;
        // Has the session written to, or handleInput called, soon.
        virtual void writeSoon(Channel& channel) = 0;
        virtual void handleInputSoon(Channel& channel) = 0;
        virtual void handleFrames(Channel& channel, char* bytes, std::size_t count) = 0;
        virtual void ended(Channel& channel) = 0;
        virtual void describe(const Channel& channel, Lines& lines) const = 0;

      protected:
        ~Host() = default;
    };

    Channel(Host& host, std::uint64_t itsId, std::string_view itsCategory)
        : id(itsId), category(itsCategory), host_(host) {}

    const std::uint64_t id;  // as this side numbers it
    const std::string category;

    // To be called first: the session that this is the transport of.
    void attach(Session& session) {
        session_ = &session;
        inbox_.emplace(session.account.memory);
    }
    Session& session() const { return *session_; }

    // The other side is known from now on, and how it numbers the channel.
    void open(const BrokerIdentity& broker, std::uint64_t theirId);
    // The other side has ended it, or is lost.
    void forgetOther() { isOpen_ = false; }
    bool isOpen() const { return isOpen_; }
    const BrokerIdentity& broker() const { return broker_; }
    std::uint64_t theirId() const { return theirId_; }

    // Content of a message that came in, and what the other side has handled by then. False
    // where it may not have sent that much.
    bool takeFrames(std::string_view content);
    void takeCredit(std::uint64_t handledBytes);
    // What waited, as far as the session takes it.
    void handleInput();

    void hasRoomAgain();

    // Bytes of frames that were handled: to be said in each message.
    std::uint64_t sayHandled() { return saidHandled_ = handled_; }

    std::size_t send(std::span<const iovec> pieces) override;
    std::size_t bytesInTransit() const override {
        return std::max<std::size_t>(sent_ - taken_, waitsForRoom_ ? whileWithoutRoom : 0);
    }
    bool mayRequest(std::string_view what) const override { return what == category; }
    void watchInput(bool isWanted) override;
    void end() override { host_.ended(*this); }
    std::optional<std::string_view> categoryCarried() const override { return category; }
    void describe(Lines& lines) const override { host_.describe(*this, lines); }

  private:
    std::size_t mostToSend();
    void handle(std::string& frames);

    Host& host_;
    Session* session_ = nullptr;
    bool isOpen_ = false;
    BrokerIdentity broker_{};
    std::uint64_t theirId_ = 0;

    bool waitsForRoom_ = false;
    std::uint64_t sent_ = 0;
    std::uint64_t taken_ = 0;  // of that, by the other side
    std::uint64_t handled_ = 0;
    std::uint64_t saidHandled_ = 0;
    bool isInputWanted_ = true;
    std::optional<Inbox> inbox_;
    std::string row_;    // of frames that go out
    std::string input_;  // what is being handled
};

}  // namespace kavri::broker

#endif
