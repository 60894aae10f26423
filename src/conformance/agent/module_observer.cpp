// Records the cases and checks of the conformance module while it runs.
//
// A small library that the tool has loaded into the module. It joins the test
// framework as one more observer, for the cases, and as one more log formatter, for
// the checks and exceptions; the formatter that the user chooses logs beside it. For
// each thing it writes a line to the descriptor that KAVRI_MODULE_EVENTS names; see
// module_events.h for the lines. Each is written at once and as a whole, so what was
// written before a crash is there after it. In the module's output it marks where a case
// begins.
//
// Between two cases the module waits until the tool has compared the case with what reached
// the test service, so that the requests of one are not taken for those of the next. The
// descriptor that KAVRI_MODULE_RELEASE names gives a byte for each case.
//
// The framework is not thread-safe, and neither is this: the module sees to it that
// one thread at a time uses the framework.
//
// KAVRI_MODULE_ROUNDS says how often the cases are run in the process: when the framework has
// run them once, the observer has it run them again, so that what each round leaves behind
// adds up.
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/test/execution_monitor.hpp>
#include <boost/test/framework.hpp>
#include <boost/test/tree/observer.hpp>
#include <boost/test/tree/test_unit.hpp>
#include <boost/test/unit_test_log.hpp>
#include <boost/test/unit_test_log_formatter.hpp>
#include <boost/test/unit_test_parameters.hpp>
#include <cerrno>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>

#include "conformance/agent/channel.h"
#include "conformance/agent/check_entry.h"
#include "conformance/agent/holding.h"
#include "conformance/agent/record.h"

namespace {

namespace ut = boost::unit_test;
using kavri::conformance::dumped;
using kavri::conformance::Json;
using kavri::conformance::shortened;
using kavri::conformance::tell;
using ut::const_string;

// The texts of a failed check and of an exception are cut later than others.
constexpr std::size_t failureLimitBytes = 800;

Json atLength(const std::string& text) {
    return shortened(text, failureLimitBytes);
}

std::string stringOf(const_string text) {
    return {text.begin(), text.size()};
}

std::string placeText(const std::string& file, std::size_t line) {
    return file + '(' + std::to_string(line) + ')';
}

// The module's standard output and error, which the library may use, close, or put
// something else in the place of.
class Output {
  public:
    explicit Output(int descriptor) : descriptor_(descriptor) {
        isThere_ = fstat(descriptor, &file_) == 0;
    }

    void markCase(const std::string& name) const {
        struct stat now {};
        if (!isThere_ || fstat(descriptor_, &now) != 0 || now.st_dev != file_.st_dev ||
            now.st_ino != file_.st_ino) {
            return;
        }
        const std::string line = std::string(kavri::conformance::caseMark) + name + "\n";
        // Where the mark is lost the output counts as that of the case before.
        static_cast<void>(!write(descriptor_, line.data(), line.size()));
    }

  private:
    int descriptor_;
    bool isThere_;
    struct stat file_ {};
};

// What is still in the stream's buffer belongs to the case that ends.
void flushStandardOutput() {
    // Where the library holds the stream, there is no waiting for it.
    if (ftrylockfile(stdout) == 0) {
        fflush_unlocked(stdout);
        funlockfile(stdout);
    }
}

// Returns at once where nothing is to be waited for, or the tool has ended.
void awaitRelease() {
    static const int descriptor = kavri::conformance::descriptorIn("KAVRI_MODULE_RELEASE");
    char byte = 0;
    while (descriptor >= 0 && read(descriptor, &byte, 1) < 0 && errno == EINTR) {
    }
}

class Formatter : public ut::unit_test_log_formatter {
  public:
    void log_entry_start(std::ostream& /*stream*/, const ut::log_entry_data& data,
                         log_entry_types type) override {
        entry_ = {};
        place_ = placeText(data.m_file_name, data.m_line_num);
        type_ = type;
    }

    void log_entry_value(std::ostream& /*stream*/, const_string text) override {
        entry_.addText(stringOf(text));
    }

    void log_entry_value(std::ostream& /*stream*/, const ut::lazy_ostream& value) override {
        std::ostringstream printed;
        printed << value;
        entry_.addValue(printed.str());
    }

    void log_entry_finish(std::ostream& /*stream*/) override {
        if (type_ == BOOST_UTL_ET_INFO) {
            recordCheck("passed", {{"check", shortened(entry_.text())}});
        } else if (type_ == BOOST_UTL_ET_ERROR || type_ == BOOST_UTL_ET_FATAL_ERROR) {
            recordFailure();
        }
    }

    // Of an exception, too, the context follows.
    void log_exception_start(std::ostream& /*stream*/, const ut::log_checkpoint_data& checkpoint,
                             const boost::execution_exception& exception) override {
        const boost::execution_exception::location& where = exception.where();
        entry_ = {};
        entry_.addText(stringOf(exception.what()));
        if (where.m_line_num != 0) {
            entry_.addText(", at " + placeText(stringOf(where.m_file_name), where.m_line_num));
        }
        if (!checkpoint.m_file_name.is_empty()) {
            entry_.addText("; last checkpoint: " +
                           placeText(stringOf(checkpoint.m_file_name), checkpoint.m_line_num));
        }
    }

