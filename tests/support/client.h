// The public functions with owners: initiators and responders that end
// themselves, received strings that free themselves, and inboxes that a callback
// fills while the test waits.
#ifndef KAVRI_TESTS_SUPPORT_CLIENT_H
#define KAVRI_TESTS_SUPPORT_CLIENT_H

#include <kavri/ipc.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/waiting.h"

// How a failed check shows a status.
inline std::ostream& boost_test_print_type(std::ostream& out, kavri_core_status status) {
    return out << static_cast<int>(status) << " (" << kavri_core_status_text(status) << ")";
}

namespace kavri::tests {

inline constexpr auto good = KAVRI_CORE_STATUS_NO_ERROR;

using Text = std::optional<std::string>;

// Takes over a string of the library's; null becomes nothing.
inline Text adopt(char* string) {
    Text text;
    if (string != nullptr) {
        text = string;
        std::free(string);
    }
    return text;
}

// Four variables as the receive functions fill them.
struct Strings {
    char* category = nullptr;
    char* identifier = nullptr;
    char* uuid = nullptr;
    char* payload = nullptr;

    bool areUntouched() const {
        return category == nullptr && identifier == nullptr && uuid == nullptr &&
               payload == nullptr;
    }
};

// What a receive came to, or what a callback got.
struct Message {
    kavri_core_status status = good;
    Text category{};
    Text identifier{};
    Text uuid{};
    Text payload{};
    kavri_core_ipc_request request{};  // of a responder's
    std::thread::id thread{};          // of a callback's

    Message(kavri_core_status itsStatus, const Strings& strings)
        : status(itsStatus),
          category(adopt(strings.category)),
          identifier(adopt(strings.identifier)),
          uuid(adopt(strings.uuid)),
          payload(adopt(strings.payload)) {}

    // Its fields in one line, with blanks between; "null" for one that is.
    std::string text() const {
        std::string all;
        for (const Text* field : {&category, &identifier, &uuid, &payload}) {
            all += (all.empty() ? "" : " ") + field->value_or("null");
        }
        return all;
    }
    // The variables were left as they were.
    bool isEmpty() const { return !category && !identifier && !uuid && !payload; }
};

// Keeps the library up for as long as it lives, and silent unless asked to talk.
class Library {
  public:
    Library() {
        ::setenv("KAVRI_LOG", "off", 0);
        kavri_core_init();
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { kavri_core_deinit(); }
};

inline kavri_core_ipc_options optionsFor(const std::string& address,
                                         kavri_core_ipc_options options = {}) {
    options.sizeBytes = sizeof options;
    options.brokerAddress = address.c_str();
    return options;
}

inline kavri_core_ipc_options connectWithin(unsigned timeoutMs) {
    kavri_core_ipc_options options{};
    options.connectTimeoutMs = timeoutMs;
    return options;
}
inline kavri_core_ipc_options sendWithin(unsigned timeoutMs) {
    kavri_core_ipc_options options{};
    options.sendTimeoutMs = timeoutMs;
    return options;
}

inline void requireSuccess(kavri_core_status status, const char* what) {
    if (status != good) {
        throw std::runtime_error(std::string(what) + ": " + kavri_core_status_text(status));
    }
}

class Initiator {
  public:
    explicit Initiator(const std::string& address, const kavri_core_ipc_options& chosen = {}) {
        kavri_core_ipc_options options = optionsFor(address, chosen);
        requireSuccess(kavri_core_ipc_initiator_init(nullptr, &options, &handle_), "no initiator");
    }
    Initiator(const Initiator&) = delete;
    Initiator& operator=(const Initiator&) = delete;
    ~Initiator() { end(); }

    kavri_core_ipc_initiator* get() const { return handle_; }
    // The handle, which is the caller's to end.
    kavri_core_ipc_initiator* release() { return std::exchange(handle_, nullptr); }
    void end() {
        if (handle_ != nullptr) {
            kavri_core_ipc_deinit(release());
        }
    }

