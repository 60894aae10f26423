// Wakes a thread from its wait on a socket.
#ifndef KAVRI_CORE_CONNECTION_WAKER_H
#define KAVRI_CORE_CONNECTION_WAKER_H

#include "base/descriptor.h"

namespace kavri::core {

class Waker {
  public:
    // Throws std::system_error where there is no descriptor.
    Waker();

    void wake();   // the wait under way, or else the next one, ends at once
    void reset();  // undoes all wake-ups so far
    bool isWoken() const;
    int descriptor() const { return descriptor_.get(); }

    // In a forked child, which will not wait: closes its copy.
    void closeCopy() { descriptor_.close(); }

  private:
    base::Descriptor descriptor_;
};

}  // namespace kavri::core

#endif
