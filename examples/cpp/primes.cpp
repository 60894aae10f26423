// Asks the service "primes" how many primes there are below 1000, 2000 and so on, and prints
// the answers in this order. All requests are under way at the same time, so that the service
// can use all cores; answers come as they are ready, each with the uuid of its request.
//
// Usage: primes [COUNT]   10 where it is not given
#include <iostream>
#include <kavri/kavri.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<std::string> ask(std::size_t count) {
    kavri::Initiator initiator;
    for (std::size_t i = 0; i < count; ++i) {
        initiator.send("primes", "below", std::to_string(i), std::to_string((i + 1) * 1000));
    }
    std::vector<std::string> answers(count);
    for (std::size_t received = 0; received < count; ++received) {
        const auto response = initiator.receive(std::chrono::seconds(60));
        if (!response) {
            throw std::runtime_error("no answer within a minute");
        }
        answers.at(std::stoul(response->uuid().str())) = response->payload().str();
    }
    return answers;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::size_t count = argc > 1 ? std::stoul(argv[1]) : 10;
        const kavri::Library library;
        std::size_t limit = 0;
        for (const std::string& answer : ask(count)) {
            std::cout << answer << " primes below " << (limit += 1000) << '\n';
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "primes: " << error.what() << '\n';
        return 1;
    }
}
