// All channels of this broker: those of its initiators to responders elsewhere, and those of
// initiators elsewhere to its responders.
//
// A channel is opened by asking those who serve the category, of which one gets the question.
// It lasts as long as its initiator, its responder, and the way between their brokers.
#ifndef KAVRI_BROKER_LINK_CHANNELS_H
#define KAVRI_BROKER_LINK_CHANNELS_H

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "broker/link/channel.h"
#include "broker/link/link_line.h"
#include "broker/link/neighbours.h"
#include "broker/routing/remote_services.h"

namespace kavri::broker {

class Channels : public Channel::Host {
  public:
    // An asked broker that has not answered by then does not serve.
    static constexpr std::chrono::milliseconds openTime{2000};

    Channels(LinkLine& line, Neighbours& neighbours) : line_(line), neighbours_(neighbours) {}

    std::size_t size() const { return channels_.size(); }
    template <typename Visit>
    void forEach(const Visit& visit) const {
        for (const auto& [id, channel] : channels_) {
            visit(*channel);
        }
    }

    // For an initiator here.
    RemoteServices::Found responderFor(Session& initiator, std::string_view category);
    // The answer to a question was a stray: the broker that gave it is about to forget that it
    // did.
    void askAgain(std::uint64_t id);
    // The server's answer to a question: nobody serves the category.
    void nobodyServes(std::uint64_t id);

    // For initiators elsewhere, whose brokers ask; isOffered: whether this one may be opened.
    void asked(const Envelope& envelope, std::string_view category, bool isOffered);
    // The responder of the category here is gone.
    void withdraw(std::string_view category);
    // The policy has changed: ends the channels to responders that may not serve any more.
    void endForbidden();

    // A message about a channel.
    void handle(const Envelope& envelope, std::string_view content);
    // Ends the channels to a broker that was lost.
    void lose(const BrokerIdentity& broker);

    // Whether there is something to be done in the next round.
    bool hasWork() const { return !inputs_.empty(); }
    void advance();
    // The bus may have room again.
    void writeWaiting();
    std::optional<Clock::time_point> due() const;

  private:
    bool hasRoom() override { return line_.hasRoom(); }
    void waitForRoom(Channel& channel) override { waitingForRoom_.push_back(channel.id); }
    std::size_t messageBytes() const override;
    void send(Channel& channel, EnvelopeKind kind, std::string_view content) override;
    void writeSoon(Channel& channel) override;
    void handleInputSoon(Channel& channel) override;
    void handleFrames(Channel& channel, char* bytes, std::size_t count) override;
    void ended(Channel& channel) override;
    void describe(const Channel& channel, Lines& lines) const override;

    Channel* make(std::string_view category, Role role, Session* payer);
    void ask(const Channel& channel);
    // Null where there is none, or it is not the sender's.
    Channel* find(const Envelope& envelope);
    Channel* find(std::uint64_t id);
    void opened(const Envelope& envelope);
    void refuse(const Envelope& asked, kavri_core_status status);
    void takeContent(Channel& channel, const Envelope& envelope, std::string_view content);
    void endWith(Channel& channel, kavri_core_status lost);
    void giveUpUnanswered();

    struct Question {
        Clock::time_point due;
        std::uint64_t channel = 0;
    };

    LinkLine& line_;
    Neighbours& neighbours_;
    std::unordered_map<std::uint64_t, std::unique_ptr<Channel>> channels_;
    std::uint64_t lastId_ = 0;
    std::deque<Question> questions_;             // in the order in which they are due
    std::vector<std::uint64_t> waitingForRoom_;  // of the bus
    std::vector<std::uint64_t> inputs_;          // with input that is wanted now
    std::string message_;
};

}  // namespace kavri::broker

#endif
