// What `kavri conformance --socket` says of a test service that is not one: a responder of
// this test's own does one thing in another way than the test service.
#define BOOST_TEST_MODULE preflight
#include <boost/test/unit_test.hpp>
#include <string>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/conformance_tool.h"
#include "support/service_process.h"
#include "test_service/test_service.h"

namespace {

using namespace kavri::tests;
using kavri::test_service::TestService;

enum class Wrong { nothing, payload, uuid, silence, event };

// Serves category "test" as the test service does, but for one command.
class WrongService {
  public:
    WrongService(const std::string& address, std::string command, Wrong wrong)
        : command_(std::move(command)), wrong_(wrong), responder_(address, "test") {
        responder_.onRequest(requested, this);
    }
    WrongService(const WrongService&) = delete;
    WrongService& operator=(const WrongService&) = delete;
    // Returns when no request is being handled any more.
    ~WrongService() { responder_.onRequest(nullptr, nullptr); }

  private:
    static void requested(kavri_core_ipc_request request, char** category, char** identifier,
                          char** uuid, char** payload, void* service) {
        auto& self = *static_cast<WrongService*>(service);
        const Strings strings = {*category, *identifier, *uuid, *payload};
        Message message(KAVRI_CORE_STATUS_NO_ERROR, strings);
        message.request = request;
        self.handle(message);
    }

    void handle(Message& message) {
        const Wrong wrong = *message.identifier == command_ ? wrong_ : Wrong::nothing;
        const TestService::Reaction reaction =
            service_.handle(*message.identifier, *message.payload);
        if (reaction.publishes && wrong != Wrong::event) {
            responder_.publish("test", "event", *message.payload);
        }
        if (wrong == Wrong::uuid) {
            message.uuid = "another";
        }
        if (reaction.answers && wrong != Wrong::silence) {
            responder_.answer(message,
                              wrong == Wrong::payload ? "nonsense" : reaction.payload.data());
        } else {
            responder_.finish(message);
        }
    }

    std::string command_;
    Wrong wrong_;
    TestService service_{[](std::string_view) {}};
    Responder responder_;
};

struct WithForeignService : ConformanceTool {
    kavri::process::TemporaryFolder folder;
    const std::string address = folder / "broker.sock";
    BrokerProcess broker{address};
    Library library;

    ToolResult runBeside(const std::string& command, Wrong wrong) const {
        const WrongService service(address, command, wrong);
        kavri::process::ChildProcess tool(
            spawn({"--socket", address, "--case", "initiatorRepeatEcho"}));
        const auto exit = tool.wait(longEnough);
        BOOST_REQUIRE(exit.has_value());
        return {*exit, tool.output(), tool.error()};
    }

    void checkRefusal(const std::string& command, Wrong wrong, const std::string& said) const {
        const ToolResult result = runBeside(command, wrong);
        BOOST_TEST(result.exit.code == 3);
        BOOST_TEST(result.output == "");
        BOOST_TEST(contains(result.error, "the test service at " + address + " does not do \"" +
                                              command + "\": " + said),
                   result.error);
    }
};

}  // namespace

BOOST_FIXTURE_TEST_CASE(aServiceThatDoesEverythingIsTaken, WithForeignService) {
    BOOST_TEST(runBeside("", Wrong::nothing).exit.code == 0);
}

BOOST_FIXTURE_TEST_CASE(eachAnswerIsLookedAt, WithForeignService) {
    checkRefusal("echo", Wrong::payload, "it is answered with payload \"nonsense\"");
    checkRefusal("echo", Wrong::uuid,
                 "it is answered with payload \"preflight\" and uuid \"another\"");
    checkRefusal("static_response", Wrong::payload, "it is answered with payload \"nonsense\"");
    checkRefusal("get_repeat_count", Wrong::payload, "it is answered with payload \"nonsense\"");
}

BOOST_FIXTURE_TEST_CASE(aServiceThatIsSilentIsNotWaitedForLong, WithForeignService) {
    checkRefusal("static_response", Wrong::silence, "no answer: no message");
    checkRefusal("event", Wrong::event, "no event is published");
}
