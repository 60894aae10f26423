// Counting forks; see process_generation.h.
#include "core/process_generation.h"

#include <pthread.h>

#include <atomic>

namespace kavri::core {

namespace {

// Written in a child before it has a second thread, and only there. Atomic for the thread
// sanitizer, which takes a read by a thread of the parent for one in the child.
std::atomic<unsigned> generation{0};

// Registered when the library is loaded, so before any object of it can exist.
[[maybe_unused]] const int registered =
    pthread_atfork(nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); });

}  // namespace

unsigned processGeneration() {
    return generation.load(std::memory_order_relaxed);
}

}  // namespace kavri::core
