// The servers, services and clients of one measurement, and their end.
#ifndef KAVRI_BENCH_SESSION_H
#define KAVRI_BENCH_SESSION_H

#include <memory>
#include <string>
#include <vector>

#include "options.h"
#include "payload.h"
#include "process/temporary_folder.h"
#include "transports/transport.h"

namespace kavri::bench {

inline constexpr const char* serviceName = "bench";
inline constexpr const char* otherServiceName = "other";

// A client with what it has sent and got back so far.
class CheckedClient {
  public:
    CheckedClient(std::unique_ptr<Client> client, std::uint32_t number, std::size_t payloadBytes);

    void send();
    void sendBatch(std::size_t count);
    // Takes the next response; throws where it is not what was sent.
    void receive();
    void roundTrip() {
        send();
        receive();
    }
    std::uint64_t received() const { return check_.count(); }
    std::uint64_t sent() const { return sent_; }

  private:
    std::unique_ptr<Client> client_;
    const std::uint32_t number_;
    const std::size_t payloadBytes_;
    Payload payload_;
    std::vector<std::string> batch_;
    std::uint64_t sent_ = 0;
    PayloadCheck check_;
};

class Session {
  public:
    // Starts the servers and a service; clients are connected as asked for.
    Session(const Options& options, bool manyInFlight);

    const Options& options() const { return options_; }
    const Transport& transport() const { return *transport_; }
    const Place& place() const { return place_; }

    std::unique_ptr<CheckedClient> connect(std::size_t payloadBytes);
    // Further clients, each after one round trip.
    std::vector<std::unique_ptr<CheckedClient>> connectIdle(std::size_t count);
    void startService(const std::string& name);
    // This program as a further process of the measurement.
    Child startHelper(std::vector<std::string> arguments, bool readsOutput);

    const Child& server() const { return server_; }
    const std::vector<Child>& services() const { return services_; }

  private:
    const Options options_;
    const std::unique_ptr<Transport> transport_;
    const process::TemporaryFolder folder_;
    const Place place_;
    const std::vector<Child> others_;
    const Child server_;
    std::vector<Child> services_;
    std::uint32_t clients_ = 0;
};

}  // namespace kavri::bench

#endif
