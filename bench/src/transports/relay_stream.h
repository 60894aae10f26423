// Messages over a stream socket in their barest form, as the relay and its
// peers exchange them: sixteen bytes of header and the payload.
#ifndef KAVRI_BENCH_RELAY_STREAM_H
#define KAVRI_BENCH_RELAY_STREAM_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "wire/spin.h"

namespace kavri::bench {

enum class RelayKind : std::uint16_t { request, response, event, serve, subscribe };

struct RelayHeader {
    std::uint32_t payloadBytes = 0;
    RelayKind kind = RelayKind::request;
    std::uint16_t service = 0;  // a number: there is no routing by name
    std::uint32_t client = 0;   // filled in by the relay, given back by the service
    std::uint32_t reserved = 0;
};
static_assert(sizeof(RelayHeader) == 16);

inline constexpr std::size_t relayReadBytes = 64UL * 1024;

struct RelayMessage {
    RelayHeader header;
    std::string_view payload;
};

// Takes in bytes as they come and gives out whole messages.
class RelayInput {
  public:
    // Room for the next bytes, at least as many as the message begun still lacks.
    std::span<char> room();
    void filled(std::size_t bytes) { end_ += bytes; }
    // The next whole message, good until the next call of room().
    std::optional<RelayMessage> next();
    bool isEmpty() const { return begin_ == end_; }

  private:
    std::size_t held() const { return end_ - begin_; }
    std::size_t wanted() const;

    std::unique_ptr<char[]> bytes_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

// The end of a client or service: blocking, and spinning before that if wanted.
class RelayStream {
  public:
    RelayStream(const std::string& path, bool spins);
    RelayStream(const RelayStream&) = delete;
    RelayStream& operator=(const RelayStream&) = delete;
    ~RelayStream();

    void send(const RelayHeader& header, std::string_view payload);
    // What is sent between the two leaves in one write.
    void beginGathering() { gathers_ = true; }
    void endGathering();
    RelayMessage receive();
    // Makes a receive on another thread fail.
    void shutDown() const;
    // Whether receive() would give a message without asking the kernel.
    std::optional<RelayMessage> received() { return input_.next(); }

  private:
    void write(std::string_view header, std::string_view payload) const;
    std::size_t read();
    long tryToRead(std::span<char> room, int flags) const;

    int descriptor_;
    bool spins_;
    bool gathers_ = false;
    wire::Spin spin_;
    RelayInput input_;
    std::string gathered_;
};

}  // namespace kavri::bench

#endif
