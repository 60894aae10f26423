// `kavri conformance` as its users meet it: what it prints, how it ends, and
// that it leaves nothing behind.
//
// Healthy runs use the real library and broker; broken ones put a core library
// that is wrong in a known way in its place.
#define BOOST_TEST_MODULE conformanceCommand

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/test/unit_test.hpp>
#include <fstream>
#include <sstream>

#include "support/conformance_tool.h"
#include "support/waiting.h"

using kavri::process::ChildProcess;
using kavri::process::ChildSpawn;
using kavri::process::ExitState;
using kavri::process::TemporaryFolder;
using namespace kavri::tests;
namespace fs = std::filesystem;

namespace {

const fs::path binFolder = KAVRI_BIN_DIR;
const fs::path standInFolder = KAVRI_STAND_IN_DIR;
const fs::path lackingFolder = KAVRI_LACKING_DIR;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The words of a line, with TIME in place of a time and its unit.
Arguments wordsOf(const std::string& line) {
    Arguments words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;) {
        if ((word == "ms" || word == "s") && contains("0123456789", words.back().substr(0, 1))) {
            words.back() = "TIME";
        } else {
            words.push_back(word);
        }
    }
    return words;
}

// One line that begins with the command's name and holds the parts.
void checkComplaint(const std::string& error, const Arguments& parts) {
    const std::vector<std::string> lines = linesOf(error);
    BOOST_REQUIRE_MESSAGE(!lines.empty(), "no complaint");
    BOOST_TEST(lines.back().starts_with("kavri"));
    for (const std::string& part : parts) {
        BOOST_TEST(contains(lines.back(), part), "'" << part << "' is not in: " << lines.back());
    }
}

// That nothing was run: no result, one line of complaint.
void checkRefused(const ToolResult& result, int status, const Arguments& parts) {
    BOOST_TEST(result.exit.signal == 0);
    BOOST_TEST(result.exit.code == status);
    BOOST_TEST(result.output == "");
    BOOST_TEST(linesOf(result.error).size() == 1U);
    checkComplaint(result.error, parts);
}

const Arguments standIn = {"--own-broker", "--library", standInFolder, "--case",
                           "initiatorSendPass"};
const Arguments hanging = with(standIn, {"--fault", "send-hangs"});
const Environment hangsLoudly = {{"STAND_IN_DEFECT", "hangs"}};  // it prints "hanging"

// Where the first send is: after the checks that bring the library up.
const Arguments firstSend = {"initiatorSend/initiatorSendPass",
                             "; the last check that passed: c != __null, at ",
                             "tests/test_ipc_initiator.cpp("};

// A place to which the tool alone is installed, and other programs can be.
class Installation {
  public:
    explicit Installation(const std::string& name = "kit") : root_(folder_ / name) {
        fs::create_directories(programs_);
        fs::copy_file(binFolder / "kavri", tool());
        fs::create_symlink(KAVRI_LIB_DIR, root_ / "lib");
        fs::create_directory(root_ / "libexec");
        fs::create_symlink(KAVRI_AGENT_DIR, root_ / "libexec" / "kavri");
    }

    void addScript(const std::string& name, const std::string& script) const {
        std::ofstream(path(name)) << "#!/bin/sh\n" << script;
        fs::permissions(path(name), fs::perms::owner_all);
    }
    void link(const std::string& name) const { fs::create_symlink(binFolder / name, path(name)); }
    fs::path tool() const { return path("kavri"); }
    fs::path path(const std::string& name) const { return programs_ / name; }

  private:
    TemporaryFolder folder_;
    fs::path root_;
    fs::path programs_ = root_ / "bin";
};

}  // namespace

BOOST_FIXTURE_TEST_SUITE(conformanceCommand, ConformanceTool)

BOOST_AUTO_TEST_CASE(aHealthyRunShowsEveryCaseAndSucceeds) {
    const ToolResult result = run({});
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(result.error == "");
    const std::vector<std::pair<std::string, int>> expected = {
        {"initiatorSend/initiatorSendPass", 7},
        {"initiatorSend/initiatorSendRepeat", 21},
        {"initiatorSend/initiatorRepeatStaticResponse", 44},
        {"initiatorSend/initiatorRepeatEcho", 44},
        {"initiatorSend/initiatorRepeatEchoNonBlocking", 34},
        {"initiatorSend/initiatorRepeatCallback", 77},
        {"initiatorSend/initiatorFailReceiveWithCallback", 8},
        {"initiatorEvent/initiatorRepeatEventCallback", 59}};
    const std::vector<std::string> lines = linesOf(result.output);
    BOOST_REQUIRE_EQUAL(lines.size(), expected.size() + 2);
    BOOST_TEST(contains(lines.front(), "libkavri-core-test.so"));
    for (size_t i = 0; i < expected.size(); ++i) {
        const Arguments form = {expected[i].first, "pass", std::to_string(expected[i].second),
                                "checks", "TIME"};
        BOOST_TEST(wordsOf(lines[i + 1]) == form, boost::test_tools::per_element());
    }
    BOOST_TEST(lines.back().starts_with("8 cases, 8 passed; 294 checks, 294 passed, 0 failed; "));
}

