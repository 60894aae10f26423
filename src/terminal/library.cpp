// Bringing the library up, and its objects; see library.h.
#include "terminal/library.h"

#include <cstdlib>

#include "terminal/outcome.h"

namespace kavri::terminal {

Library::Library(const std::string& command) {
    kavri_core_init();
    kavri_core_logging_init(command.c_str(), &log_);
}

Library::~Library() {
    kavri_core_logging_deinit(log_);
    kavri_core_deinit();
}

kavri_core_ipc_options optionsFor(const std::string& socket) {
    kavri_core_ipc_options options{};
    options.sizeBytes = sizeof options;
    options.brokerAddress = socket.empty() ? nullptr : socket.c_str();
    return options;
}

Initiator openInitiator(const Library& library, kavri_core_ipc_options options) {
    kavri_core_ipc_initiator* opened = nullptr;
    check(kavri_core_ipc_initiator_init(library.log(), &options, &opened), options.brokerAddress);
    return Initiator(opened);
}

Responder openResponder(const Library& library, kavri_core_ipc_options options,
                        const std::string& category) {
    kavri_core_ipc_responder* opened = nullptr;
    check(kavri_core_ipc_responder_init(library.log(), &options, category.c_str(), &opened),
          options.brokerAddress);
    return Responder(opened);
}

std::string adopt(char* string) {
    const std::unique_ptr<char, decltype(&std::free)> owned(string, &std::free);
    return owned ? std::string(owned.get()) : std::string();
}

}  // namespace kavri::terminal
