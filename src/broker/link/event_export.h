// The events of exported categories, on their way to other brokers: a subscriber like any
// other, whose transport publishes them.
//
// Each category's messages are numbered, and a message that could not be published takes its
// number too: so those who import it notice.
#ifndef KAVRI_BROKER_LINK_EVENT_EXPORT_H
#define KAVRI_BROKER_LINK_EVENT_EXPORT_H

#include <map>
#include <span>
#include <string>
#include <string_view>

#include "broker/link/link_line.h"
#include "broker/link/link_options.h"
#include "broker/session/transport.h"
#include "wire/lines.h"

namespace kavri::broker {

class EventExport : private Transport {
  public:
    EventExport(LinkLine& line, const LinkOptions& options) : line_(line), options_(options) {}

    // Subscribes to what is exported and may be subscribed to, unless it has already.
    void keepSubscribed();
    // Subscribes anew: the policy has changed.
    void subscribeAnew();
    // The bus may have room again.
    void writeWaiting();

  private:
    std::size_t send(std::span<const iovec> pieces) override;
    std::size_t bytesInTransit() const override { return waitsForRoom_ ? whileWithoutRoom : 0; }
    bool mayRequest(std::string_view) const override { return false; }
    void watchInput(bool) override {}
    void end() override;
    std::optional<std::string_view> categoryCarried() const override { return std::nullopt; }
    void describe(Lines& lines) const override { lines.add("way", "events_out"); }

    void publish(std::string_view category, std::string_view frames);

    struct Published {
        std::string subject;
        std::uint64_t next = 0;
    };

    LinkLine& line_;
    const LinkOptions& options_;
    Session* session_ = nullptr;
    bool waitsForRoom_ = false;
    std::map<std::string, Published, std::less<>> published_;
    std::string row_;
    std::string message_;
};

}  // namespace kavri::broker

#endif