BOOST_AUTO_TEST_CASE(aBrokerThatIsThereIsUsedAndLeftRunning) {
    const TemporaryFolder folder;
    const std::string socket = folder / "broker.sock";
    ChildProcess broker({.program = binFolder / "kavri-broker",
                         .arguments = {"--test-service", "--socket", socket}});
    BOOST_REQUIRE(broker.waitForError("ready on " + socket, longEnough));
    {
        ChildProcess tool(spawn({"--socket", socket, "--case", "initiatorRepeatEcho"}));
        const std::optional<ExitState> exit = tool.wait(longEnough);
        BOOST_REQUIRE(exit.has_value());
        BOOST_TEST(exit->succeeded());
        BOOST_TEST(contains(tool.output(), "1 case, 1 passed; 44 checks, 44 passed, 0 failed; "));
        BOOST_TEST(contains(tool.output(), socket));
    }
    BOOST_TEST(!broker.wait(std::chrono::milliseconds(0)).has_value());
    broker.signal(SIGTERM);
    BOOST_TEST(broker.wait(longEnough).has_value());
    checkNothingIsLeft();
}

BOOST_AUTO_TEST_CASE(casesAreSelectedByPattern) {
    const ToolResult result = run({"--own-broker", "--library", standInFolder, "--case",
                                   "*EventCallback", "--case", "initiatorSend/initiatorSendPass"});
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(result.error == "");  // the loader, too, takes the library without a word
    const std::vector<std::string> lines = linesOf(result.output);
    BOOST_REQUIRE_EQUAL(lines.size(), 5U);
    BOOST_TEST(lines[1].starts_with("initiatorSend/initiatorSendPass "));
    BOOST_TEST(lines[2].starts_with("initiatorEvent/initiatorRepeatEventCallback "));
    BOOST_TEST(lines[3].starts_with("2 cases, 2 passed; 66 checks, 66 passed, 0 failed; "));
    BOOST_TEST(lines[4] == "pass, not confirmed by the other side");
}

BOOST_AUTO_TEST_CASE(aPatternThatMatchesNothingIsAnErrorThatNamesTheCases) {
    checkRefused(run({"--case", "initiatorSendpass"}), 64,
                 {"initiatorSendpass", "initiatorSend/initiatorSendPass",
                  "initiatorEvent/initiatorRepeatEventCallback"});
}

BOOST_AUTO_TEST_CASE(failedChecksAreShownAsTheModuleWordsThem) {
    const ToolResult result =
        run({"--own-broker", "--library", standInFolder, "--case", "initiatorRepeatEcho"},
            {{"STAND_IN_DEFECT", "answerPayload=wrong\x1b"}});
    BOOST_TEST(result.exit.signal == 0);
    BOOST_TEST(result.exit.code == 1);
    const std::vector<std::string> lines = linesOf(result.output);
    BOOST_REQUIRE_EQUAL(lines.size(), 16U);
    const Arguments form = {
        "initiatorSend/initiatorRepeatEcho", "fail", "44", "checks", "TIME", "(10", "failed)"};
    BOOST_TEST(wordsOf(lines[1]) == form, boost::test_tools::per_element());
    for (int i = 0; i < 10; ++i) {
        const std::string shown = lines[2 + static_cast<size_t>(i)];
        BOOST_TEST(shown.starts_with("    "));
        BOOST_TEST(contains(shown, "tests/test_ipc_initiator.cpp("));
        BOOST_TEST(shown.ends_with("): error: check payload == rpayload has failed [CLIENT:echo " +
                                   std::to_string(i) + " != wrong\\x1b]"),
                   shown);
    }
    BOOST_TEST(lines[12] == "failed, and how to run it again:");
    BOOST_TEST(lines[13] == "  initiatorSend/initiatorRepeatEcho, fail");
    BOOST_TEST(lines[14] == "    " + (binFolder / "kavri").string() + " conformance --library " +
                                standInFolder.string() +
                                " --own-broker --case initiatorSend/initiatorRepeatEcho");
    BOOST_TEST(lines.back().starts_with("1 case, 0 passed; 44 checks, 34 passed, 10 failed; "));
}

