// Subscribes to the events of category "test", and writes a line on standard output for each
// and for each change of the connection, in the order in which the library tells them:
//
//     event PAYLOAD
//     change EVENT STATUS REASON
//
// EVENT and STATUS are the numbers of ipc.h and core.h.
//
// Usage: link_listener SOCKET
//
// Ends when standard input does.
#include <kavri/ipc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace {

void require(kavri_core_status status, const char* what) {
    if (status != KAVRI_CORE_STATUS_NO_ERROR) {
        std::fprintf(stderr, "link_listener: %s: %s\n", what, kavri_core_status_text(status));
        std::_Exit(1);
    }
}

void takeEvent(char** category, char** identifier, char** payload, void*) {
    std::printf("event %s\n", *payload);
    std::fflush(stdout);
    for (char** text : {category, identifier, payload}) {
        std::free(*text);
    }
}

void takeChange(const kavri_core_ipc_connection_change* change, void*) {
    std::printf("change %d %d %s\n", change->event, change->status, change->reason);
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: link_listener SOCKET\n");
        return 64;
    }
    require(kavri_core_init(), "init");
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.brokerAddress = argv[1];
    options.connectionCallback = takeChange;
    kavri_core_ipc_initiator* initiator = nullptr;
    require(kavri_core_ipc_initiator_init(nullptr, &options, &initiator), "connecting");
    require(kavri_core_ipc_initiator_event_receive_callback(initiator, takeEvent, nullptr),
            "installing the callback");
    require(kavri_core_ipc_initiator_event_subscribe(initiator, "test"), "subscribing");
    std::fprintf(stderr, "link_listener: ready\n");
    char ignored = 0;
    while (::read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    kavri_core_ipc_deinit(initiator);
    kavri_core_deinit();
    return 0;
}
