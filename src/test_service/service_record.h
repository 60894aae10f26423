// The record of what reached the test service: a line of JSON for each request, appended to
// a file before the request is answered. So what a client was answered is in the record,
// and who reads it knows what the client truly sent.
//
//     {"connection":3,"process":4711,
//      "request":{"category":"test","identifier":"echo","uuid":"0","payload":"a"},
//      "answer":{"category":"test","identifier":"echo","uuid":"0","payload":"a"},
//      "event":null}
//
// each on one line. `answer` and `event` (category, identifier and payload) are null where
// there was none. `connection` tells the connections apart; it and `process` are null where
// the service cannot know them. A text of more than 200 bytes is cut there, and ends in "…".
#ifndef KAVRI_TEST_SERVICE_SERVICE_RECORD_H
#define KAVRI_TEST_SERVICE_SERVICE_RECORD_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/descriptor.h"
#include "test_service/test_service.h"

namespace kavri::test_service {

struct RecordedRequest {
    std::optional<std::uint64_t> connection;
    std::optional<int> process;
    std::string_view category;
    std::string_view identifier;
    std::string_view uuid;
    std::string_view payload;
};

class ServiceRecord {
  public:
    // Appends to the file, which is made where there is none. Throws std::system_error,
    // whose text names it, where that cannot be done.
    explicit ServiceRecord(const std::string& file);

    // One request, and what the service does with it. Throws as above.
    void add(const RecordedRequest& request, const TestService::Reaction& reaction) const;

  private:
    std::string file_;
    base::Descriptor descriptor_;
};

}  // namespace kavri::test_service

#endif
