// Counting forks; see process_generation.h.
#include "core/process_generation.h"

#include <pthread.h>

namespace kavri::core {

namespace {

// Written in a child before it has a second thread, and only there.
unsigned generation = 0;

// Registered when the library is loaded, so before any object of it can exist.
[[maybe_unused]] const int registered = pthread_atfork(nullptr, nullptr, [] { ++generation; });

}  // namespace

unsigned processGeneration() {
    return generation;
}

}  // namespace kavri::core
