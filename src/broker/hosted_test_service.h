// The test service as a service of the broker's own.
#ifndef KAVRI_BROKER_HOSTED_TEST_SERVICE_H
#define KAVRI_BROKER_HOSTED_TEST_SERVICE_H

#include <spdlog/spdlog.h>

#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "broker/routing/local_service.h"
#include "test_service/service_record.h"
#include "test_service/test_service.h"

namespace kavri::broker {

class HostedTestService : public LocalService {
  public:
    explicit HostedTestService(test_service::TestService::UnknownCommand onUnknown)
        : service_(std::move(onUnknown)) {}

    // From now on, and until that fails: a full disk is no reason to end the broker. Throws
    // std::system_error where the file cannot be opened.
    void recordTo(const std::string& file) { record_.emplace(file); }

    Reaction handle(const Request& request) override {
        const auto reaction = service_.handle(request.identifier, request.payload);
        return {reaction.answers ? std::optional(reaction.payload) : std::nullopt,
                reaction.publishes
                    ? std::optional(Event{test_service::eventIdentifier, request.payload})
                    : std::nullopt};
    }

    void decided(const Request& request, const Reaction& reaction) override {
        if (!record_) {
            return;
        }
        try {
            record_->add({.connection = request.connection,
                          .process = request.process,
                          .category = request.category,
                          .identifier = request.identifier,
                          .uuid = request.uuid,
                          .payload = request.payload},
                         {.answers = reaction.answer.has_value(),
                          .publishes = reaction.event.has_value(),
                          .payload = reaction.answer.value_or("")});
        } catch (const std::system_error& error) {
            spdlog::error("{}; nothing more is recorded", error.what());
            record_.reset();
        }
    }

  private:
    test_service::TestService service_;
    std::optional<test_service::ServiceRecord> record_;
};

}  // namespace kavri::broker

#endif
