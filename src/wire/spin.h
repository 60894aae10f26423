// Adaptive spinning: whether to try again for a moment before sleeping.
//
// Waking a sleeping thread costs more than a short exchange itself takes. So a
// wait tries again without sleeping for as long as an answer is worth it, but
// only while recent waits were that short; a spin that found nothing ends
// spinning until a wait that slept turns out to have been short. Idle peers
// therefore never spin. With one processor the peer can only run while this
// thread sleeps.
//
// Between two tries the thread yields the processor. Where that took long, there
// is other work for all the processors, and every yield costs a whole time slice:
// then the next waits sleep, since the scheduler prefers a thread that has slept.
#ifndef KAVRI_WIRE_SPIN_H
#define KAVRI_WIRE_SPIN_H

#include <chrono>

namespace kavri::wire {

class Spin {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds answerOfThisMachine{50};
    static constexpr std::chrono::microseconds answerOfAnotherMachine{250};
    // Longer than the peers of a spin compute without a pause, shorter than a
    // time slice.
    static constexpr std::chrono::microseconds crowdedTime{500};
    static constexpr unsigned waitsWhenCrowded = 1000;

    // atMost: how long it tries before it sleeps.
    explicit Spin(std::chrono::microseconds atMost = answerOfThisMachine);

    static void yield();

    // Tries until `attempt()` is true or it no longer pays; false: sleep now. Tests pass
    // another `yieldOnce`.
    template <typename Attempt>
    bool until(const Attempt& attempt, void (*yieldOnce)() = yield) {
        if (!worthwhile_) {
            return false;
        }
        const Clock::time_point end = Clock::now() + atMost_;
        while (!attempt()) {
            const Clock::time_point now = Clock::now();
            if (now >= end) {
                worthwhile_ = false;
                return false;
            }
            yieldOnce();
            noteYield(Clock::now() - now);
        }
        return true;
    }

    // To be called after a wait that slept this long until something arrived.
    void slept(Clock::duration time) {
        if (waitsToSleep_ > 0) {
            --waitsToSleep_;
        } else {
            worthwhile_ = manyProcessors_ && time < atMost_;
        }
    }

  private:
    void noteYield(Clock::duration taken) {
        if (taken > crowdedTime) {
            worthwhile_ = false;
            waitsToSleep_ = waitsWhenCrowded;
        }
    }

    std::chrono::microseconds atMost_;
    bool manyProcessors_;
    bool worthwhile_ = false;
    unsigned waitsToSleep_ = 0;
};

}  // namespace kavri::wire

#endif
