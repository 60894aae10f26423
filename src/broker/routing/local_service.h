// A service in the broker's own process, in a responder's place. It is called on the
// broker's thread, and answers at once.
#ifndef KAVRI_BROKER_ROUTING_LOCAL_SERVICE_H
#define KAVRI_BROKER_ROUTING_LOCAL_SERVICE_H

#include <optional>
#include <string_view>

namespace kavri::broker {

class LocalService {
  public:
    struct Event {
        std::string_view identifier;
        std::string_view payload;
    };
    // The texts are valid until the next call, and as long as the request's.
    struct Reaction {
        std::optional<std::string_view> answer;  // its payload
        std::optional<Event> event;              // to publish, ahead of the answer
    };

    LocalService() = default;
    LocalService(const LocalService&) = delete;
    LocalService& operator=(const LocalService&) = delete;
    virtual ~LocalService() = default;

    // A request whose event cannot be published yet is handled a second time: a
    // command that publishes must change nothing else.
    virtual Reaction handle(std::string_view command, std::string_view payload) = 0;
};

}  // namespace kavri::broker

#endif
