// Ends what a program under test leaves running behind its back: processes
// that left its process group and whose parent is gone.
#ifndef KAVRI_CLI_ORPHANS_H
#define KAVRI_CLI_ORPHANS_H

#include <sys/types.h>

#include <set>

namespace kavri::cli {

// While it lives, orphans of this process' programs become its own children;
// the end of it ends every child that was not there before.
class OrphanCollector {
  public:
    OrphanCollector();
    OrphanCollector(const OrphanCollector&) = delete;
    OrphanCollector& operator=(const OrphanCollector&) = delete;
    ~OrphanCollector();

  private:
    // A shell may have become this process, and left it children of its own.
    std::set<pid_t> before_;
};

}  // namespace kavri::cli

#endif
