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
// log, the lock is supplied here: some of the framework's functions are called by
// way of the ones of the same name at the end of this file. By way of one of them
// comes every check, with its texts and values.
#include <dlfcn.h>
#include <sys/prctl.h>

#include <boost/test/framework.hpp>
#include <boost/test/tools/assertion_result.hpp>
#include <boost/test/tools/detail/fwd.hpp>
#include <boost/test/tree/observer.hpp>
#include <boost/test/tree/test_unit.hpp>
#include <boost/test/unit_test_log.hpp>
#include <cstdarg>
#include <mutex>
#include <sstream>
#include <string>

#include "probe/record.h"

using boost::unit_test::const_string;
using boost::unit_test::test_unit;
using boost::unit_test::unit_test_log_t;
using kavri::probe::dumped;
using kavri::probe::isRecording;
using kavri::probe::Json;
using kavri::probe::shortened;
using kavri::probe::tell;

namespace {

// Held by the thread that is writing an entry of the log, from the entry's
// beginning to its end.
std::mutex logMutex;
thread_local bool isWritingEntry = false;

std::string placeText(const_string file, std::size_t line) {
    return std::string(file.begin(), file.size()) + '(' + std::to_string(line) + ')';
}

Json printed(const boost::unit_test::lazy_ostream& value) {
    std::ostringstream stream;
    stream << value;
    return shortened(stream.str().c_str());
}

bool isCase(const test_unit& unit) {
    return unit.p_type == boost::unit_test::TUT_CASE;
}

class Observer : public boost::unit_test::test_observer {
  public:
    void test_unit_start(const test_unit& unit) override {
        if (isCase(unit)) {
            tell("began", unit.full_name());
        }
    }

    void test_unit_finish(const test_unit& unit, unsigned long elapsedUs) override {
        if (isCase(unit)) {
            tell("ended", std::to_string(elapsedUs) + " " + unit.full_name());
        }
    }

    void exception_caught(const boost::execution_exception& /*exception*/) override {
        tell("aborted", "");
    }

    // Behind all of the framework's own: it takes an observer that comes before
    // the one with which it watches its own start for a failure to start.
    int priority() override { return 10; }
};

__attribute__((constructor)) void observe() {
    if (isRecording()) {
        static Observer observer;
        boost::unit_test::framework::register_observer(observer);
        // A debugger that the tool starts may look into this process.
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
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
    if (message.is_empty()) {
        tell("reached", placeText(file, line));
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

// Every check comes here with what it compared. The values are printed for a check
// that failed alone.
namespace boost::test_tools::tt_detail {

// NOLINTBEGIN(cert-dcl50-cpp,performance-unnecessary-value-param): the framework's signature.
bool report_assertion(const boost::test_tools::assertion_result& result,
                      const boost::unit_test::lazy_ostream& description, const_string file,
                      std::size_t line, tool_level level, check_type type, std::size_t count, ...) {
    // NOLINTEND(cert-dcl50-cpp,performance-unnecessary-value-param)
    using Text = const char*;
    using Value = const boost::unit_test::lazy_ostream*;
    static const auto original = behind<bool(
        const boost::test_tools::assertion_result&, const boost::unit_test::lazy_ostream&,
        const_string, std::size_t, tool_level, check_type, std::size_t, ...)>(
        "_ZN5boost10test_tools9tt_detail16report_assertionERKNS0_16assertion_resultERKNS_9unit_"
        "test12lazy_ostreamENS5_13basic_cstringIKcEEmNS1_10tool_levelENS1_10check_typeEmz");
    Text leftText = nullptr;
    Value leftValue = nullptr;
    Text rightText = nullptr;
    Value rightValue = nullptr;
    if (count == 2) {
        va_list arguments;
        va_start(arguments, count);
        leftText = va_arg(arguments, Text);
        leftValue = va_arg(arguments, Value);
        rightText = va_arg(arguments, Text);
        rightValue = va_arg(arguments, Value);
        va_end(arguments);
    }
    const bool passed = !!result;
    if (isRecording()) {
        Json told;
        told["check"] = count == 2 ? shortened((std::string(leftText) + " == " + rightText).c_str())
                                   : printed(description);
        if (!passed && count == 2) {
            told["left"] = printed(*leftValue);
            told["right"] = printed(*rightValue);
        }
        tell(passed ? "passed" : "failed", placeText(file, line) + " " + dumped(told));
    }
    return original(result, description, file, line, level, type, count, leftText, leftValue,
                    rightText, rightValue);
}

}  // namespace boost::test_tools::tt_detail
