// Starting programs and keeping hold of them: what they print, how they end,
// and that nothing of them stays.
#define BOOST_TEST_MODULE childProcess

#include "process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <cerrno>
#include <system_error>

#include "base/pipe.h"
#include "support/waiting.h"

using kavri::base::Pipe;
using kavri::process::ChildProcess;
using kavri::process::ChildSpawn;
using kavri::process::ExitState;
using kavri::tests::openDescriptors;
using namespace std::chrono_literals;

namespace {

// Long enough never to be reached, short enough to end a test that hangs.
constexpr auto longEnough = 20s;

ChildSpawn shell(const std::string& script) {
    return {.program = "/bin/sh", .arguments = {"-c", script}};
}

ExitState endOf(ChildProcess& child) {
    const auto exit = child.wait(longEnough);
    BOOST_REQUIRE(exit.has_value());
    return *exit;
}

bool isGone(pid_t pid) {
    return kill(pid, 0) == -1 && errno == ESRCH;
}

// Waits until a process that nobody here can reap has gone, or is a zombie
// that its new parent has yet to take.
bool becomesGone(pid_t pid) {
    const auto deadline = std::chrono::steady_clock::now() + longEnough;
    while (std::chrono::steady_clock::now() < deadline) {
        ChildProcess look(
            shell("read -r line < /proc/" + std::to_string(pid) +
                  "/stat 2>/dev/null || exit 0; case $line in *') Z '*) exit 0;; esac; "
                  "exit 1"));
        if (endOf(look).succeeded()) {
            return true;
        }
    }
    return false;
}

}  // namespace

BOOST_AUTO_TEST_CASE(outputAndErrorAreCapturedApart) {
    ChildProcess child(shell("echo to output; echo to error >&2"));
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.output() == "to output\n");
    BOOST_TEST(child.error() == "to error\n");
    BOOST_TEST(child.outputDescriptor() == -1);
    BOOST_TEST(child.errorDescriptor() == -1);
}

BOOST_AUTO_TEST_CASE(moreOutputThanAPipeHoldsIsCapturedWhole) {
    ChildProcess child(shell("head -c 1000000 /dev/zero"));
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.output().size() == 1000000U);
}

BOOST_AUTO_TEST_CASE(outputWithoutEndIsCapturedUpToALimit) {
    ChildProcess child(shell("yes | head -c 100000000; echo end >&2"));
    endOf(child);
    BOOST_TEST(child.output().size() == ChildProcess::captureLimitBytes);
    BOOST_TEST(child.error() == "end\n");
}

BOOST_AUTO_TEST_CASE(outputThatIsTakenIsForgotten) {
    ChildProcess child(shell("echo one; echo two >&2"));
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.takeOutput() == "one\n");
    BOOST_TEST(child.output().empty());
    BOOST_TEST(child.takeError() == "two\n");
    BOOST_TEST(child.error().empty());
}

BOOST_AUTO_TEST_CASE(argumentsArePassedUnchanged) {
    ChildProcess child(
        {.program = "/bin/sh", .arguments = {"-c", "printf '%s|' \"$@\"", "sh", "a b", "", "*"}});
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.output() == "a b||*|");
}

BOOST_AUTO_TEST_CASE(environmentIsACopyWithWhatWasSetAndRemoved) {
    setenv("KAVRI_TEST_KEPT", "kept", 1);
    setenv("KAVRI_TEST_REMOVED", "still here", 1);
    setenv("KAVRI_TEST_REPLACED", "old", 1);
    ChildSpawn spawn = shell(
        "echo "
        "\"$KAVRI_TEST_KEPT,${KAVRI_TEST_REMOVED-removed},$KAVRI_TEST_REPLACED,$KAVRI_TEST_NEW\"");
    spawn.environment = {{"KAVRI_TEST_REMOVED", std::nullopt},
                         {"KAVRI_TEST_REPLACED", "new"},
                         {"KAVRI_TEST_NEW", "added"}};
    ChildProcess child(spawn);
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.output() == "kept,removed,new,added\n");
    BOOST_TEST(getenv("KAVRI_TEST_REPLACED") == "old");
    for (const char* name : {"KAVRI_TEST_KEPT", "KAVRI_TEST_REMOVED", "KAVRI_TEST_REPLACED"}) {
        unsetenv(name);
    }
}

BOOST_AUTO_TEST_CASE(exitStatusIsReported) {
    ChildProcess child(shell("exit 7"));
    const ExitState exit = endOf(child);
    BOOST_TEST(exit.code == 7);
    BOOST_TEST(exit.signal == 0);
    BOOST_TEST(!exit.succeeded());
    BOOST_TEST(endOf(child).code == 7);  // as often as asked
}

BOOST_AUTO_TEST_CASE(endingSignalIsReported) {
    ChildProcess child(shell("kill -SEGV $$"));
    const ExitState exit = endOf(child);
    BOOST_TEST(exit.signal == SIGSEGV);
    BOOST_TEST(!exit.succeeded());
}

BOOST_AUTO_TEST_CASE(aProgramThatCannotBeStartedIsNamedWithTheReason) {
    const auto namesProgramAndReason = [](int reason, const std::string& program) {
        return [=](const std::system_error& error) {
            return error.code().value() == reason &&
                   std::string(error.what()).find(program) != std::string::npos;
        };
    };
    BOOST_CHECK_EXCEPTION(ChildProcess({.program = "/nowhere/program"}), std::system_error,
                          namesProgramAndReason(ENOENT, "/nowhere/program"));
    BOOST_CHECK_EXCEPTION(ChildProcess({.program = "/etc/passwd"}), std::system_error,
                          namesProgramAndReason(EACCES, "/etc/passwd"));
}

