// The service "hello": answers each request with a greeting, until SIGINT or SIGTERM.
//
// Requests come to a callback, on the library's thread, which also connects again when the
// broker was restarted. Such a service works on one request at a time; primes_service.cpp
// works on several.
#include <csignal>
#include <iostream>
#include <kavri/kavri.hpp>

int main() {
    // Blocked before there are further threads, so that sigwait gets them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    try {
        const kavri::Library library;
        kavri::Responder responder("hello");
        responder.onRequest([&responder](const kavri::Request& request) {
            // Every request is answered or ended.
            const kavri::Status status =
                request.identifier() == "greet"
                    ? responder.tryAnswer(request, "Hello, " + request.payload().str() + "!")
                    : responder.tryEndRequest(request.name());
            // The connection may just have been lost; the sender learns that by itself.
            if (status != KAVRI_CORE_STATUS_NO_ERROR) {
                std::cerr << "hello_service: answering: " << kavri_core_status_text(status) << '\n';
            }
        });
        std::cerr << "hello_service: ready" << std::endl;
        int signal = 0;
        sigwait(&stop, &signal);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "hello_service: " << error.what() << '\n';
        return 1;
    }
}
