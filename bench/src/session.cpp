// The parts of one measurement; see session.h.
#include "session.h"

#include <utility>

namespace kavri::bench {

CheckedClient::CheckedClient(std::unique_ptr<Client> client, std::uint32_t number,
                             std::size_t payloadBytes)
    : client_(std::move(client)),
      number_(number),
      payloadBytes_(payloadBytes),
      payload_(payloadBytes),
      check_(Kind::echo, payloadBytes, number) {}

void CheckedClient::send() {
    client_->send(payload_.with({Kind::echo, sent_, number_, 0}));
    ++sent_;
}

void CheckedClient::sendBatch(std::size_t count) {
    while (batch_.size() < count) {
        batch_.push_back(Payload(payloadBytes_).with({}));
    }
    for (std::size_t i = 0; i < count; ++i) {
        batch_[i].replace(0, smallestPayloadBytes, payload_.with({Kind::echo, sent_, number_, 0}),
                          0, smallestPayloadBytes);
        ++sent_;
    }
    client_->sendBatch(std::span(batch_).first(count));
}

void CheckedClient::receive() {
    check_.next(client_->receive());
}

Session::Session(const Options& options, bool manyInFlight)
    : options_(options),
      transport_(makeTransport(options.transport)),
      place_{folder_.path(), manyInFlight},
      others_(transport_->startOthers(place_)),
      server_(transport_->startServer(place_)) {
    startService(serviceName);
}

void Session::startService(const std::string& name) {
    if (!transport_->isServiceInside()) {
        services_.push_back(startHelper({"run-service", "--service", name}, true));
        services_.back().outputLine();  // it is ready
        transport_->waitForService(place_, name);
    }
}

Child Session::startHelper(std::vector<std::string> arguments, bool readsOutput) {
    const std::string log = place_.at(arguments.front() + ".log");
    for (const std::string& further :
         {std::string("--transport"), options_.transport, std::string("--folder"), place_.folder}) {
        arguments.push_back(further);
    }
    if (place_.manyInFlight) {
        arguments.emplace_back("--many-in-flight");
    }
    return Child({ownCommand(std::move(arguments)), log, readsOutput});
}

std::unique_ptr<CheckedClient> Session::connect(std::size_t payloadBytes) {
    return std::make_unique<CheckedClient>(transport_->connect(place_, serviceName), ++clients_,
                                           payloadBytes);
}

std::vector<std::unique_ptr<CheckedClient>> Session::connectIdle(std::size_t count) {
    std::vector<std::unique_ptr<CheckedClient>> clients;
    for (std::size_t i = 0; i < count; ++i) {
        clients.push_back(connect(smallestPayloadBytes));
        clients.back()->roundTrip();
    }
    return clients;
}

}  // namespace kavri::bench