BOOST_AUTO_TEST_CASE(waitingForTextEndsWhenItIsThere) {
    ChildProcess child(shell("echo starting; echo ready >&2; exec sleep 1000"));
    BOOST_TEST(child.waitForError("ready", longEnough));
    BOOST_TEST(child.waitForOutput("starting", longEnough));
    BOOST_TEST(!child.wait(0ms).has_value());
}

BOOST_AUTO_TEST_CASE(waitingForTextEndsWhenTheProgramHasEndedWithoutIt) {
    ChildProcess child(shell("echo something else"));
    BOOST_TEST(!child.waitForOutput("ready", longEnough));
    BOOST_TEST(child.output() == "something else\n");
}

BOOST_AUTO_TEST_CASE(waitingForTextEndsWhenTheTimeIsOver) {
    ChildProcess child(shell("exec sleep 1000"));
    BOOST_TEST(!child.waitForOutput("ready", 1ms));
    BOOST_TEST(!child.wait(0ms).has_value());
}

BOOST_AUTO_TEST_CASE(endedDescriptorBecomesReadable) {
    ChildProcess child(shell("exec sleep 1000"));
    pollfd ended = {child.endedDescriptor(), POLLIN, 0};
    BOOST_TEST(poll(&ended, 1, 0) == 0);
    child.signal(SIGTERM);
    BOOST_TEST(poll(&ended, 1, 20000) == 1);
    BOOST_TEST(endOf(child).signal == SIGTERM);
}

BOOST_AUTO_TEST_CASE(waitingEndsWhenItIsInterrupted) {
    const Pipe pipe = Pipe::make();
    ChildSpawn spawn = shell("exec sleep 1000");
    spawn.interruptDescriptor = pipe.readEnd.get();
    ChildProcess child(spawn);
    BOOST_TEST(write(pipe.writeEnd.get(), "x", 1) == 1);
    BOOST_TEST(!child.wait(1h).has_value());
    BOOST_TEST(!child.waitForOutput("ready", 1h));
}

BOOST_AUTO_TEST_CASE(destroyingEndsTheProgram) {
    pid_t pid = -1;
    {
        ChildProcess child(shell("trap '' TERM INT; exec sleep 1000"));
        pid = child.pid();
        BOOST_TEST(!isGone(pid));
    }
    BOOST_TEST(isGone(pid));
}

BOOST_AUTO_TEST_CASE(assigningEndsTheProgramThatWasHeld) {
    ChildProcess child(shell("exec sleep 1000"));
    const pid_t first = child.pid();
    child = ChildProcess(shell("exit 3"));
    BOOST_TEST(isGone(first));
    BOOST_TEST(endOf(child).code == 3);
}

BOOST_AUTO_TEST_CASE(whatTheProgramLeftBehindEndsWithIt) {
    ChildProcess child(shell("sleep 1000 & echo $!"));
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(becomesGone(std::stoi(child.output())));
}

BOOST_AUTO_TEST_CASE(theProgramEndsWhenItsStarterDies) {
    const Pipe numbers = Pipe::make();
    const pid_t starter = fork();
    if (starter == 0) {
        ChildSpawn spawn = shell("exec sleep 1000");
        spawn.captureOutput = spawn.captureError = false;
        const ChildProcess child(spawn);
        const pid_t pid = child.pid();
        const ssize_t told = write(numbers.writeEnd.get(), &pid, sizeof pid);
        kill(getpid(), told == sizeof pid ? SIGKILL : SIGABRT);
    }
    pid_t program = -1;
    BOOST_REQUIRE(read(numbers.readEnd.get(), &program, sizeof program) == sizeof program);
    int status = 0;
    BOOST_REQUIRE(waitpid(starter, &status, 0) == starter);
    BOOST_TEST(WTERMSIG(status) == SIGKILL);
    BOOST_TEST(becomesGone(program));
}

BOOST_AUTO_TEST_CASE(theProgramStartsWithSignalsUnblockedAndEmptyInput) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    ChildProcess child(shell("grep SigBlk /proc/self/status; cat"));
    sigprocmask(SIG_SETMASK, &before, nullptr);
    BOOST_TEST(endOf(child).succeeded());
    BOOST_TEST(child.output() == "SigBlk:\t0000000000000000\n");
}

BOOST_AUTO_TEST_CASE(onlyTheNamedDescriptorsAreInherited) {
    Pipe pipe = Pipe::make();
    const int writing = pipe.writeEnd.get();
    ChildSpawn spawn = shell("echo through > /dev/fd/" + std::to_string(writing));
    ChildProcess without(spawn);
    BOOST_TEST(!endOf(without).succeeded());
    spawn.inheritedDescriptors = {writing};
    ChildProcess with(spawn);
    BOOST_TEST(endOf(with).succeeded());
    BOOST_TEST((fcntl(writing, F_GETFD) & FD_CLOEXEC) != 0);  // in this process it stays closed
    pipe.writeEnd.close();
    std::string text;
    kavri::base::readAvailable(pipe.readEnd, text);
    BOOST_TEST(text == "through\n");
}

BOOST_AUTO_TEST_CASE(noDescriptorIsLeftOpen) {
    const auto before = openDescriptors();
    for (int round = 0; round < 10; ++round) {
        ChildProcess child(shell("echo text"));
        endOf(child);
        BOOST_CHECK_THROW(ChildProcess({.program = "/nowhere/program"}), std::system_error);
    }
    BOOST_TEST(openDescriptors() == before);
}
