// Writing the lines; see service_record.h.
#include "test_service/service_record.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

namespace kavri::test_service {

namespace {

using Json = nlohmann::ordered_json;

Json cut(std::string_view text) {
    constexpr std::size_t limitBytes = 200;
    return text.size() > limitBytes ? std::string(text.substr(0, limitBytes)) + "…"
                                    : std::string(text);
}

Json requestJson(const RecordedRequest& request) {
    return {{"category", cut(request.category)},
            {"identifier", cut(request.identifier)},
            {"uuid", cut(request.uuid)},
            {"payload", cut(request.payload)}};
}

// All fields but the payload are the request's.
Json answerJson(const RecordedRequest& request, std::string_view payload) {
    Json answer = requestJson(request);
    answer["payload"] = cut(payload);
    return answer;
}

Json eventJson(std::string_view payload) {
    return {{"category", category}, {"identifier", eventIdentifier}, {"payload", cut(payload)}};
}

template <typename Number>
Json orNull(const std::optional<Number>& number) {
    return number ? Json(*number) : Json();
}

}  // namespace

ServiceRecord::ServiceRecord(const std::string& file)
    : file_(file),
      descriptor_(open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {
    if (!descriptor_.isOpen()) {
        throw std::system_error(errno, std::generic_category(),
                                "cannot open the service record " + file);
    }
}

void ServiceRecord::add(const RecordedRequest& request,
                        const TestService::Reaction& reaction) const {
    const Json entry = {
        {"connection", orNull(request.connection)},
        {"process", orNull(request.process)},
        {"request", requestJson(request)},
        {"answer", reaction.answers ? answerJson(request, reaction.payload) : Json()},
        {"event", reaction.publishes ? eventJson(request.payload) : Json()}};
    const std::string line = entry.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
    for (std::string_view rest = line; !rest.empty();) {
        const ssize_t count = write(descriptor_.get(), rest.data(), rest.size());
        if (count < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(),
                                    "cannot write the service record " + file_);
        }
        rest.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

}  // namespace kavri::test_service
