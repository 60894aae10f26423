// The library's log lines; see logging.h.
#include "core/logging.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

namespace kavri::core {

namespace {

constexpr std::size_t longestName = 255;

spdlog::level::level_enum chosenLevel() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): read only; the library never writes the environment.
    const char* chosen = std::getenv("KAVRI_LOG");
    if (chosen == nullptr) {
        return spdlog::level::warn;
    }
    const spdlog::level::level_enum level = spdlog::level::from_str(chosen);
    // An unknown name reads as "off" there; silence must have been asked for.
    const bool isKnown = level != spdlog::level::off || std::string_view(chosen) == "off";
    return isKnown ? level : spdlog::level::warn;
}

// Each has a lock of its own. spdlog's sinks for standard error share one: a child would
// inherit it locked where a thread of its parent was writing, and could never log.
class StandardError : public spdlog::sinks::base_sink<std::mutex> {
  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        std::fwrite(line.data(), 1, line.size(), stderr);
    }
    void flush_() override {}  // standard error is not buffered
};

}  // namespace

struct Log::Sink {
    explicit Sink(std::string_view name)
        : logger(std::string(name.substr(0, longestName)), std::make_shared<StandardError>()) {
        logger.set_pattern("%n: %l: %v");
        logger.set_level(chosenLevel());
    }
    spdlog::logger logger;
};

namespace {

void write(Log::Sink& sink, spdlog::level::level_enum level, Log::Pieces pieces) noexcept {
    try {
        if (sink.logger.should_log(level)) {
            std::string text;
            for (const std::string_view piece : pieces) {
                text += piece;
            }
            sink.logger.log(level, text);
        }
    } catch (const std::bad_alloc&) {
        // The line is left out.
    }
}

}  // namespace

Log::Log(std::string_view name) : sink_(std::make_unique<Sink>(name)) {}
Log::~Log() = default;

void Log::warning(Pieces pieces) noexcept {
    write(*sink_, spdlog::level::warn, pieces);
}
void Log::info(Pieces pieces) noexcept {
    write(*sink_, spdlog::level::info, pieces);
}

}  // namespace kavri::core
