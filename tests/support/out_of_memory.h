// Calls of the library while memory runs out: at every single allocation, or at all of them.
//
// Include it in one file of a program only, and in none that is built with a sanitizer: it
// brings an allocator of its own.
#ifndef KAVRI_TESTS_SUPPORT_OUT_OF_MEMORY_H
#define KAVRI_TESTS_SUPPORT_OUT_OF_MEMORY_H

#include <array>
#include <atomic>
#include <boost/test/unit_test.hpp>
#include <filesystem>
#include <string>

#include "support/failing_allocations.h"
#include "support/with_broker.h"

namespace kavri::tests {

inline constexpr auto noMemory = KAVRI_CORE_STATUS_OUT_OF_RESOURCES;
// Longer than what a string holds without an allocation.
inline const std::string longCategory = "a category with a long name";

// With a broker. Allocations of the test's thread and of the library's fail separately.
struct WithoutMemory : WithBroker {
    WithoutMemory() { isTestThread = true; }

    // For a responder of its own in each attempt.
    std::string anotherCategory() { return longCategory + " " + std::to_string(++categories_); }

  private:
    int categories_ = 0;
};

// A call whose allocations fail from the n-th on: one, or all of them.
struct Failure {
    long first = 1;
    long count = 1;
};

// Does `attempt` once for each allocation that the call in it makes, with that one failing,
// and once more with all from that one on failing. An attempt makes its call through
// `calling`, which returns the status; how many attempts had one fail.
class Attempts {
  public:
    template <typename Attempt>
    static long run(const Attempt& attempt) {
        long failures = 0;
        for (const long count : {1L, FailingAllocations::all}) {
            Attempts attempts;
            attempts.failure_.count = count;
            do {
                attempts.failed_ = 0;
                BOOST_TEST_CONTEXT("allocation " << attempts.failure_.first << ", count "
                                                 << count) {
                    attempt(attempts);
                }
                failures += attempts.failed_ > 0 ? 1 : 0;
            } while (attempts.failed_ > 0 && ++attempts.failure_.first < 200);
            BOOST_TEST(attempts.failed_ == 0);  // it came to an end
        }
        return failures;
    }

    template <typename Call>
    kavri_core_status calling(const Call& call) {
        failingHere.begin(failure_.first, failure_.count);
        const kavri_core_status status = call();
        failed_ = failingHere.end();
        BOOST_TEST((status == good || (status == noMemory && failed_ > 0)),
                   "came to " << kavri_core_status_text(status));
        return status;
    }

  private:
    Failure failure_;
    long failed_ = 0;
};

// That a request and its answer go through, and nothing else was waiting.
inline void expectWorks(Initiator& initiator) {
    BOOST_TEST(initiator.echoes("next"));
    BOOST_TEST(initiator.receive(0).status == KAVRI_CORE_STATUS_IPC_NO_MESSAGE);
}

// What callbacks got, in memory that is there from the beginning: they run on the thread
// whose allocations fail.
struct Counts {
    std::array<int, 4096> uuids{};
    std::atomic<std::size_t> responses{0};
    std::atomic<int> events{0};
    std::atomic<int> restored{0};

    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* counts) {
        auto& self = *static_cast<Counts*>(counts);
        self.uuids.at(self.responses) = std::atoi(*uuid);
        for (char** string : {category, identifier, uuid, payload}) {
            std::free(*string);
        }
        ++self.responses;
    }
    static void event(char** category, char** identifier, char** payload, void* counts) {
        for (char** string : {category, identifier, payload}) {
            std::free(*string);
        }
        ++static_cast<Counts*>(counts)->events;
    }
    static void request(kavri_core_ipc_request, char** category, char** identifier, char** uuid,
                        char** payload, void* counts) {
        response(category, identifier, uuid, payload, counts);
    }
    static void change(const kavri_core_ipc_connection_change* change, void* counts) {
        if (change->event == KAVRI_CORE_IPC_CONNECTION_RESTORED) {
            ++static_cast<Counts*>(counts)->restored;
        }
    }
    bool haveResponses(std::size_t count) const {
        return eventually([&] { return responses >= count; });
    }
    bool haveEvents(int count) const {
        return eventually([&] { return events >= count; });
    }
};

// The endpoint's descriptors and its thread are gone.
struct Remains {
    std::size_t descriptors = openDescriptors();

    void expectSame() const {
        BOOST_TEST(haveFurtherThreads(0));
        BOOST_TEST(openDescriptors() == descriptors);
    }
};

inline bool librarysThreadSleeps() {
    const std::string own = std::to_string(::getpid());
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() != own && stateIn(task.path() / "stat") == "S") {
            return true;
        }
    }
    return false;
}

inline kavri_core_ipc_options watched(Counts& counts) {
    kavri_core_ipc_options options{};
    options.connectionCallback = Counts::change;
    options.connectionContext = &counts;
    return options;
}

}  // namespace kavri::tests

#endif
