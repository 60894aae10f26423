// The life of the library and its logging contexts.
#ifndef KAVRI_CPP_LIBRARY_HPP
#define KAVRI_CPP_LIBRARY_HPP

#include <kavri/core.h>

#include <kavri/cpp/status.hpp>
#include <kavri/cpp/text.hpp>
#include <utility>

namespace kavri {

// Keeps the library up for as long as one of these lives. Initiators and responders are made
// while there is one, and stay usable after its end. One that was moved from keeps nothing.
class Library {
  public:
    // kavri_core_init. Does not block.
    Library() { throwOnFailure(kavri_core_init(), "initialising kavri"); }
    Library(Library&& other) noexcept : isUp_(std::exchange(other.isUp_, false)) {}
    Library& operator=(Library&& other) noexcept {
        std::swap(isUp_, other.isUp_);
        return *this;
    }
    ~Library() {
        if (isUp_) {
            kavri_core_deinit();
        }
    }

  private:
    bool isUp_ = true;
};

// A logging context: the library's log lines about what is made with it have its name in
// them. It may end before what was made with it. One that was moved from has no cookie.
class Logging {
  public:
    // kavri_core_logging_init. Does not block. Throws Error: NOT_INITIALISED,
    // OUT_OF_RESOURCES.
    explicit Logging(TextView name) {
        throwOnFailure(kavri_core_logging_init(name.c_str(), &cookie_), "opening a log");
    }
    Logging(Logging&& other) noexcept : cookie_(std::exchange(other.cookie_, nullptr)) {}
    Logging& operator=(Logging&& other) noexcept {
        std::swap(cookie_, other.cookie_);
        return *this;
    }
    ~Logging() {
        if (cookie_ != nullptr) {
            kavri_core_logging_deinit(cookie_);
        }
    }

    // For Options::logging; stays this object's.
    kavri_core_logging_cookie cookie() const noexcept { return cookie_; }

  private:
    kavri_core_logging_cookie cookie_ = nullptr;
};

}  // namespace kavri

#endif