BOOST_AUTO_TEST_CASE(aMissingInitiatorFailsEachCaseAndTheRunGoesOn) {
    const ToolResult result = run({"--own-broker", "--library", standInFolder},
                                  {{"STAND_IN_DEFECT", "initiatorMissing"}});
    BOOST_TEST(result.exit.code == 1);
    BOOST_TEST(contains(result.output, "; 32 checks, 24 passed, 8 failed; "));
    BOOST_TEST(contains(result.output, "critical check c != __null has failed"));
}

BOOST_AUTO_TEST_CASE(aCaseThatHangsIsNamedWithItsLastCheckAndTheCall) {
    // So long that no other call takes it, on a busy machine either.
    const ToolResult result = run(with(hanging, {"--call-timeout", "2"}));
    BOOST_TEST(result.exit.code == 2);
    BOOST_TEST(contains(result.output, "initiatorSend/initiatorSendPass  timeout    4 checks"));
    checkComplaint(result.error, with(firstSend, {"kavri_core_ipc_initiator_command_send",
                                                  "initiator", "did not return within"}));
}

BOOST_AUTO_TEST_CASE(aHangShowsTheStacksWhereThereIsADebugger) {
    if (access("/usr/bin/gdb", X_OK) != 0) {
        return;
    }
    const ToolResult result = run(with(hanging, {"--call-timeout", "0.3"}));
    BOOST_TEST(contains(result.output, "act::hang"));
    BOOST_TEST(contains(result.output, "kavri_core_ipc_initiator_command_send"));
}

BOOST_AUTO_TEST_CASE(aRunThatTakesTooLongIsEnded) {
    // Long enough to come to the hang on a busy machine.
    const ToolResult result = run(with(hanging, {"--timeout", "4"}));
    BOOST_TEST(result.exit.code == 2);
    checkComplaint(result.error, with(firstSend, {"the 4 s were over"}));
}

BOOST_AUTO_TEST_CASE(aCaseThatCrashesIsNamedWithTheSignalAndItsLastCheck) {
    const ToolResult result = run(with(standIn, {"--fault", "send-crashes"}));
    BOOST_TEST(result.exit.code == 2);
    BOOST_TEST(contains(result.output, "initiatorSend/initiatorSendPass  crash      4 checks"));
    checkComplaint(result.error,
                   with(firstSend, {"SIGSEGV", ", in kavri_core_ipc_initiator_command_send with {",
                                    "\"targetIdentifier\":\"initiator\""}));
}

BOOST_AUTO_TEST_CASE(aLibraryThatEndsTheProcessInACaseDoesNotPass) {
    const ToolResult result = run(with(standIn, {"--fault", "send-exits"}));
    BOOST_TEST(result.exit.code == 2);
    checkComplaint(result.error, with(firstSend, {"the library called _exit(0) in "}));
}

BOOST_AUTO_TEST_CASE(casesAfterACrashRunInAFreshProcess) {
    const ToolResult result =
        run({"--own-broker", "--library", standInFolder, "--fault", "send-crashes"});
    BOOST_TEST(result.exit.code == 2);
    BOOST_TEST(contains(result.output, "8 cases, "));
    BOOST_TEST(!contains(result.output, "not run"));
}

// Nothing that is not there, and nothing that does nothing, may pass.
BOOST_AUTO_TEST_CASE(aLibraryThatDoesNothingPassesNoCase) {
    const ToolResult result =
        run({"--own-broker", "--library", standInFolder, "--call-timeout", "0.3"},
            {{"STAND_IN_DEFECT", "doesNothing"}});
    BOOST_TEST(result.exit.code != 0);
    BOOST_TEST(contains(result.output, "8 cases, 0 passed"));
}

BOOST_AUTO_TEST_CASE(withoutATestServiceThereIsNoRun) {
    const TemporaryFolder folder;
    const std::string socket = folder / "broker.sock";
    ChildProcess broker({.program = binFolder / "kavri-broker", .arguments = {"--socket", socket}});
    BOOST_REQUIRE(broker.waitForError("ready on " + socket, longEnough));
    ChildProcess tool(spawn({"--socket", socket}));
    const std::optional<ExitState> exit = tool.wait(longEnough);
    BOOST_REQUIRE(exit.has_value());
    BOOST_TEST(exit->code == 3);
    checkComplaint(tool.error(), {socket, "has no test service", "--test-service"});
    broker.signal(SIGTERM);
    BOOST_TEST(broker.wait(longEnough).has_value());
    checkNothingIsLeft();
}

