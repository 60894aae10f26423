// Adopting and ending orphans; see orphans.h. An orphan's own children become
// orphans in turn when it is ended, so this goes on until there are none.
#include "cli/orphans.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

namespace kavri::cli {

namespace {

std::set<pid_t> ownChildren() {
    const std::string self = std::to_string(getpid());
    std::ifstream file("/proc/" + self + "/task/" + self + "/children");
    return {std::istream_iterator<pid_t>(file), std::istream_iterator<pid_t>()};
}

std::set<pid_t> newChildren(const std::set<pid_t>& before) {
    std::set<pid_t> children = ownChildren();
    std::erase_if(children, [&](pid_t child) { return before.contains(child); });
    return children;
}

}  // namespace

OrphanCollector::OrphanCollector() : before_(ownChildren()) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

OrphanCollector::~OrphanCollector() {
    for (std::set<pid_t> left = newChildren(before_); !left.empty(); left = newChildren(before_)) {
        for (const pid_t child : left) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

}  // namespace kavri::cli
