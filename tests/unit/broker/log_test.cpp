// The log's thread: what it writes, and that nobody ever waits for it.
#define BOOST_TEST_MODULE log

#include "broker/log/log.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <array>
#include <boost/test/unit_test.hpp>
#include <optional>

#include "support/waiting.h"

using namespace kavri::broker;
using namespace kavri::tests;

namespace {

struct Pipe {
    std::array<int, 2> ends{};
    std::optional<Log> log;

    Pipe() {
        BOOST_REQUIRE(::pipe2(ends.data(), O_CLOEXEC) == 0);
        log.emplace("name", ends[1]);
    }
    // The writing end stays open: a writer that is stuck in it outlives the log, and
    // ends when nobody can read any more.
    ~Pipe() {
        log.reset();
        ::close(ends[0]);
    }

    // What was written so far; never waits.
    std::string read() const {
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        std::string text;
        std::array<char, 4096> bytes;
        for (ssize_t count = 0; (count = ::read(ends[0], bytes.data(), bytes.size())) > 0;) {
            text.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return text;
    }
    // Once the log has ended.
    std::string all() {
        log.reset();
        return read();
    }
    // So that a write to it blocks.
    void fill() const {
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        const std::array<char, 4096> bytes{};
        while (::write(ends[1], bytes.data(), bytes.size()) > 0) {
        }
        ::fcntl(ends[1], F_SETFL, 0);
    }
};

// Messages of different kinds, which no limit on repeats bounds.
std::string ofKind(char kind) {
    return std::string(900, kind);
}

}  // namespace

BOOST_FIXTURE_TEST_CASE(aMessageIsALineWithTheNameInFront, Pipe) {
    spdlog::warn("one");
    spdlog::info("two");
    BOOST_TEST(all() == "name: one\nname: two\n");
}

BOOST_FIXTURE_TEST_CASE(aMessageIsWrittenWithoutAnythingFurther, Pipe) {
    spdlog::warn("one");
    std::string text;
    BOOST_TEST(eventually([&] { return !(text += read()).empty(); }));
}

BOOST_FIXTURE_TEST_CASE(repeatsAreCountedAndSummedUpAtTheEnd, Pipe) {
    for (int i = 0; i < 100'000; ++i) {
        spdlog::warn("process {} misbehaves", i);
    }
    const std::string text = all();
    BOOST_TEST(std::count(text.begin(), text.end(), '\n') == 11);
    BOOST_TEST(text.find("... and 99990 more in ") != std::string::npos, text);
    BOOST_TEST(text.find("process # misbehaves") != std::string::npos, text);
}

BOOST_FIXTURE_TEST_CASE(aKindThatIsNotAdmittedIsCountedLikewise, Pipe) {
    int admitted = 0;
    for (int i = 0; i < 1000; ++i) {
        admitted += log->admits("misbehaves") ? 1 : 0;
    }
    BOOST_TEST(admitted == 10);
    BOOST_TEST(all().find("... and 990 more in ") != std::string::npos);
}

BOOST_FIXTURE_TEST_CASE(whatAPeerChoseIsMadePrintable, Pipe) {
    spdlog::warn("a \"{}\"", "\n\x1b[2J");
    BOOST_TEST(all() == "name: a \"\\x0a\\x1b[2J\"\n");
}

BOOST_FIXTURE_TEST_CASE(loggingNeverWaitsForAReaderAndNeitherDoesTheEnd, Pipe) {
    fill();
    for (char kind = 'a'; kind <= 'z'; ++kind) {
        for (int i = 0; i < 1000; ++i) {
            spdlog::warn("{}", ofKind(kind));
        }
    }
    log.reset();
}

BOOST_FIXTURE_TEST_CASE(linesThatNobodyReadInTimeAreDroppedAndCounted, Pipe) {
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
