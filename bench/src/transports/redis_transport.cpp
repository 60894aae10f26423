// Redis as a transport: publish/subscribe over a Unix socket. Every message
// begins with the channel that its answer is to come on.
//
// A connection that subscribes cannot publish, so each client and service has
// two. The publishing one has its replies switched off. Both read and write in
// large pieces: what is published while more input is at hand leaves with the
// rest, as pipelining clients do.
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>

#include "transports/threaded_subscription.h"
#include "transports/transport.h"

namespace kavri::bench {

namespace {

constexpr std::size_t channelBytes = 20;

std::string socketOf(const Place& place) {
    return place.at("redis.sock");
}

struct Closer {
    void operator()(redisContext* context) const { redisFree(context); }
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Context = std::unique_ptr<redisContext, Closer>;
using Reply = std::unique_ptr<redisReply, Closer>;

Context newContext(const Place& place) {
    Context context(redisConnectUnix(socketOf(place).c_str()));
    if (context == nullptr || context->err != 0) {
        throw std::runtime_error("connecting: " +
                                 std::string(context == nullptr ? "no memory" : context->errstr));
    }
    context->reader->maxbuf = 0;  // keeps its buffer
    return context;
}

void check(const redisContext& context, int result, const char* what) {
    if (result != REDIS_OK) {
        throw std::runtime_error(std::string(what) + ": " + context.errstr);
    }
}

void flush(redisContext& context) {
    int done = 0;
    while (done == 0) {
        check(context, redisBufferWrite(&context, &done), "sending");
    }
}

class Publisher {
  public:
    explicit Publisher(const Place& place) : context_(newContext(place)) {
        redisAppendCommand(context_.get(), "CLIENT REPLY OFF");
        flush(*context_);
    }

    void publish(std::string_view channel, std::string_view answerChannel,
                 const std::string& payload) {
        redisAppendCommand(context_.get(), "PUBLISH %b %b%b", channel.data(), channel.size(),
                           answerChannel.data(), answerChannel.size(), payload.data(),
                           payload.size());
    }
    void send() { flush(*context_); }

  private:
    Context context_;
};

class Listener {
  public:
    Listener(const Place& place, const std::string& channel) : context_(newContext(place)) {
        const Reply reply(static_cast<redisReply*>(
            redisCommand(context_.get(), "SUBSCRIBE %b", channel.data(), channel.size())));
        if (reply == nullptr) {
            check(*context_, REDIS_ERR, "subscribing");
        }
    }

    // Makes a receive on another thread fail.
    void shutDown() { ::shutdown(context_->fd, SHUT_RDWR); }

    // `beforeWaiting` is called when nothing more is at hand. Good until the
    // next call.
    template <typename Action>
    std::string_view receive(const Action& beforeWaiting) {
        void* next = nullptr;
        while (true) {
            check(*context_, redisGetReplyFromReader(context_.get(), &next), "receiving");
            if (next != nullptr) {
                break;
            }
            beforeWaiting();
            check(*context_, redisBufferRead(context_.get()), "receiving");
        }
        reply_.reset(static_cast<redisReply*>(next));
        if (reply_->type != REDIS_REPLY_ARRAY || reply_->elements != 3) {
            throw std::runtime_error("something else than a message came");
        }
        return {reply_->element[2]->str, static_cast<std::size_t>(reply_->element[2]->len)};
    }

  private:
    Context context_;
    Reply reply_;
};

std::string newChannel() {
    static std::atomic<int> count = 0;
    std::string channel = "r" + std::to_string(::getpid()) + "-" + std::to_string(++count);
    channel.resize(channelBytes, '.');
    return channel;
}

std::string requestsOf(const std::string& service) {
    return "requests:" + service;
}
std::string eventsOf(const std::string& service) {
    return "events:" + service;
}

class RedisClient : public Client {
  public:
    RedisClient(const Place& place, const std::string& service)
        : requests_(requestsOf(service)),
          channel_(newChannel()),
          listener_(place, channel_),
          publisher_(place) {}

    void send(const std::string& payload) override {
        publisher_.publish(requests_, channel_, payload);
    }

    std::string_view receive() override {
        return listener_.receive([this] { publisher_.send(); });
    }

  private:
    const std::string requests_;
    const std::string channel_;
    Listener listener_;
    Publisher publisher_;
};

class RedisSubscriber {
  public:
    RedisSubscriber(const Place& place, const std::string& service)
        : listener_(place, eventsOf(service)) {}

    void receive(MessageSink& sink) {
        sink.deliver(listener_.receive([] {}));
    }
    void interrupt() { listener_.shutDown(); }

  private:
    Listener listener_;
};

class RedisAnswers : public Answers {
  public:
    RedisAnswers(Publisher& publisher, const std::string& events, std::string_view channel)
        : publisher_(publisher), events_(events), channel_(channel) {}

    void respond(const std::string& payload) override { publisher_.publish(channel_, {}, payload); }
    void publish(const std::string& payload) override { publisher_.publish(events_, {}, payload); }

  private:
    Publisher& publisher_;
    const std::string& events_;
    const std::string_view channel_;
};

class RedisTransport : public Transport {
  public:
    Child startServer(const Place& place) const override {
        Child server({{"redis-server", "--port", "0", "--unixsocket", socketOf(place), "--save", "",
                       "--appendonly", "no", "--maxclients", "16000", "--tcp-backlog", "1024",
                       "--client-output-buffer-limit", "pubsub 0 0 0", "--loglevel", "warning",
                       "--dir", place.folder},
                      place.at("redis.log")});
        server.waitUntilReady([&] { return acceptsConnections(socketOf(place)); });
        return server;
    }

    std::unique_ptr<Client> connect(const Place& place, const std::string& service) const override {
        return std::make_unique<RedisClient>(place, service);
    }

    std::unique_ptr<Subscription> subscribe(const Place& place, const std::string& service,
                                            MessageSink& sink) const override {
        return std::make_unique<ThreadedSubscription<RedisSubscriber>>(sink, place, service);
    }

    void serve(const Place& place, const std::string& service, const Handler& handler,
               const std::function<void()>& ready) const override {
        const std::string events = eventsOf(service);
        Listener listener(place, requestsOf(service));
        Publisher publisher(place);
        ready();
        while (true) {
            const std::string_view request = listener.receive([&] { publisher.send(); });
            RedisAnswers answers(publisher, events, request.substr(0, channelBytes));
            handler(request.substr(channelBytes), answers);
        }
    }
};

}  // namespace

std::unique_ptr<Transport> makeRedis() {
    return std::make_unique<RedisTransport>();
}

}  // namespace kavri::bench
