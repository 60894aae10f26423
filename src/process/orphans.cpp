// Adopting and killing orphans; see orphans.h. The children of an orphan become orphans
// when it is killed, so this is repeated until there are none.
#include "process/orphans.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace kavri::process {

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
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot adopt orphans");
    }
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

}  // namespace kavri::process
