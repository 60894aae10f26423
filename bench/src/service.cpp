// The service; see service.h.
#include "service.h"

#include "payload.h"

namespace kavri::bench {

namespace {

void publish(const Heading& request, Answers& answers) {
    Payload payload;
    Heading event{request.sender == 0 ? Kind::event : Kind::probe, request.number, 0, 0};
    for (std::uint32_t i = 0; i < request.amount; ++i) {
        answers.publish(payload.with(event));
        ++event.number;
    }
}

}  // namespace

void Service::answer(std::string_view request, Answers& answers) {
    response_ = request;  // the responding functions take texts that end
    if (request.front() == static_cast<char>(Kind::publish)) {
        publish(headingOf(request), answers);
    }
    answers.respond(response_);
}

}  // namespace kavri::bench