BOOST_AUTO_TEST_CASE(processesThatTheLibraryLeavesBehindAreEnded) {
    const ToolResult result = run(standIn, {{"STAND_IN_DEFECT", "leavesProcess"}});
    BOOST_TEST(result.exit.succeeded());  // and nothing is left, as always
}

BOOST_AUTO_TEST_CASE(threadsThatTheLibraryLeavesBehindAreReported) {
    const ToolResult result = run(standIn, {{"STAND_IN_DEFECT", "startsThreads"}});
    BOOST_TEST(result.exit.succeeded());
    // Three with each of the two requests of the case.
    BOOST_TEST(contains(result.output, "    left behind by the library: 6 threads\n"),
               result.output);
}

BOOST_AUTO_TEST_CASE(processesThatWereThereBeforeAreSpared) {
    // The shell becomes the tool, whose child the sleeper is from then on.
    ChildSpawn shell =
        spawn({"--own-broker", "--library", standInFolder, "--case", "initiatorSendPass"});
    shell.arguments.insert(
        shell.arguments.begin(),
        {"-c", "setsid sleep 1000 >&2 & echo $!; exec \"$0\" \"$@\"", shell.program});
    shell.program = "/bin/bash";
    ChildProcess tool(shell);
    BOOST_REQUIRE(tool.wait(longEnough).has_value());
    BOOST_TEST(contains(tool.output(), "1 case, 1 passed"));
    const pid_t sleeper = std::stoi(tool.output());
    BOOST_TEST(waitpid(sleeper, nullptr, WNOHANG) == 0);
    kill(sleeper, SIGKILL);
    BOOST_TEST(waitpid(sleeper, nullptr, 0) == sleeper);
    checkNothingIsLeft();
}

BOOST_AUTO_TEST_CASE(whatTheLibraryPrintsIsPassedOnInWholeLines) {
    const ToolResult result = run(standIn, {{"STAND_IN_DEFECT", "prints"}});
    BOOST_TEST(!contains(result.output, "a line on"));
    const std::vector<std::string> lines = linesOf(result.error);
    // With each of the two requests of the case.
    BOOST_TEST((std::ranges::count(lines, "a line on standard error") == 2));
    BOOST_TEST((std::ranges::count(lines, "a line on standard output") == 1));
    BOOST_TEST(
        (std::ranges::count(lines, "no line break at the enda line on standard output") == 1));
    BOOST_TEST((std::ranges::count(lines, "no line break at the end") == 1));
}

BOOST_AUTO_TEST_CASE(whatTheLibraryPrintsIsMadeHarmless) {
    const ToolResult result = run(standIn, {{"STAND_IN_DEFECT", "printsControls"}});
    BOOST_TEST(contains(result.error, "\\x1b[2J\\x1b]0;title\\x07 \\xff\\u009b"), result.error);
    BOOST_TEST(!contains(result.error, "\x1b"));
}

BOOST_AUTO_TEST_CASE(functionsThatTheLibraryLacksAreNamedBeforeAnyCase) {
    checkRefused(run({"--library", lackingFolder}), 3,
                 {lackingFolder.string(),
                  "kavri_core_ipc_initiator_event_subscribe, "
                  "kavri_core_ipc_initiator_event_unsubscribe;"});
}

BOOST_AUTO_TEST_CASE(aLibraryThatCannotBeLoadedIsRefused) {
    checkRefused(run(standIn, {{"STAND_IN_DEFECT", "crashesWhenLoaded"}}), 3,
                 {"fails when it is loaded", "SIGABRT", "before any case", "cannot be loaded"});
    checkRefused(
        run(with(standIn, {"--call-timeout", "0.3"}), {{"STAND_IN_DEFECT", "hangsWhenLoaded"}}), 3,
        {"hangs when it is loaded", "0.3 s", "before any case"});
    const ToolResult hung =
        run(with(standIn, {"--timeout", "0.3"}), {{"STAND_IN_DEFECT", "hangsWhenLoaded"}});
    checkRefused(hung, 2, {"0.3 s", "before any case"});
}

BOOST_AUTO_TEST_CASE(aLibraryThatCannotBeUnloadedIsRefused) {
    checkRefused(run(standIn, {{"STAND_IN_DEFECT", "crashesWhenUnloaded"}}), 3,
                 {"fails when it is unloaded", "SIGABRT", "before any case"});
    checkRefused(
        run(with(standIn, {"--call-timeout", "0.3"}), {{"STAND_IN_DEFECT", "hangsWhenUnloaded"}}),
        3, {"hangs when it is unloaded", "0.3 s", "before any case"});
}

