// The service that every transport carries requests to.
#ifndef KAVRI_BENCH_SERVICE_H
#define KAVRI_BENCH_SERVICE_H

#include <string_view>

#include "transports/transport.h"

namespace kavri::bench {

// Answers with the request's payload; publishes events before that if asked to.
class Service {
  public:
    void answer(std::string_view request, Answers& answers);

  private:
    std::string response_;
};

}  // namespace kavri::bench

#endif
