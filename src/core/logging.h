// What the library has to say, under the name of the program's logging context.
#ifndef KAVRI_CORE_LOGGING_H
#define KAVRI_CORE_LOGGING_H

#include <memory>
#include <string>
#include <string_view>

namespace kavri::core {

// One line to standard error, where KAVRI_LOG lets the severity through. Any
// thread; never throws, never blocks longer than the write does.
class Log {
  public:
    explicit Log(std::string_view name);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void warning(std::string_view text) noexcept;
    void info(std::string_view text) noexcept;

  private:
    struct Sink;
    std::unique_ptr<Sink> sink_;
};

}  // namespace kavri::core

// What a logging cookie points to. Objects keep the log beyond the cookie's end.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the C interface's.
struct kavri_core_logging {
    std::shared_ptr<kavri::core::Log> log;
};

#endif
