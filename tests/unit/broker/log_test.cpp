// The log's thread: what it writes, and that nobody ever waits for it.
#define BOOST_TEST_MODULE log

#include "broker/log/log.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <array>
#include <boost/test/unit_test.hpp>
#include <optional>

#include "base/pipe.h"
#include "support/waiting.h"

using namespace kavri::broker;
using namespace kavri::tests;

namespace {

struct LogInPipe {
    kavri::base::Pipe pipe = kavri::base::Pipe::make();
    // Never closed: a writer that is stuck in it outlives the log, and ends when nobody can
    // read any more.
    const int writing = pipe.writeEnd.release();
    std::optional<Log> log{std::in_place, "name", writing};

    LogInPipe() { kavri::base::setNonBlocking(pipe.readEnd); }

    // What was written so far; never waits.
    std::string read() {
        std::string text;
        kavri::base::readAvailable(pipe.readEnd, text);
        return text;
    }
    // Once the log has ended.
    std::string all() {
        log.reset();
        return read();
    }
    // So that a write to it blocks.
    void fill() const {
        ::fcntl(writing, F_SETFL, O_NONBLOCK);
        const std::array<char, 4096> bytes{};
        while (::write(writing, bytes.data(), bytes.size()) > 0) {
        }
        ::fcntl(writing, F_SETFL, 0);
    }
};

// Messages of different kinds, which no limit on repeats bounds.
std::string ofKind(char kind) {
    return std::string(900, kind);
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(aMessageIsALineWithTheNameInFront, LogInPipe) {
    spdlog::warn("one");
    spdlog::info("two");
    BOOST_TEST(all() == "name: one\nname: two\n");
}

BOOST_FIXTURE_TEST_CASE(aMessageIsWrittenWithoutAnythingFurther, LogInPipe) {
    spdlog::warn("one");
    std::string text;
    BOOST_TEST(eventually([&] { return !(text += read()).empty(); }));
}

BOOST_FIXTURE_TEST_CASE(repeatsAreCountedAndSummedUpAtTheEnd, LogInPipe) {
    for (int i = 0; i < 100'000; ++i) {
        spdlog::warn("process {} misbehaves", i);
    }
    const std::string text = all();
    BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 11);
    BOOST_TEST(text.find("... and 99990 more in ") != std::string::npos, text);
    BOOST_TEST(text.find("process # misbehaves") != std::string::npos, text);
}

BOOST_FIXTURE_TEST_CASE(aKindThatIsNotAdmittedIsCountedLikewise, LogInPipe) {
    int admitted = 0;
    for (int i = 0; i < 1000; ++i) {
        admitted += log->admits("misbehaves") ? 1 : 0;
    }
    BOOST_TEST(admitted == 10);
    BOOST_TEST(all().find("... and 990 more in ") != std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whatAPeerChoseIsMadePrintable, LogInPipe) {
    spdlog::warn("a \"{}\"", "\n\x1b[2J");
    BOOST_TEST(all() == "name: a \"\\x0a\\x1b[2J\"\n");
}

BOOST_FIXTURE_TEST_CASE(loggingNeverWaitsForAReaderAndNeitherDoesTheEnd, LogInPipe) {
    fill();
    for (char kind = 'a'; kind <= 'z'; ++kind) {
        for (int i = 0; i < 1000; ++i) {
            spdlog::warn("{}", ofKind(kind));
        }
    }
    log.reset();
}

BOOST_FIXTURE_TEST_CASE(linesThatNobodyReadInTimeAreDroppedAndCounted, LogInPipe) {
    fill();
    for (char kind = 'a'; kind <= 'z'; ++kind) {
        for (int i = 0; i < 10; ++i) {
            spdlog::warn("{}", ofKind(kind));
        }
    }
    std::string text;
    BOOST_TEST(eventually([&] {
        text += read();
        return text.find(" lines dropped: they were not read in time\n") != std::string::npos;
    }));
}
