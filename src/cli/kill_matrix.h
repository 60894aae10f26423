// The proof that the cases notice what they are there to notice: the module runs
// once as it is, and once with each fault of the catalogue.
#ifndef KAVRI_CLI_KILL_MATRIX_H
#define KAVRI_CLI_KILL_MATRIX_H

#include <functional>
#include <string>
#include <vector>

#include "cli/library_run.h"
#include "cli/report.h"
#include "probe/fault_catalogue.h"

namespace kavri::cli {

class KillMatrix {
  public:
    using Progress = std::function<void(const FaultReport& report, size_t done, size_t all)>;

    KillMatrix(const KitFiles& files, const LibraryRun& library, const RunLimits& limits,
               Patience patience)
        : files_(files), library_(library), limits_(limits), patience_(patience) {}

    // Runs each fault with a broker of its own, so many at a time. `baseline`: the
    // cases without a fault, which all pass. `progress` is called by one thread at
    // a time. Throws CommandFailure when the time is over or a signal comes.
    MatrixReport run(const std::vector<CaseReport>& baseline, unsigned jobs,
                     const Progress& progress);

  private:
    FaultReport runOne(const probe::Fault& fault, const std::vector<std::string>& cases);

    const KitFiles& files_;
    const LibraryRun& library_;
    const RunLimits& limits_;
    const Patience patience_;
};

// What a fault did that the catalogue does not say, or did not do that it says.
std::vector<std::string> deviationsFrom(const probe::Fault& fault, const FaultReport& report);

// Every check of the module, of the clean run and of those with faults, and what
// turned it red.
std::vector<CheckKilled> checksKilled(const std::vector<CaseReport>& baseline,
                                      const std::vector<FaultReport>& faults);

}  // namespace kavri::cli

#endif
