// The sessions whose send queue got something to be written. Those that got it as one of
// many receivers are listed apart: a round writes to some of them only, so that a
// fan-out does not delay everybody else, and what is published meanwhile leaves in the
// same write.
#ifndef KAVRI_BROKER_ROUTING_WRITE_LISTS_H
#define KAVRI_BROKER_ROUTING_WRITE_LISTS_H

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "broker/session/session.h"

namespace kavri::broker {

enum class Receivers { one, many };

class WriteLists {
  public:
    void add(Session& session, Receivers receivers) {
        (receivers == Receivers::one ? ofOne_ : ofMany_).add(session);
    }
    void remove(Session& session) {
        ofOne_.remove(session);
        ofMany_.remove(session);
    }
    bool empty() const { return ofOne_.size() + ofMany_.size() == 0; }

    // Each takes sessions from its list and writes to them. Writing resumes senders, which
    // fills further send queues: those are left for the next time.
    template <typename Write>
    void writeAllOfOne(const Write& write) {
        ofOne_.take(ofOne_.size(), write);
    }
    template <typename Write>
    void writeSomeOfMany(std::size_t most, const Write& write) {
        ofMany_.take(std::min(most, ofMany_.size()), write);
    }

  private:
    class List {
      public:
        explicit List(bool Session::*isListed) : isListed_(isListed) {}

        std::size_t size() const { return sessions_.size(); }
        void add(Session& session) {
            if (!(session.*isListed_)) {
                sessions_.push_back(&session);
                session.*isListed_ = true;
            }
        }
        void remove(Session& session) {
            if (std::exchange(session.*isListed_, false)) {
                std::erase(sessions_, &session);
            }
        }
        template <typename Write>
        void take(std::size_t count, const Write& write) {
            for (std::size_t i = 0; i < count; ++i) {
                Session& session = *sessions_[i];
                session.*isListed_ = false;
                write(session);
            }
            sessions_.erase(sessions_.begin(),
                            sessions_.begin() + static_cast<std::ptrdiff_t>(count));
        }

      private:
        bool Session::*isListed_;
        std::vector<Session*> sessions_;
    };

    List ofOne_{&Session::listedForWriting};
    List ofMany_{&Session::listedForFanOut};
};

}  // namespace kavri::broker

#endif
