// Sharing the work; see work_share.h.
#include "cli/work_share.h"

#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace kavri::cli {

std::optional<std::size_t> WorkShare::take() {
    if (stopped_) {
        return std::nullopt;
    }
    const std::size_t number = taken_++;
    return number < count_ ? std::optional(number) : std::nullopt;
}

void WorkShare::runOn(unsigned threads, const std::function<void()>& lane) {
    std::mutex mutex;
    std::exception_ptr failure;
    const auto guarded = [&] {
        try {
            lane();
        } catch (...) {
            stop();
            const std::lock_guard lock(mutex);
            failure = failure ? failure : std::current_exception();
        }
    };
    {
        std::vector<std::jthread> lanes;
        for (unsigned i = 0; i < threads; ++i) {
            lanes.emplace_back(guarded);
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace kavri::cli
