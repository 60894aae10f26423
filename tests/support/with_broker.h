// The opening of tests with the real broker and, unless asked for otherwise, its test service.
#ifndef KAVRI_TESTS_SUPPORT_WITH_BROKER_H
#define KAVRI_TESTS_SUPPORT_WITH_BROKER_H

#include <string>

#include "process/temporary_folder.h"
#include "support/client.h"
#include "support/service_process.h"

namespace kavri::tests {

struct WithBroker {
    explicit WithBroker(const BrokerSettings& settings = {.testService = true})
        : broker(address, settings) {}

    kavri::process::TemporaryFolder folder;
    std::string address = folder / "broker.sock";
    BrokerProcess broker;
    Library library;
};

}  // namespace kavri::tests

#endif
