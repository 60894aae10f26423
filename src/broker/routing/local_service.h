// A service in the broker's own process, in a responder's place. It is called on the
// broker's thread, and answers at once.
#ifndef KAVRI_BROKER_ROUTING_LOCAL_SERVICE_H
#define KAVRI_BROKER_ROUTING_LOCAL_SERVICE_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string_view>

namespace kavri::broker {

class LocalService {
  public:
    // As it came in, and from whom. The texts are valid during the call.
    struct Request {
        std::uint64_t connection = 0;  // no other connection of the broker has it
        pid_t process = 0;
        std::string_view category;
        std::string_view identifier;
        std::string_view uuid;
        std::string_view payload;
    };
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
    virtual Reaction handle(const Request& request) = 0;

    // Called once for each request, before its event is published and it is answered.
    virtual void decided(const Request& /*request*/, const Reaction& /*reaction*/) {}
};

}  // namespace kavri::broker

#endif
