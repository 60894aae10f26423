// The parts of spinning that ask the system; see spin.h.
#include "wire/spin.h"

#include <sched.h>

namespace kavri::wire {

Spin::Spin(std::chrono::microseconds atMost) : atMost_(atMost) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    manyProcessors_ =
        sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 1;
}

void Spin::yield() {
    sched_yield();
}

}  // namespace kavri::wire
