// Tells the tool what the conformance module is doing, while it is doing it.
//
// A small library that the tool has loaded into the module. It joins the test
// framework as one more observer, and writes a line for each thing it sees to
// the descriptor that KAVRI_MODULE_EVENTS names; see module_events.h for the
// lines. Each is written at once and as a whole, so lines of two threads do not
// mix, and what was written before a crash is there after it.
//
// The framework's own log could say as much, at its fullest level. But it takes
// no lock, and the module checks on two threads at a time: entries would be
// mangled, and now and then miscounted. For the failures, which are left to the
// log, the lock is supplied here: three of the framework's functions are called
// by way of the ones of the same name at the end of this file.
#include <dlfcn.h>
#include <unistd.h>

#include <boost/test/framework.hpp>
#include <boost/test/tree/observer.hpp>
#include <boost/test/tree/test_unit.hpp>
#include <boost/test/unit_test_log.hpp>
#include <mutex>
#include <string>

#include "cli/environment.h"

using boost::unit_test::const_string;
using boost::unit_test::test_unit;
using boost::unit_test::unit_test_log_t;

namespace {

// The descriptor to write to; -1: nobody listens.
int eventsDescriptor = -1;

// The check that this thread came to last, as "file(line)".
thread_local std::string placeReached;

// Held by the thread that is writing an entry of the log, from the entry's
// beginning to its end.
std::mutex logMutex;
thread_local bool isWritingEntry = false;

void tell(const std::string& line) {
    // A line is shorter than what a pipe takes undivided. If the tool has gone
    // there is nobody to tell.
    const ssize_t written = write(eventsDescriptor, line.data(), line.size());
    static_cast<void>(written);
}

bool isCase(const test_unit& unit) {
    return unit.p_type == boost::unit_test::TUT_CASE;
}

class Observer : public boost::unit_test::test_observer {
  public:
    void test_unit_start(const test_unit& unit) override {
        if (isCase(unit)) {
            tell("began " + unit.full_name() + "\n");
        }
    }

    void test_unit_finish(const test_unit& unit, unsigned long elapsedUs) override {
        if (isCase(unit)) {
            tell("ended " + std::to_string(elapsedUs) + " " + unit.full_name() + "\n");
        }
    }

    void assertion_result(boost::unit_test::assertion_result result) override {
        if (result == boost::unit_test::AR_PASSED) {
            tell("passed " + placeReached + "\n");
        } else if (result == boost::unit_test::AR_FAILED) {
            tell("failed " + placeReached + "\n");
        }
    }

    void exception_caught(const boost::execution_exception& /*exception*/) override {
        tell("aborted\n");
    }

    // Behind all of the framework's own: it takes an observer that comes before
    // the one with which it watches its own start for a failure to start.
    int priority() override { return 10; }
};

__attribute__((constructor)) void observe() {
    const std::string number = kavri::cli::environmentVariable("KAVRI_MODULE_EVENTS");
    if (!number.empty()) {
        eventsDescriptor = std::stoi(number);
        static Observer observer;
        boost::unit_test::framework::register_observer(observer);
    }
}

// The framework's function behind the one of the same name here.
template <typename Function>
Function* behind(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

// Each check comes here before it evaluates anything, and says where it is.
// NOLINTNEXTLINE(performance-unnecessary-value-param): the framework's signature.
void unit_test_log_t::set_checkpoint(const_string file, std::size_t line, const_string message) {
    static const auto original =
        behind<void(unit_test_log_t*, const_string, std::size_t, const_string)>(
            "_ZN5boost9unit_test15unit_test_log_t14set_checkpointENS0_13basic_cstringIKcEEmS4_");
    // Checkpoints with a message are those around a case.
    if (eventsDescriptor >= 0 && message.is_empty()) {
        placeReached.assign(file.begin(), file.size()).append("(" + std::to_string(line) + ")");
        tell("reached " + placeReached + "\n");
    }
    std::unique_lock<std::mutex> lock(logMutex, std::defer_lock);
    if (!isWritingEntry) {
        lock.lock();
    }
    original(this, file, line, message);
}

unit_test_log_t& unit_test_log_t::operator<<(const boost::unit_test::log::begin& begin) {
    static const auto original =
        behind<unit_test_log_t&(unit_test_log_t*, const boost::unit_test::log::begin&)>(
            "_ZN5boost9unit_test15unit_test_log_tlsERKNS0_3log5beginE");
    if (!isWritingEntry) {
        logMutex.lock();
        isWritingEntry = true;
    }
    return original(this, begin);
}

unit_test_log_t& unit_test_log_t::operator<<(const boost::unit_test::log::end& end) {
    static const auto original =
        behind<unit_test_log_t&(unit_test_log_t*, const boost::unit_test::log::end&)>(
            "_ZN5boost9unit_test15unit_test_log_tlsERKNS0_3log3endE");
    unit_test_log_t& result = original(this, end);
    if (isWritingEntry) {
        isWritingEntry = false;
        logMutex.unlock();
    }
    return result;
}
