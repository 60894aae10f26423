// Whether it pays to try again for a moment before sleeping.
//
// Waking a sleeping thread costs more than a short exchange itself takes. So a
// wait tries again without sleeping for up to `spinTime`, but only while recent
// waits were that short; a spin that found nothing ends spinning until a wait
// that slept turns out to have been short. Idle peers therefore never spin. On
// one processor there is nobody to wait for but by sleeping.
#ifndef KAVRI_INTERFACES_SPIN_H
#define KAVRI_INTERFACES_SPIN_H

#include <chrono>

namespace kavri::interfaces {

class Spin {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::microseconds spinTime{50};

    Spin();

    // Tries until `attempt()` is true or it no longer pays; false: sleep now.
    template <typename Attempt>
    bool until(const Attempt& attempt) {
        if (!worthwhile_) {
            return false;
        }
        const Clock::time_point end = Clock::now() + spinTime;
        do {
            letOthersRun();
            if (attempt()) {
                return true;
            }
        } while (Clock::now() < end);
        worthwhile_ = false;
        return false;
    }

    // After a wait that slept since `begin` and then had something to do.
    void slept(Clock::time_point begin) {
        worthwhile_ = manyProcessors_ && Clock::now() - begin < spinTime;
    }

  private:
    static void letOthersRun();

    bool manyProcessors_;
    bool worthwhile_ = false;
};

}  // namespace kavri::interfaces

#endif
