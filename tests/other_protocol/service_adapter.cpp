// The test service behind another broker: what it takes so that `kavri conformance` can
// confirm a library that brings its own broker.
//
// Takes each request from that broker, has the test service handle it, writes the record
// of it, and only then answers. The service and its record are those of kavri-test-service;
// an adapter in another language writes the same lines, see docs/conformance.md.
//
// Usage: other-service SOCKET [RECORD]
#include <cstdio>
#include <exception>
#include <optional>

#include "other_protocol/protocol.h"
#include "test_service/service_record.h"
#include "test_service/test_service.h"

namespace {

using namespace kavri;
using namespace kavri::other_protocol;
using test_service::ServiceRecord;
using test_service::TestService;

class Adapter {
  public:
    Adapter(base::Descriptor broker, const std::string& recordFile) : broker_(std::move(broker)) {
        if (!recordFile.empty()) {
            record_.emplace(recordFile);
        }
    }

    // Until the broker ends.
    void run() {
        sendPacket(broker_.get(), {"serve"});
        receivePacket(broker_.get());
        std::fputs("ready\n", stderr);
        while (const auto packet = receivePacket(broker_.get())) {
            handle(*packet);
        }
    }

  private:
    // request CONNECTION PROCESS CATEGORY IDENTIFIER UUID PAYLOAD
    void handle(const Packet& packet) {
        const TestService::Reaction reaction = service_.handle(packet[4], packet[6]);
        if (record_) {
            record_->add({.connection = std::stoull(packet[1]),
                          .process = std::stoi(packet[2]),
                          .category = packet[3],
                          .identifier = packet[4],
                          .uuid = packet[5],
                          .payload = packet[6]},
                         reaction);
        }
        if (reaction.publishes) {
            sendPacket(broker_.get(), {"event", std::string(test_service::category),
                                       std::string(test_service::eventIdentifier), packet[6]});
        }
        if (reaction.answers) {
            sendPacket(broker_.get(), {"answer", packet[1], packet[3], packet[4], packet[5],
                                       std::string(reaction.payload)});
        }
    }

    base::Descriptor broker_;
    TestService service_{[](std::string_view) {}};
    std::optional<ServiceRecord> record_;
};

}  // namespace

int main(int argc, char** argv) {
    base::Descriptor broker;
    if (argc >= 2) {
        broker = connectTo(argv[1]);
    }
    if (!broker.isOpen()) {
        std::perror("other-service SOCKET [RECORD]");
        return 1;
    }
    try {
        Adapter(std::move(broker), argc > 2 ? argv[2] : "").run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "other-service: %s\n", error.what());
        return 1;
    }
}
