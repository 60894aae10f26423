// One look at a broker, and one after another; see status.h.
#include "management/status.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <thread>

#include "base/terminal.h"
#include "base/text_scanner.h"
#include "management/connection.h"
#include "management/json_form.h"
#include "management/prometheus_form.h"
#include "management/snapshot.h"
#include "management/text_form.h"
#include "wire/address.h"

namespace kavri::management {

namespace {

using process::ExitStatus;

Clock::duration secondsOf(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::string timeNow(const char* form) {
    return fmt::format(fmt::runtime(fmt::format("{{:{}}}", form)), fmt::gmtime(std::time(nullptr)));
}

// Looks again and again over one connection, and over another one when that is lost.
class Watch {
  public:
    explicit Watch(const StatusOptions& options)
        : options_(options), path_(wire::brokerAddress(options.socket)) {}

    // Throws Failure.
    void look() {
        const Clock::time_point deadline = Clock::now() + secondsOf(options_.timeoutSeconds);
        if (!connection_) {
            connect(deadline);
        }
        try {
            earlier_ = std::exchange(now_, takeSnapshot(*connection_, deadline));
        } catch (const Failure&) {
            connection_.reset();
            throw;
        }
    }

    void show() const {
        Names names;
        switch (options_.form) {
            case StatusForm::json:
                std::cout << jsonForm(*now_, path_, timeNow("%Y-%m-%dT%H:%M:%SZ"), names)
                                 .dump(options_.watchSeconds ? -1 : 2)
                          << '\n';
                break;
            case StatusForm::prometheus:
                std::cout << prometheusForm(*now_, names);
                break;
            case StatusForm::text:
                showText(names);
                break;
        }
        std::cout << std::flush;
    }

    // To be tried again; said once.
    void lose(const Failure& failure) {
        now_.reset();
        if (!std::exchange(isLost_, true)) {
            note(std::string(failure.what()) + "; trying again");
        }
        if (isOnTerminal()) {
            showScreen("");
        }
    }

  private:
    void connect(Clock::time_point deadline) {
        connection_.emplace(path_, deadline);
        if (!identity_.empty() && connection_->identity() != identity_) {
            note("the broker was started anew: its counts begin there");
        } else if (isLost_) {
            note("the broker answers again");
        }
        isLost_ = false;
        identity_ = connection_->identity();
    }

    bool isOnTerminal() const { return options_.form == StatusForm::text && style_.terminal; }

    // On a terminal, on each screen from now on.
    void note(const std::string& line) {
        note_ = timeNow("%H:%M:%S") + " UTC: " + line + "\n";
        if (!isOnTerminal()) {
            std::cerr << "kavri status: " << note_ << std::flush;
        }
    }

    void showText(Names& names) const {
        const std::string text =
            textForm(*now_, earlier_ ? &*earlier_ : nullptr, {path_, options_.all, style_}, names);
        if (!options_.watchSeconds) {
            std::cout << text;
        } else if (isOnTerminal()) {
            showScreen(text);
        } else {
            std::cout << timeNow("%Y-%m-%d %H:%M:%S") << " UTC\n" << text << '\n';
        }
    }

    // As many lines as there is room for.
    void showScreen(const std::string& text) const {
        winsize size{};
        const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1;
        const std::string all = base::fitted(note_, style_) + text;
        std::string_view rest = all;
        std::cout << "\x1b[H";
        for (int left = isKnown ? size.ws_row - 1 : 23; left > 0; --left) {
            const auto line = base::takeLine(rest);
            if (!line) {
                break;
            }
            std::cout << *line << "\x1b[K\n";
        }
        std::cout << "\x1b[J" << std::flush;
    }

    const StatusOptions& options_;
    const std::string path_;
    const base::DisplayStyle style_ = base::DisplayStyle::ofStandardOutput();
    std::optional<Connection> connection_;
    std::string identity_;
    std::optional<Snapshot> now_;
    std::optional<Snapshot> earlier_;
    std::string note_;
    bool isLost_ = false;
};

// A broker that is gone may come back; one that refuses will go on refusing.
void lookAgain(Watch& watch) {
    try {
        watch.look();
        watch.show();
    } catch (const Failure& failure) {
        if (failure.kind() == FailureKind::refused) {
            throw;
        }
        watch.lose(failure);
    }
}

}  // namespace

ExitStatus runStatus(const StatusOptions& options) {
    try {
        Watch watch(options);
        watch.look();
        watch.show();
        while (options.watchSeconds && std::cout) {
            std::this_thread::sleep_for(secondsOf(*options.watchSeconds));
            lookAgain(watch);
        }
    } catch (const Failure& failure) {
        throw asCommandFailure(failure);
    }
    return ExitStatus::passed;
}

}  // namespace kavri::management