BOOST_AUTO_TEST_CASE(aFileThatIsNoLibraryIsToldWhatItIs) {
    const TemporaryFolder folder;
    const fs::path core = folder / "libkavri-core-test.so";
    const auto checkTold = [&](const std::string& reason) {
        checkRefused(run({"--library", folder.path()}), 3, {core, reason});
        fs::remove(core);
    };
    std::ofstream(core) << "no library";
    checkTold("is no shared library: it does not begin like one");
    fs::create_directory(core);
    checkTold("is no regular file");
    fs::create_symlink("nowhere", core);
    checkTold("cannot be read: No such file");
    fs::copy_file(binFolder / "kavri", core);
    checkTold("is a program, and no shared library");
    fs::copy_file(standInFolder / "libkavri-core-test.so", core);
    fs::resize_file(core, 4096);
    checkTold("is cut off");
}

BOOST_AUTO_TEST_CASE(aFolderWithoutTheLibraryIsRefused) {
    const TemporaryFolder folder;
    checkRefused(run({"--library", folder.path()}), 3,
                 {"libkavri-core-test.so", folder.path().string()});
    checkRefused(run({"--library", folder / "missing"}), 3, {folder / "missing"});
}

BOOST_AUTO_TEST_CASE(theFoldersOfLibraryAndKitMayHaveAnyName) {
    const TemporaryFolder folder;
    const fs::path library = folder / "a b:c;$LIB";
    fs::create_directory(library);
    fs::copy_file(fs::path(KAVRI_LIB_DIR) / "libkavri-core-test.so",
                  library / "libkavri-core-test.so");
    fs::copy_file(fs::path(KAVRI_LIB_DIR) / "libkavri-interfaces.so",
                  library / "libkavri-interfaces.so");
    const Installation installation("kit a b:c;d");
    installation.link("test_ipc_initiator");
    installation.link("kavri-broker");
    ChildSpawn tool = spawn({"--library", library, "--case", "initiatorSendPass"});
    tool.program = installation.tool();
    ChildProcess child(tool);
    const ToolResult result = finish(child);
    BOOST_TEST(result.exit.succeeded(), result.error);
    BOOST_TEST(
        contains(result.output, "core library " + library.string() + "/libkavri-core-test.so"),
        result.output);
    BOOST_TEST(contains(result.output, "7 checks, 7 passed, 0 failed"), result.output);
}

BOOST_AUTO_TEST_CASE(aLibraryThatClosesTheKitsDescriptorIsTold) {
    const ToolResult result = run(standIn, {{"STAND_IN_DEFECT", "closesDescriptors"}});
    BOOST_TEST(result.exit.code == 1, result.error);
    BOOST_TEST(contains(result.output, "initiatorSend/initiatorSendPass  fail "), result.output);
    BOOST_TEST(contains(result.output,
                        "the library closed a file descriptor that is not its own, by which the "
                        "kit follows the module, in kavri_core_ipc_initiator_command_send"),
               result.output);
    BOOST_TEST(!contains(result.output, "did not return"));
}

BOOST_AUTO_TEST_CASE(resultsThatCannotBeWrittenFailTheRun) {
    ChildSpawn full = spawn({"--case", "initiatorSendPass"});
    full.arguments.insert(full.arguments.begin(),
                          {"-c", "exec \"$0\" \"$@\" >/dev/full", full.program});
    full.program = "/bin/bash";
    ChildProcess tool(full);
    const ToolResult result = finish(tool);
    BOOST_TEST(result.exit.code == 3);
    checkComplaint(result.error, {"cannot write", "standard output"});
    checkComplaint(run({"--case", "initiatorSendPass", "--json", "/dev/full"}).error,
                   {"cannot write /dev/full", "No space left on device"});
}

BOOST_AUTO_TEST_CASE(onlyTheModuleIsGivenTheLibrary) {
    // The tool's own shared libraries would be looked for in the folder too.
    const TemporaryFolder folder;
    fs::copy_file(standInFolder / "libkavri-core-test.so", folder / "libkavri-core-test.so");
    std::ofstream(folder / "libfmt.so.9") << "no library";
    const ToolResult result =
        run({"--own-broker", "--library", folder.path(), "--case", "initiatorSendPass"});
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(contains(result.output, "7 checks, 7 passed, 0 failed"));
}