    kavri_core_status send(const std::string& category, const std::string& identifier,
                           const std::string& uuid = "0",
                           const std::string& payload = "this is my payload") {
        return kavri_core_ipc_initiator_command_send(handle_, category.c_str(), identifier.c_str(),
                                                     uuid.c_str(), payload.c_str());
    }
    // Echo requests with these uuids, in one call. How many went is in `sent`.
    kavri_core_status echoBatch(const std::vector<std::string>& uuids, const std::string& payload,
                                std::size_t& sent) {
        std::vector<kavri_core_ipc_command> commands;
        for (const std::string& uuid : uuids) {
            commands.push_back({"test", "echo", uuid.c_str(), payload.c_str()});
        }
        return kavri_core_ipc_initiator_command_send_batch(handle_, commands.data(),
                                                           commands.size(), &sent);
    }
    // To the test service.
    kavri_core_status echo(const std::string& uuid, const std::string& payload = "payload") {
        return send("test", "echo", uuid, payload);
    }
    Message receive(int timeoutMs = patienceMs) {
        Strings strings;
        const kavri_core_status status = kavri_core_ipc_initiator_response_receive(
            handle_, timeoutMs, &strings.category, &strings.identifier, &strings.uuid,
            &strings.payload);
        return {status, strings};
    }
    // Whether such a request is accepted and its response is the next.
    bool echoes(const std::string& uuid = "0", const std::string& payload = "payload") {
        if (echo(uuid, payload) != good) {
            return false;
        }
        const Message response = receive();
        return response.uuid == uuid && response.payload == payload;
    }
    // Sends one for each of the uuids; how many were refused.
    std::size_t echoAll(const std::vector<std::string>& uuids,
                        const std::string& payload = "payload") {
        return static_cast<std::size_t>(
            std::count_if(uuids.begin(), uuids.end(),
                          [&](const std::string& uuid) { return echo(uuid, payload) != good; }));
    }
    kavri_core_status subscribe(const std::string& category) {
        return kavri_core_ipc_initiator_event_subscribe(handle_, category.c_str());
    }
    kavri_core_status unsubscribe(const std::string& category) {
        return kavri_core_ipc_initiator_event_unsubscribe(handle_, category.c_str());
    }
    kavri_core_status onResponse(kavri_core_ipc_initiator_response_callback callback,
                                 void* context) {
        return kavri_core_ipc_initiator_response_receive_callback(handle_, callback, context);
    }
    kavri_core_status onEvent(kavri_core_ipc_initiator_event_callback callback, void* context) {
        return kavri_core_ipc_initiator_event_receive_callback(handle_, callback, context);
    }

  private:
    kavri_core_ipc_initiator* handle_ = nullptr;
};

class Responder {
  public:
    Responder(const std::string& address, const std::string& category,
              const kavri_core_ipc_options& chosen = {}) {
        kavri_core_ipc_options options = optionsFor(address, chosen);
        requireSuccess(kavri_core_ipc_responder_init(nullptr, &options, category.c_str(), &handle_),
                       "no responder");
    }
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;
    ~Responder() { end(); }

    kavri_core_ipc_responder* get() const { return handle_; }
    kavri_core_ipc_responder* release() { return std::exchange(handle_, nullptr); }
    void end() {
        if (handle_ != nullptr) {
            kavri_core_ipc_responder_deinit(release());
        }
    }

    Message receive(int timeoutMs = patienceMs) {
        Strings strings;
        kavri_core_ipc_request request{};
        const kavri_core_status status = kavri_core_ipc_responder_request_receive(
            handle_, timeoutMs, &request, &strings.category, &strings.identifier, &strings.uuid,
            &strings.payload);
        Message message(status, strings);
        message.request = request;
        return message;
    }
    kavri_core_status onRequest(kavri_core_ipc_responder_request_callback callback, void* context) {
        return kavri_core_ipc_responder_request_receive_callback(handle_, callback, context);
    }
    // With the request's own fields, but for the payload.
    kavri_core_status answer(const Message& request, const char* payload) {
        return kavri_core_ipc_responder_response_send(
            handle_, request.request, request.category->c_str(), request.identifier->c_str(),
            request.uuid->c_str(), payload);
    }
    kavri_core_status finish(const Message& request) {
        return kavri_core_ipc_responder_request_end(handle_, request.request);
    }
    kavri_core_status publish(const std::string& category, const std::string& identifier,
                              const std::string& payload) {
        return kavri_core_ipc_responder_event_publish(handle_, category.c_str(), identifier.c_str(),
                                                      payload.c_str());
    }

