// The service "primes", with a worker for each core: counts the primes below the number that
// a request has as its payload, until SIGINT or SIGTERM.
//
// All workers receive from one responder, each answers what it received; answers leave in the
// order in which they are ready.
//
// Usage: primes_service [WORKERS]
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <kavri/kavri.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string primesBelow(unsigned long limit) {
    unsigned long count = 0;
    for (unsigned long number = 2; number < limit; ++number) {
        unsigned long divisor = 2;
        while (divisor * divisor <= number && number % divisor != 0) {
            ++divisor;
        }
        count += divisor * divisor > number ? 1 : 0;
    }
    return std::to_string(count);
}

void report(const char* call, kavri::Status status) {
    std::cerr << (std::string("primes_service: ") + call + ": " + kavri_core_status_text(status) +
                  "\n");
}

void work(kavri::Responder& responder) {
    while (true) {
        const auto request = responder.tryReceive();
        if (request) {
            const unsigned long limit = std::strtoul(request->payload().c_str(), nullptr, 10);
            // The connection may just have been lost; the sender learns that by itself.
            const kavri::Status status = responder.tryAnswer(*request, primesBelow(limit));
            if (status != KAVRI_CORE_STATUS_NO_ERROR) {
                report("answering", status);
            }
        } else if (request.status() == KAVRI_CORE_STATUS_IPC_FAILED) {
            return;  // there is a callback: see main
        } else {
            report("receiving", request.status());
            // After a lost connection the next receive connects again. Where that fails it
            // returns at once.
            if (request.status() != KAVRI_CORE_STATUS_IPC_CONNECTION_LOST) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
        }
    }
}

// The threads, which end with it: with a callback installed every receive ends, and so does
// each worker, with what it works on answered. What still comes is dropped; its sender sees
// "responder lost".
class Workers {
  public:
    Workers(kavri::Responder& responder, unsigned long count) : responder_(responder) {
        try {
            for (unsigned long i = 0; i < count; ++i) {
                threads_.emplace_back(work, std::ref(responder));
            }
        } catch (...) {
            stop();
            throw;
        }
    }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers() { stop(); }

  private:
    void stop() {
        responder_.onRequest([](const kavri::Request&) {});
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    kavri::Responder& responder_;
    std::vector<std::thread> threads_;
};

}  // namespace

int main(int argc, char** argv) {
    // Blocked before there are further threads, so that sigwait gets them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    try {
        const unsigned long count =
            argc > 1 ? std::stoul(argv[1]) : std::max(1U, std::thread::hardware_concurrency());
        const kavri::Library library;
        kavri::Responder responder("primes");
        const Workers workers(responder, count);
        std::cerr << "primes_service: ready, " << count << " workers" << std::endl;
        int signal = 0;
        sigwait(&stop, &signal);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "primes_service: " << error.what() << '\n';
        return 1;
    }
}
