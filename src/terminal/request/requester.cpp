// The library's callbacks, which take the time of each arrival; see requester.h.
#include "terminal/request/requester.h"

#include <algorithm>

#include "terminal/outcome.h"
#include "wire/limits.h"

namespace kavri::terminal {

Requester::Requester(const Library& library, const std::string& socket,
                     std::chrono::milliseconds sendTime) {
    kavri_core_ipc_options options = optionsFor(socket);
    options.sendTimeoutMs = static_cast<unsigned>(sendTime.count());
    options.connectTimeoutMs = std::min(options.sendTimeoutMs, wire::defaultConnectTimeoutMs);
    options.outcomeCallback = outcomeArrived;
    options.outcomeContext = this;
    initiator_ = openInitiator(library, options);
    check(
        kavri_core_ipc_initiator_response_receive_callback(initiator_.get(), responseArrived, this),
        options.brokerAddress);
}

void Requester::responseArrived(char** category, char** identifier, char** uuid, char** payload,
                                void* self) {
    Arrival arrival{.when = std::chrono::steady_clock::now(), .uuid = adopt(*uuid), .response = {}};
    Response& response = arrival.response.emplace();
    response.category = adopt(*category);
    response.identifier = adopt(*identifier);
    if (*payload != nullptr) {
        response.payload = adopt(*payload);
    }
    static_cast<Requester*>(self)->arrivals_.put(std::move(arrival));
}

void Requester::outcomeArrived(const char* uuid, kavri_core_status status, void* self) {
    static_cast<Requester*>(self)->arrivals_.put(
        {.when = std::chrono::steady_clock::now(), .uuid = uuid, .status = status, .response = {}});
}

}  // namespace kavri::terminal