    void log_exception_finish(std::ostream& /*stream*/) override {
        tell("aborted", dumped({{"message", atLength(entry_.message())}}));
    }

    void log_entry_context(std::ostream& /*stream*/, ut::log_level /*level*/,
                           const_string context) override {
        entry_.addText("; in context: " + stringOf(context));
    }

    // Recorded by the observer, or not needed.
    void log_start(std::ostream& /*stream*/, ut::counter_t /*cases*/) override {}
    void log_finish(std::ostream& /*stream*/) override {}
    void log_build_info(std::ostream& /*stream*/, bool /*wanted*/) override {}
    void test_unit_start(std::ostream& /*stream*/, const ut::test_unit& /*unit*/) override {}
    void test_unit_finish(std::ostream& /*stream*/, const ut::test_unit& /*unit*/,
                          unsigned long /*elapsedUs*/) override {}
    void entry_context_start(std::ostream& /*stream*/, ut::log_level /*level*/) override {}
    void entry_context_finish(std::ostream& /*stream*/, ut::log_level /*level*/) override {}

  private:
    void recordCheck(const char* word, const Json& said) {
        tell(word, place_ + " " + dumped(said));
    }

    void recordFailure() {
        const char* severity = type_ == BOOST_UTL_ET_FATAL_ERROR ? "fatal error: " : "error: ";
        Json said = {{"check", shortened(entry_.text())},
                     {"message", atLength(severity + entry_.message())}};
        if (const std::vector<std::string> values = entry_.values(); !values.empty()) {
            said["left"] = atLength(values[0]);
            said["right"] = atLength(values[1]);
        }
        recordCheck("failed", said);
    }

    // Of the entry under way.
    kavri::conformance::CheckEntry entry_;
    std::string place_;
    log_entry_types type_ = BOOST_UTL_ET_INFO;
};

unsigned roundsAskedFor() {
    const std::string text = kavri::conformance::environmentVariable("KAVRI_MODULE_ROUNDS");
    return text.empty() ? 1 : static_cast<unsigned>(std::stoul(text));
}

class Observer : public ut::test_observer {
  public:
    // By now the framework has set up the formatters that its arguments ask for, and
    // disabled all others.
    void test_start(ut::counter_t /*cases*/, ut::test_unit_id /*root*/) override {
        // Takes what the framework itself writes to a formatter's stream, nothing. Never
        // destroyed: the framework restores the stream's state when the program ends.
        static std::ostream& nowhere = *new std::ostream(nullptr);
        ut::unit_test_log.add_formatter(new Formatter);
        ut::unit_test_log.set_threshold_level(ut::OF_CUSTOM_LOGGER, ut::log_successful_tests);
        ut::unit_test_log.set_stream(ut::OF_CUSTOM_LOGGER, nowhere);
        ut::unit_test_log.configure();
    }

    void test_unit_start(const ut::test_unit& unit) override {
        if (isWhole(unit) && round_ > 1 && seed() > 0) {
            // As in a process of its own that has the next seed.
            std::srand(seed() + round_ - 1);
        }
        if (isCase(unit)) {
            output_.markCase(unit.full_name());
            error_.markCase(unit.full_name());
            tell("began", unit.full_name());
        }
    }

    void test_unit_finish(const ut::test_unit& unit, unsigned long elapsedUs) override {
        if (isCase(unit)) {
            flushStandardOutput();
            tell("ended", std::to_string(elapsedUs) + " " + unit.full_name());
            awaitRelease();
        } else if (isWhole(unit)) {
            endRound();
        }
    }

    // Behind all of the framework's own: it takes an observer that comes before
    // the one with which it watches its own start for a failure to start.
    int priority() override { return 10; }

  private:
    static bool isCase(const ut::test_unit& unit) { return unit.p_type == ut::TUT_CASE; }
    static bool isWhole(const ut::test_unit& unit) {
        return unit.p_parent_id == ut::INV_TEST_UNIT_ID;
    }

    // The seed by which the framework shuffles; 0: it does not.
    static unsigned seed() {
        return ut::runtime_config::get<unsigned>(ut::runtime_config::btrt_random_seed);
    }

    // The first round ends within the framework's own run, the others within those that are
    // made here.
    void endRound() {
        kavri::conformance::recordRound(round_);
        if (round_ > 1) {
            return;
        }
        while (round_ < rounds_) {
            ++round_;
            ut::framework::run(ut::INV_TEST_UNIT_ID, true);
        }
    }

    const unsigned rounds_ = roundsAskedFor();
    unsigned round_ = 1;

    const Output output_{STDOUT_FILENO};
    const Output error_{STDERR_FILENO};
};

__attribute__((constructor)) void observe() {
    if (kavri::conformance::isRecording()) {
        // Never destroyed: the framework calls it during exit, too, also when the library calls
        // exit().
        static Observer& observer = *new Observer;
        ut::framework::register_observer(observer);
        // Lets a debugger that the tool starts attach to this process. Fails where the kernel
        // has no such restriction.
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    }
}

}  // namespace
