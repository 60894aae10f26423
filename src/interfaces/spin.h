// Whether it pays to try again for a moment before sleeping.
//
// Waking a sleeping thread costs more than a short exchange itself takes. So a
// wait tries again without sleeping for up to `spinTime`, but only while recent
// waits were that short; a spin that found nothing ends spinning until a wait
// that slept turns out to have been short. Idle peers therefore never spin. On
// one processor there is nobody to wait for but by sleeping.
//
// Between two tries the processor is offered to others. Where that took long,
// there is other work for all the processors, and every offer hands a whole time
// slice away: then the waits of the near future sleep, which makes the thread
// that is woken one that the scheduler prefers.
#ifndef KAVRI_INTERFACES_SPIN_H
#define KAVRI_INTERFACES_SPIN_H

#include <chrono>

namespace kavri::interfaces {

class Spin {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds spinTime{50};
    // Longer than the peers of a spin compute without a pause, shorter than a
    // time slice.
    static constexpr std::chrono::microseconds crowdedTime{500};
    static constexpr unsigned waitsWhenCrowded = 1000;

    Spin();

    // Offers the processor to whoever else wants it.
    static void letOthersRun();

    // Tries until `attempt()` is true or it no longer pays; false: sleep now.
    template <typename Attempt>
    bool until(const Attempt& attempt, void (*offer)() = letOthersRun) {
        if (!worthwhile_) {
            return false;
        }
        const Clock::time_point end = Clock::now() + spinTime;
        while (!attempt()) {
            const Clock::time_point now = Clock::now();
            if (now >= end) {
                worthwhile_ = false;
                return false;
            }
            offer();
            noteOffer(Clock::now() - now);
        }
        return true;
    }

    // After a wait that slept so long and then had something to do.
    void slept(Clock::duration time) {
        if (waitsToSleep_ > 0) {
            --waitsToSleep_;
        } else {
            worthwhile_ = manyProcessors_ && time < spinTime;
        }
    }

  private:
    void noteOffer(Clock::duration taken) {
        if (taken > crowdedTime) {
            worthwhile_ = false;
            waitsToSleep_ = waitsWhenCrowded;
        }
    }

    bool manyProcessors_;
    bool worthwhile_ = false;
    unsigned waitsToSleep_ = 0;
};

}  // namespace kavri::interfaces

#endif
