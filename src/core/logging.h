// The library's log lines, under the name of the program's logging context.
#ifndef KAVRI_CORE_LOGGING_H
#define KAVRI_CORE_LOGGING_H

#include <initializer_list>
#include <memory>
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

    // The pieces are one text; a line for which there is no memory is left out.
    using Pieces = std::initializer_list<std::string_view>;
    void warning(Pieces pieces) noexcept;
    void info(Pieces pieces) noexcept;

    struct Sink;

  private:
    std::unique_ptr<Sink> sink_;
};

}  // namespace kavri::core

// What a logging cookie points to. Objects keep the log beyond the cookie's end.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the C interface's.
struct kavri_core_logging {
    std::shared_ptr<kavri::core::Log> log;
};

#endif
