// Makes the bus' descriptor readable from any thread.
#ifndef KAVRI_LINK_NATS_WAKEUP_H
#define KAVRI_LINK_NATS_WAKEUP_H

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "base/descriptor.h"

namespace kavri::link_nats {

class Wakeup {
  public:
    Wakeup() {
        if (!event_.isOpen()) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
    }

    int descriptor() const { return event_.get(); }
    void ring() const { eventfd_write(event_.get(), 1); }
    void clear() const {
        eventfd_t ignored = 0;
        eventfd_read(event_.get(), &ignored);
    }

  private:
    base::Descriptor event_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

}  // namespace kavri::link_nats

#endif
