// A broken invariant ends the process and says where and why; one that holds costs nothing
// but its evaluation.
#define BOOST_TEST_MODULE assertion

#include "base/assert.h"

#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <csignal>
#include <string>

#include "base/pipe.h"

namespace {

// What a child said that asserted this, and the signal that ended it.
struct Ended {
    std::string said;
    int signal = 0;
};

template <typename Work>
Ended childThatDoes(const Work& work) {
    kavri::base::Pipe pipe = kavri::base::Pipe::make();
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipe.writeEnd.get(), STDERR_FILENO);
        ::signal(SIGABRT, SIG_DFL);  // the test framework catches it
        work();
        ::_exit(0);
    }
    pipe.writeEnd.close();
    Ended ended;
    char byte = 0;
    while (::read(pipe.readEnd.get(), &byte, 1) == 1) {
        ended.said += byte;
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ended.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return ended;
}

}  // namespace

BOOST_AUTO_TEST_CASE(anInvariantThatHoldsIsEvaluatedOnce) {
    int evaluated = 0;
    KAVRI_ASSERT(++evaluated == 1, "evaluated once");
    BOOST_TEST(evaluated == 1);
}

BOOST_AUTO_TEST_CASE(aBrokenOneEndsTheProcessWithPlaceExpressionAndReason) {
    const int line = __LINE__ + 1;
    const Ended ended = childThatDoes([] { KAVRI_ASSERT(1 + 1 == 3, "sums are right"); });
    BOOST_TEST(ended.signal == SIGABRT);
    BOOST_TEST(ended.said == std::string(__FILE__) + ":" + std::to_string(line) +
                                 ": assertion 1 + 1 == 3 failed: sums are right\n");
}
