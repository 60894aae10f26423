// What is received: responses, events and requests.
//
// A message owns the strings that the library allocated, and frees them; nothing is copied.
// The views of its fields refer to them: they are valid until the message ends or is moved
// to. Messages can be moved; all fields of one that was moved from are null. Threads may
// share a message as they share any value: reading at the same time, not changing.
#ifndef KAVRI_CPP_MESSAGE_HPP
#define KAVRI_CPP_MESSAGE_HPP

#include <kavri/ipc.h>

#include <cstdlib>
#include <kavri/cpp/text.hpp>
#include <memory>

namespace kavri {

namespace detail {

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};
// A string that was allocated with malloc.
using OwnedText = std::unique_ptr<char, Free>;

}  // namespace detail

// The response to a request.
class Response {
  public:
    // Takes over four strings that were allocated with malloc. `payload` may be null.
    Response(char* category, char* identifier, char* uuid, char* payload) noexcept
        : category_(category), identifier_(identifier), uuid_(uuid), payload_(payload) {}

    TextView category() const noexcept { return category_.get(); }
    TextView identifier() const noexcept { return identifier_.get(); }
    // The request's.
    TextView uuid() const noexcept { return uuid_.get(); }
    // Null where the responder gave none.
    TextView payload() const noexcept { return payload_.get(); }

  private:
    detail::OwnedText category_;
    detail::OwnedText identifier_;
    detail::OwnedText uuid_;
    detail::OwnedText payload_;
};

class Event {
  public:
    // Takes over three strings that were allocated with malloc.
    Event(char* category, char* identifier, char* payload) noexcept
        : category_(category), identifier_(identifier), payload_(payload) {}

    TextView category() const noexcept { return category_.get(); }
    TextView identifier() const noexcept { return identifier_.get(); }
    TextView payload() const noexcept { return payload_.get(); }

  private:
    detail::OwnedText category_;
    detail::OwnedText identifier_;
    detail::OwnedText payload_;
};

// A request, as its responder receives it. It must be answered once, by Responder::answer, or
// ended, by Responder::endRequest: from the thread that received it or any other, at once or
// later. A request that is only dropped stays pending, uses memory
// of the broker, and lets its sender wait until the responder ends.
class Request {
  public:
    // Takes over four strings that were allocated with malloc.
    Request(kavri_core_ipc_request name, char* category, char* identifier, char* uuid,
            char* payload) noexcept
        : name_(name), strings_(category, identifier, uuid, payload) {}

    // What the library knows the request by: a value, by which it can be answered when its
    // strings are gone.
    kavri_core_ipc_request name() const noexcept { return name_; }
    TextView category() const noexcept { return strings_.category(); }
    TextView identifier() const noexcept { return strings_.identifier(); }
    TextView uuid() const noexcept { return strings_.uuid(); }
    TextView payload() const noexcept { return strings_.payload(); }

  private:
    kavri_core_ipc_request name_;
    Response strings_;  // a request has the fields of a response
};

}  // namespace kavri

#endif