BOOST_AUTO_TEST_CASE(aBrokerThatCannotBeReachedIsNamedWithTheReason) {
    const TemporaryFolder folder;
    const std::string missing = folder / "missing.sock";
    checkRefused(run({"--socket", missing}), 3, {missing, "No such file", "kavri-broker"});

    const std::string stale = folder / "stale.sock";
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, {}};
    stale.copy(address.sun_path, sizeof address.sun_path - 1);
    BOOST_REQUIRE(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);
    close(descriptor);
    checkRefused(run({"--socket", stale}), 3, {stale, "no program listens there", "kavri-broker"});

    const std::string file = folder / "file";
    std::ofstream(file) << "no socket";
    checkRefused(run({"--socket", file}), 3, {file, "no socket"});

    const std::string tooLong = "/" + std::string(107, 'x');
    checkRefused(run({"--socket", tooLong}), 3, {tooLong, "108", "107"});
    checkRefused(run({"--socket", ""}), 3, {"empty"});
}

BOOST_AUTO_TEST_CASE(aBrokerThatDoesNotAnswerIsReportedBeforeAnyCase) {
    const TemporaryFolder folder;
    const std::string socket = folder / "broker.sock";
    ChildProcess broker({.program = binFolder / "kavri-broker",
                         .arguments = {"--test-service", "--socket", socket}});
    BOOST_REQUIRE(broker.waitForError("ready on " + socket, longEnough));
    broker.signal(SIGSTOP);
    ChildProcess tool(spawn({"--socket", socket}));
    const std::optional<ExitState> exit = tool.wait(longEnough);
    BOOST_REQUIRE(exit.has_value());
    BOOST_TEST(exit->code == 3);
    BOOST_TEST(tool.output() == "");
    checkComplaint(tool.error(), {socket, "does not serve"});
    broker.signal(SIGCONT);
    broker.signal(SIGTERM);
    BOOST_TEST(broker.wait(longEnough).has_value());
}

BOOST_AUTO_TEST_CASE(aTemporaryFolderThatIsNoUseIsNamed) {
    const TemporaryFolder folder;
    const std::string missing = folder / "missing";
    ChildSpawn gone = spawn({});
    gone.environment["TMPDIR"] = missing;
    ChildProcess withoutFolder(gone);
    checkRefused(finish(withoutFolder), 3, {missing});

    const fs::path deep = folder / std::string(100, 'x');
    fs::create_directory(deep);
    gone.environment["TMPDIR"] = deep.string();
    ChildProcess withLongFolder(gone);
    checkRefused(finish(withLongFolder), 3, {deep.string(), "107", "TMPDIR"});
    BOOST_TEST(fs::is_empty(deep));
}

BOOST_AUTO_TEST_CASE(wrongCommandLinesAreUsageErrors) {
    const std::vector<std::pair<Arguments, std::string>> wrong = {
        {{"--tiemout", "3"}, "--tiemout"},
        {{"extra"}, "extra"},
        {{"--timeout", "soon"}, "'soon'"},
        {{"--timeout", "0"}, "'0'"},
        {{"--timeout", "-1"}, "'-1'"},
        {{"--timeout", "nan"}, "'nan'"},
        {{"--timeout"}, "--timeout"},
        {{"--case"}, "--case"},
        {{"--", "--run_test=*"}, "--run_test=*"}};
    for (const auto& [arguments, part] : wrong) {
        checkRefused(run(arguments), 64, {part});
    }
}

BOOST_AUTO_TEST_CASE(aCommandIsNeededAndMustBeKnown) {
    for (const auto& [arguments, part] : std::vector<std::pair<Arguments, std::string>>{
             {{}, "kavri --help"},
             {{"conform"}, "no command or option 'conform'; see 'kavri --help'"},
             {{"--conformance"}, "did you mean 'conformance'? see 'kavri --help'"},
             {{"bnech"}, "no command or option 'bnech'; did you mean 'bench'? see"},
             {{"--verison"}, "did you mean '--version'?"}}) {
        ChildProcess tool({.program = binFolder / "kavri", .arguments = arguments});
        checkRefused(finish(tool), 64, {part});
    }
}

BOOST_AUTO_TEST_CASE(helpAndVersionGoToStandardOutput) {
    const std::vector<std::pair<Arguments, std::string>> asked = {
        {{"--help"}, "conformance"},
        {{"conformance", "--help"}, "--library DIR"},
        {{"--version"}, "kavri "}};
    for (const auto& [arguments, part] : asked) {
        ChildProcess tool({.program = binFolder / "kavri", .arguments = arguments});
        const ToolResult result = finish(tool);
        BOOST_TEST(result.exit.succeeded());
        BOOST_TEST(contains(result.output, part));
        BOOST_TEST(result.error == "");
    }
}

