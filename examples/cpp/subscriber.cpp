// Prints the events of the category "news", until SIGINT or SIGTERM. Survives the restart of
// the broker, and says so, since events may have been missed then.
#include <csignal>
#include <iostream>
#include <kavri/kavri.hpp>

namespace {

void connectionChanged(const kavri::ConnectionChange& change) {
    if (change.event == KAVRI_CORE_IPC_CONNECTION_RESTORED) {
        std::cerr << "subscriber: connected again after " << change.disconnected.count()
                  << " ms: events may be missing" << std::endl;
    } else if (change.event != KAVRI_CORE_IPC_CONNECTION_MADE) {
        std::cerr << "subscriber: lost the connection: " << change.reason << std::endl;
    }
}

}  // namespace

int main() {
    // Blocked before there are further threads, so that sigwait gets them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    try {
        const kavri::Library library;
        kavri::Options options;
        options.connectionCallback = connectionChanged;
        kavri::Initiator initiator(options);
        // In this order: events that come without a callback are dropped.
        initiator.onEvent([](const kavri::Event& event) {
            std::cout << event.category() << ' ' << event.identifier() << ": " << event.payload()
                      << std::endl;
        });
        initiator.subscribe("news");
        std::cerr << "subscriber: ready" << std::endl;
        int signal = 0;
        sigwait(&stop, &signal);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "subscriber: " << error.what() << '\n';
        return 1;
    }
}
