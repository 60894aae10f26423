// The transports by name, and what not every one of them has.
#include <array>
#include <stdexcept>

#include "transports/transport.h"

namespace kavri::bench {

namespace {

struct Entry {
    const char* name;
    std::unique_ptr<Transport> (*make)();
};

const auto entries = std::to_array<Entry>({
    {"kavri", [] { return makeKavri(false, false); }},
    {"kavri-batched", [] { return makeKavri(false, true); }},
    {"kavri-embedded", [] { return makeKavri(true, false); }},
    {"kavri-link", [] { return makeKavri(false, false, Link::used); }},
    {"kavri-link-unused", [] { return makeKavri(false, false, Link::unused); }},
    {"relay", [] { return makeRelay(false, false, false); }},
    {"relay-spin", [] { return makeRelay(false, true, false); }},
    {"relay-batched", [] { return makeRelay(false, false, true); }},
    {"relay-inside", [] { return makeRelay(true, false, false); }},
    {"relay-inside-spin", [] { return makeRelay(true, true, false); }},
#ifdef KAVRI_BENCH_HAS_DBUS
    {"dbus", makeDbus},
#endif
#ifdef KAVRI_BENCH_HAS_NATS
    {"nats", [] { return makeNats(false); }},
    {"nats-joined", [] { return makeNats(true); }},
#endif
#ifdef KAVRI_BENCH_HAS_ZEROMQ
    {"zeromq", makeZeromq},
#endif
#ifdef KAVRI_BENCH_HAS_MQTT
    {"mqtt", makeMqtt},
#endif
#ifdef KAVRI_BENCH_HAS_REDIS
    {"redis", makeRedis},
#endif
});

}  // namespace

std::unique_ptr<CallbackClient> Transport::connectCallback(const Place&, const std::string&,
                                                           MessageSink&) const {
    throw std::runtime_error("its client library has no thread that delivers");
}

std::unique_ptr<Transport> makeTransport(const std::string& name) {
    for (const Entry& entry : entries) {
        if (name == entry.name) {
            return entry.make();
        }
    }
    throw std::runtime_error("there is no transport \"" + name + "\" in this build");
}

std::vector<std::string> transportNames() {
    std::vector<std::string> names;
    names.reserve(entries.size());
    for (const Entry& entry : entries) {
        names.emplace_back(entry.name);
    }
    return names;
}

}  // namespace kavri::bench
