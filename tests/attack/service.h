// A responder, on a thread of its own, that answers everything until it is destroyed.
#ifndef KAVRI_TESTS_ATTACK_SERVICE_H
#define KAVRI_TESTS_ATTACK_SERVICE_H

#include <atomic>
#include <string>
#include <thread>

#include "support/attack.h"

namespace kavri::tests {

class Service {
  public:
    Service(const std::string& socket, const std::string& category)
        : peer_(socket, "responder"), thread_([this, category] { run(category); }) {}
    // The broker closes the connection, which ends the thread.
    ~Service() { peer_.endSending(); }

    std::size_t answered() const { return answered_; }

  private:
    void run(const std::string& category) {
        try {
            registerFor(peer_, category);
            while (true) {
                const RawFrame frame = peer_.receive();
                if (frame.values.type == FrameType::request) {
                    ++answered_;
                    peer_.send(
                        makeFrame(FrameType::response, frame.values.token, {category, "", "", ""}));
                }
            }
        } catch (const std::exception&) {
            // The end of the connection.
        }
    }

    RawPeer peer_;
    std::atomic<std::size_t> answered_{0};
    std::jthread thread_;  // the last, since it uses the others
};

}  // namespace kavri::tests

#endif
