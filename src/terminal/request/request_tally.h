// What became of many requests, counted.
#ifndef KAVRI_TERMINAL_REQUEST_REQUEST_TALLY_H
#define KAVRI_TERMINAL_REQUEST_REQUEST_TALLY_H

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <utility>

#include "base/latencies.h"
#include "terminal/outcome.h"
#include "terminal/output.h"

namespace kavri::terminal {

class RequestTally {
  public:
    void addAnswer(base::Latencies::Duration latency);
    void addFailure(kavri_core_status status);

    process::ExitStatus worst() const;
    std::string text(std::chrono::duration<double> took) const;
    Json json(std::chrono::duration<double> took) const;

  private:
    std::size_t total() const;

    base::Latencies latencies_;
    std::map<std::pair<Outcome, kavri_core_status>, std::size_t> failures_;
};

}  // namespace kavri::terminal

#endif
