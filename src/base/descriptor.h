// A file descriptor with one owner, which closes it.
#ifndef KAVRI_BASE_DESCRIPTOR_H
#define KAVRI_BASE_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kavri::base {

class Descriptor {
  public:
    Descriptor() = default;
    // Takes over what a system call returned: a negative number is no descriptor.
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(Descriptor&& other) noexcept : descriptor_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            descriptor_ = other.release();
        }
        return *this;
    }
    ~Descriptor() { close(); }

    bool isOpen() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }
    // The descriptor is the caller's to close from now on.
    int release() { return std::exchange(descriptor_, -1); }
    // Leaves errno as it is, so that the failure that led here can still be reported.
    void close() {
        if (isOpen()) {
            const int before = errno;
            ::close(release());
            errno = before;
        }
    }

  private:
    int descriptor_ = -1;
};

}  // namespace kavri::base

#endif
