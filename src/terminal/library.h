// The core library with owners: up while a command runs, and what the command opened ends
// with it. What cannot be opened ends the command, with a line that says what to do.
#ifndef KAVRI_TERMINAL_LIBRARY_H
#define KAVRI_TERMINAL_LIBRARY_H

#include <kavri/ipc.h>

#include <memory>
#include <string>

namespace kavri::terminal {

// Keeps the library up. Its log lines carry the command's name.
class Library {
  public:
    explicit Library(const std::string& command);
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library();

    kavri_core_logging_cookie log() const { return log_; }

  private:
    kavri_core_logging_cookie log_ = nullptr;
};

struct EndInitiator {
    void operator()(kavri_core_ipc_initiator* initiator) const { kavri_core_ipc_deinit(initiator); }
};
struct EndResponder {
    void operator()(kavri_core_ipc_responder* responder) const {
        kavri_core_ipc_responder_deinit(responder);
    }
};
using Initiator = std::unique_ptr<kavri_core_ipc_initiator, EndInitiator>;
using Responder = std::unique_ptr<kavri_core_ipc_responder, EndResponder>;

// For a broker on that socket, which must outlive them; empty: found as every program finds it.
kavri_core_ipc_options optionsFor(const std::string& socket);

// Each throws CommandFailure.
Initiator openInitiator(const Library& library, kavri_core_ipc_options options);
Responder openResponder(const Library& library, kavri_core_ipc_options options,
                        const std::string& category);

// Takes over a string that the library passed on; empty for null.
std::string adopt(char* string);

}  // namespace kavri::terminal

#endif
