// What joins brokers of several machines: messages are published on subjects, and reach
// those who are subscribed, from one publisher in order, and at most once.
//
// An interface: the broker itself does not depend on the client of a message server, which
// is loaded when a link is configured (see bus_module.h).
#ifndef KAVRI_BROKER_LINK_BUS_H
#define KAVRI_BROKER_LINK_BUS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kavri::broker {

// How to reach the servers. Files are paths; an empty text stands for "not given".
struct BusOptions {
    std::vector<std::string> servers;  // "nats://host:port", "tls://host:port"
    std::string name;                  // as the servers show it
    std::string authorityFile;         // TLS: certificates of who signed the servers'
    std::string certificateFile;       // TLS: our own, and its key
    std::string keyFile;
    std::string user;  // with the password in the first line of a file
    std::string passwordFile;
    std::string credentialsFile;  // a user's token and seed in one file
    std::string nkey;             // the public key, with the file of its seed
    std::string nkeySeedFile;

    bool operator==(const BusOptions&) const = default;
};

// The options cannot be used, whatever the servers say. The text says what is wrong and
// with which file.
class BadBusOptions : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Called from one thread. Nothing here blocks.
class Bus {
  public:
    using SubscriptionId = std::uint32_t;

    struct Message {
        SubscriptionId subscription = 0;
        std::string_view subject;
        std::string_view replyTo;
        std::string_view data;
        // Not a message: the server says that nobody is subscribed to what was published
        // with `subject` as its replyTo. Only subscriptions to answers get these.
        bool nobodyListens = false;
    };
    struct Connection {
        bool isUp = false;
        std::uint64_t times = 0;        // how often it came up; another number: a new one
        std::string server;             // its address while it is up
        std::string failure;            // why it is not up, or was lost the last time
        std::string complaint;          // what the server refused last, but the connection
        std::size_t mostDataBytes = 0;  // of a message, as the server says; 0 before that
    };

    Bus() = default;
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;
    virtual ~Bus() = default;

    // Readable while handle has something to do.
    virtual int descriptor() const = 0;

    // Reads once, a bounded amount, and notes what became of the connection. What was read
    // before is to be taken first; with the connection it is lost.
    virtual void handle() = 0;

    // The next message that was read; valid until the next call of anything here. Of one
    // subscription they come in order, of several each by itself.
    virtual std::optional<Message> next() = 0;

    virtual const Connection& connection() const = 0;

    // Subscriptions outlive the connection: they are made again with each new one. Of those
    // with the same subject and a common queue, a message reaches one. What this bus
    // publishes reaches others only. Like messages, they are queued until flush.
    virtual SubscriptionId subscribe(std::string_view subject, std::string_view queue = {}) = 0;
    // To what the server itself answers where nobody listens, by the replyTo of the question.
    virtual SubscriptionId subscribeAnswers(std::string_view subject) = 0;
    virtual void unsubscribe(SubscriptionId subscription) = 0;

    // Queued until flush. False where the connection is not up, or it is more than a message
    // may have: nothing is queued then.
    virtual bool publish(std::string_view subject, std::string_view data,
                         std::string_view replyTo = {}) = 0;

    // Writes what is queued, as far as the kernel takes it; handle does the rest. Whether
    // anything was queued.
    virtual bool flush() = 0;

    // Published, and not taken by the kernel yet.
    virtual std::size_t queuedBytes() const = 0;
};

// What the module exports, by these names: the version that it was built with, which is to
// be the broker's, and what makes a bus. It may throw BadBusOptions.
inline constexpr const char* busVersionSymbol = "kavriBusVersion";
inline constexpr const char* makeBusSymbol = "kavriMakeBus";
using MakeBus = Bus*(const BusOptions&);

}  // namespace kavri::broker

#endif