BOOST_AUTO_TEST_CASE(argumentsAfterTheDashesGoToTheModule) {
    const Arguments quick = {"--own-broker", "--library", standInFolder, "--case",
                             "initiatorSendPass"};
    const ToolResult report = run(with(quick, {"--", "--report_level=detailed"}));
    BOOST_TEST(report.exit.succeeded());
    BOOST_TEST(contains(report.error, "7 assertions out of 7 passed"));
    const ToolResult unknown = run(with(quick, {"--", "--no_such_argument"}));
    BOOST_TEST(unknown.exit.code == 64);
    BOOST_TEST(contains(unknown.error, "no_such_argument"));
    checkComplaint(unknown.error, {"refused"});
}

BOOST_AUTO_TEST_CASE(theFrameworksOwnLogIsTheUsersToChoose) {
    const Arguments echo = {"--own-broker", "--library", standInFolder, "--case",
                            "initiatorRepeatEcho"};
    const Environment wrong = {{"STAND_IN_DEFECT", "answerPayload=wrong"}};
    const std::string summary = "1 case, 0 passed; 44 checks, 34 passed, 10 failed; ";
    const std::string failure = "check payload == rpayload has failed [CLIENT:echo 9 != wrong]";
    const ToolResult silent = run(echo, wrong);
    BOOST_TEST(contains(silent.output, summary));
    BOOST_TEST(silent.error == "");
    const TemporaryFolder folder;
    const std::string log = folder / "log.xml";
    const ToolResult asXml =
        run(with(echo, {"--", "--log_format=XML", "--log_level=all", "--log_sink=" + log}), wrong);
    BOOST_TEST(contains(asXml.output, summary));
    BOOST_TEST(contains(asXml.output, failure));
    std::ostringstream xml;
    xml << std::ifstream(log).rdbuf();
    BOOST_TEST(contains(xml.str(), failure));
    BOOST_TEST(contains(xml.str(), "check payload == rpayload has failed [CLIENT:echo 0 "));
    const ToolResult readable = run(with(echo, {"--", "--log_level=error"}), wrong);
    BOOST_TEST(contains(readable.output, summary));
    BOOST_TEST(contains(readable.error, failure));
}

BOOST_AUTO_TEST_CASE(theModulesVariablesDoNotDisturbTheRun) {
    const ToolResult result =
        run({"--own-broker", "--library", standInFolder, "--case", "initiatorSendPass"},
            {{"BOOST_TEST_LOG_LEVEL", "nothing"},
             {"BOOST_TEST_LOGGER", "XML,all,/dev/null"},
             {"BOOST_TEST_RUN_FILTERS", "initiatorRepeatEcho"},
             {"BOOST_TEST_COLOR_OUTPUT", "yes"}});
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(contains(result.output, "1 case, 1 passed; 7 checks, 7 passed, 0 failed; "));
}

BOOST_AUTO_TEST_CASE(aSignalEndsTheRunTidily) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        // Where the process that started the tests ignores it, the tool would too.
        signal(number, SIG_DFL);
        ChildProcess tool(spawn(standIn, hangsLoudly));
        BOOST_REQUIRE(tool.waitForError("hanging", longEnough));
        tool.signal(number);
        const ToolResult result = finish(tool);
        BOOST_TEST(result.exit.signal == number);
        checkComplaint(result.error, {"stopped", "initiatorSend/initiatorSendPass"});
        BOOST_TEST(contains(result.output, "1 case, 0 passed, 1 not run; "));
    }
}

BOOST_AUTO_TEST_CASE(aSignalBeforeAnyCaseEndsTheRunTidily) {
    ChildProcess tool(spawn(standIn, {{"STAND_IN_DEFECT", "hangsWhenLoaded"}}));
    // The tool keeps to itself what the module prints this early, so the
    // module's process is what shows that it runs.
    const std::string tasks = "/proc/" + std::to_string(tool.pid()) + "/task/";
    const auto isLoading = [&] {
        pid_t child = 0;
        std::ifstream(tasks + std::to_string(tool.pid()) + "/children") >> child;
        std::string arguments;
        std::ifstream("/proc/" + std::to_string(child) + "/cmdline") >> arguments;
        return contains(arguments, "--list_content");
    };
    BOOST_REQUIRE(eventually(isLoading));
    tool.signal(SIGTERM);
    const ToolResult result = finish(tool);
    BOOST_TEST(result.exit.signal == SIGTERM);
    checkComplaint(result.error, {"stopped before any case"});
}

