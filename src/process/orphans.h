// Kills the orphans of a program under test: processes that left its process group, and
// whose parent has ended.
#ifndef KAVRI_PROCESS_ORPHANS_H
#define KAVRI_PROCESS_ORPHANS_H

#include <sys/types.h>

#include <set>

namespace kavri::process {

// While it lives, orphans of this process' programs become its own children; its
// destructor kills every child that this process did not have before.
class OrphanCollector {
  public:
    OrphanCollector();
    OrphanCollector(const OrphanCollector&) = delete;
    OrphanCollector& operator=(const OrphanCollector&) = delete;
    ~OrphanCollector();

  private:
    // A shell that replaced itself by this process may have left it children.
    std::set<pid_t> before_;
};

}  // namespace kavri::process

#endif
