// Sharing the work; see work_share.h.
#include "conformance/run/work_share.h"

#include <cassert>
#include <future>
#include <vector>

namespace kavri::conformance {

std::optional<std::size_t> WorkShare::take() {
    if (stopped_) {
        return std::nullopt;
    }
    const std::size_t number = taken_++;
    return number < count_ ? std::optional(number) : std::nullopt;
}

void WorkShare::runOn(unsigned threads, const std::function<void()>& takeAll) {
    assert(threads > 0);
    const auto stoppingOnFailure = [&] {
        try {
            takeAll();
        } catch (...) {
            stop();
            throw;
        }
    };
    std::vector<std::future<void>> running;
    for (unsigned i = 0; i < threads; ++i) {
        running.push_back(std::async(std::launch::async, stoppingOnFailure));
    }
    // Where one throws, the others are waited for before it leaves this function.
    for (std::future<void>& each : running) {
        each.get();
    }
}

}  // namespace kavri::conformance
