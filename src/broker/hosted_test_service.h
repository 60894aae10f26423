// The test service as a service of the broker's own.
#ifndef KAVRI_BROKER_HOSTED_TEST_SERVICE_H
#define KAVRI_BROKER_HOSTED_TEST_SERVICE_H

#include <utility>

#include "broker/routing/local_service.h"
#include "test_service/test_service.h"

namespace kavri::broker {

class HostedTestService : public LocalService {
  public:
    explicit HostedTestService(test_service::TestService::UnknownCommand onUnknown)
        : service_(std::move(onUnknown)) {}

    Reaction handle(std::string_view command, std::string_view payload) override {
        const auto reaction = service_.handle(command, payload);
        return {reaction.answers ? std::optional(reaction.payload) : std::nullopt,
                reaction.publishes ? std::optional(Event{test_service::eventIdentifier, payload})
                                   : std::nullopt};
    }

  private:
    test_service::TestService service_;
};

}  // namespace kavri::broker

#endif