  private:
    kavri_core_ipc_responder* handle_ = nullptr;
};

// What making one comes to. One that is made is ended.
inline kavri_core_status initStatus(kavri_core_ipc_options options) {
    kavri_core_ipc_initiator* made = nullptr;
    const kavri_core_status status = kavri_core_ipc_initiator_init(nullptr, &options, &made);
    if ((made != nullptr) != (status == good)) {
        throw std::logic_error("an initiator in spite of a failure, or none");
    }
    kavri_core_ipc_deinit(made);
    return status;
}
inline kavri_core_status initStatus(kavri_core_ipc_options options, const char* category) {
    kavri_core_ipc_responder* made = nullptr;
    const kavri_core_status status =
        kavri_core_ipc_responder_init(nullptr, &options, category, &made);
    if ((made != nullptr) != (status == good)) {
        throw std::logic_error("a responder in spite of a failure, or none");
    }
    kavri_core_ipc_responder_deinit(made);
    return status;
}

// The uuids of the next so many messages.
template <typename Endpoint>
std::vector<std::string> receiveUuids(Endpoint& endpoint, std::size_t count) {
    std::vector<std::string> uuids;
    while (uuids.size() < count) {
        uuids.push_back(endpoint.receive().uuid.value_or("none"));
    }
    return uuids;
}

// A receive without limit, which another thread is blocked in once this is made.
class BlockedReceive {
  public:
    template <typename Endpoint>
    explicit BlockedReceive(Endpoint& endpoint)
        : call_([this, &endpoint] { message_.emplace(endpoint.receive(-1)); }) {
        if (!call_.sleeps()) {
            throw std::runtime_error("a receive without limit does not block");
        }
    }

    bool hasReturned() const { return call_.hasReturned(); }
    // What it came to, once it has returned.
    const Message& result() {
        call_.join();
        return *message_;
    }

  private:
    std::optional<Message> message_;
    BlockedCall call_;
};

// What callbacks got, in order. Each of the three callbacks takes an inbox as
// its context.
class Inbox {
  public:
    static void response(char** category, char** identifier, char** uuid, char** payload,
                         void* inbox) {
        put(inbox, {*category, *identifier, *uuid, *payload}, {});
    }
    static void event(char** category, char** identifier, char** payload, void* inbox) {
        put(inbox, {*category, *identifier, nullptr, *payload}, {});
    }
    static void request(kavri_core_ipc_request request, char** category, char** identifier,
                        char** uuid, char** payload, void* inbox) {
        put(inbox, {*category, *identifier, *uuid, *payload}, request);
    }

    // Whether there are at least that many before the patience is over.
    bool waitFor(std::size_t count) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] { return messages_.size() >= count; });
    }
    std::vector<Message> messages() const {
        const std::lock_guard lock(mutex_);
        return messages_;
    }
    std::size_t count() const { return messages().size(); }
    std::vector<std::string> uuids() const { return all(&Message::uuid); }
    std::vector<std::string> payloads() const { return all(&Message::payload); }

  private:
    std::vector<std::string> all(Text Message::*field) const {
        std::vector<std::string> result;
        for (const Message& message : messages()) {
            result.push_back((message.*field).value_or("none"));
        }
        return result;
    }
    static void put(void* inbox, const Strings& strings, kavri_core_ipc_request request) {
        auto& self = *static_cast<Inbox*>(inbox);
        Message message(good, strings);
        message.request = request;
        message.thread = std::this_thread::get_id();
        const std::lock_guard lock(self.mutex_);
        self.messages_.push_back(std::move(message));
        self.changed_.notify_all();
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Message> messages_;
};

// "0", "1", … as many as asked for.
inline std::vector<std::string> numbers(std::size_t count, std::size_t first = 0) {
    std::vector<std::string> result;
    for (std::size_t i = first; i < first + count; ++i) {
        result.push_back(std::to_string(i));
    }
    return result;
}

}  // namespace kavri::tests

#endif