BOOST_AUTO_TEST_CASE(theRunOutlivesItsReader) {
    int ends[2];
    BOOST_REQUIRE(pipe2(ends, O_CLOEXEC) == 0);
    ChildSpawn reader = spawn({"--own-broker", "--library", standInFolder});
    // The reading end is closed before the tool writes its first line.
    close(ends[0]);
    reader.inheritedDescriptors = {ends[1]};
    reader.arguments.insert(
        reader.arguments.begin(),
        {"-c", "exec \"$0\" \"$@\" >&" + std::to_string(ends[1]), reader.program});
    reader.program = "/bin/bash";
    ChildProcess tool(reader);
    close(ends[1]);
    BOOST_TEST(finish(tool).exit.succeeded());
}

BOOST_AUTO_TEST_CASE(aSocketMayBeNamedFromTheCurrentFolder) {
    // As a path from the root it would be longer than a socket's may be.
    const TemporaryFolder folder;
    const fs::path deep = folder / std::string(100, 'x');
    fs::create_directory(deep);
    ChildSpawn shell = spawn({"--socket", "s", "--case", "initiatorSendPass"});
    shell.arguments.insert(
        shell.arguments.begin(),
        {"-c",
         "cd \"$0\" || exit; kavri-broker --test-service --socket s 2>ready & broker=$!; "
         "until grep -qs 'ready on' ready; do sleep 0.01; done; "
         "kavri \"$@\"; status=$?; kill $broker; wait; exit $status",
         deep});
    shell.program = "/bin/bash";
    shell.environment["PATH"] = binFolder.string() + ":/usr/bin:/bin";
    ChildProcess tool(shell);
    const ToolResult result = finish(tool);
    BOOST_TEST(result.exit.succeeded());
    BOOST_TEST(contains(result.output, "1 case, 1 passed"));
}

BOOST_AUTO_TEST_CASE(programsThatAreMissingAreNamed) {
    const Installation installation;
    const auto runIt = [&] {
        ChildSpawn tool = spawn({"--timeout", "20"});
        tool.program = installation.tool();
        ChildProcess child(tool);
        return finish(child);
    };
    checkRefused(runIt(), 3, {(installation.path("test_ipc_initiator")).string()});
    installation.link("test_ipc_initiator");
    checkRefused(runIt(), 3, {(installation.path("kavri-broker")).string()});
    installation.addScript("kavri-broker",
                           "echo 'kavri-broker: no room for a socket' >&2; exit 1\n");
    checkRefused(runIt(), 3, {"status 1", "kavri-broker: no room for a socket"});
}

BOOST_AUTO_TEST_CASE(aBrokerThatEndsDuringTheRunMeansNoVerdict) {
    const Installation installation;
    installation.link("test_ipc_initiator");
    installation.addScript("kavri-broker",
                           "echo \"kavri-broker: ready on $3\" >&2\n"
                           "while [ ! -e \"$(dirname \"$0\")/end\" ]; do sleep 0.01; done\n"
                           "echo 'kavri-broker: out of memory' >&2; kill -KILL $$\n");
    ChildSpawn lost =
        spawn({"--library", standInFolder, "--case", "initiatorSendPass"}, hangsLoudly);
    lost.program = installation.tool();
    ChildProcess tool(lost);
    BOOST_REQUIRE(tool.waitForError("hanging", longEnough));
    std::ofstream(installation.path("end")) << "now";
    const ToolResult result = finish(tool);
    BOOST_TEST(result.exit.code == 3);
    BOOST_TEST(contains(result.error, "kavri-broker: out of memory\n"));
    checkComplaint(result.error, {"broker", "SIGKILL", "initiatorSend/initiatorSendPass"});
}

BOOST_AUTO_TEST_CASE(aBrokerThatEndsCostsTheRepeatsOneRun) {
    const Installation installation;
    installation.link("test_ipc_initiator");
    // Gone as soon as it is ready, but only the first time.
    installation.addScript("kavri-broker",
                           "first=\"$(dirname \"$0\")/first\"\n"
                           "[ ! -e \"$first\" ] || exec '" KAVRI_BIN_DIR
                           "/kavri-broker' \"$@\"\n"
                           "touch \"$first\"; echo \"kavri-broker: ready on $3\" >&2\n");
    ChildSpawn repeats = spawn({"--case", "initiatorSendPass", "--repeat", "3", "--jobs", "1"});
    repeats.program = installation.tool();
    ChildProcess tool(repeats);
    const ToolResult result = finish(tool);
    BOOST_TEST(result.exit.code == 3);
    BOOST_TEST(contains(result.output, "3 runs, 2 passed"), result.output << result.error);
}

BOOST_AUTO_TEST_SUITE_END()
