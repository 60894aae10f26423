// An initiator and a responder of the C++ interface, with a broker of their own.
#ifndef KAVRI_TESTS_INTEGRATION_CPP_PAIR_H
#define KAVRI_TESTS_INTEGRATION_CPP_PAIR_H

#include <kavri/kavri.hpp>
#include <string>

#include "support/with_broker.h"

namespace kavri::tests {

struct CppPair : WithBroker {
    CppPair() : WithBroker({.testService = true}) {}

    kavri::Options options() const {
        kavri::Options options;
        options.brokerAddress = address;
        return options;
    }
    // What the next request to the responder holds; there must be one.
    kavri::Request takeRequest() { return responder.receive(patience).value(); }

    kavri::Initiator initiator{options()};
    kavri::Responder responder{"work", options()};
};

// The status of the exception that a call throws.
template <typename Call>
kavri_core_status thrownBy(const Call& call) {
    try {
        call();
    } catch (const kavri::Error& error) {
        return error.status();
    }
    return good;
}

}  // namespace kavri::tests

#endif
