// Puts names to the frames of a stack that the probe recorded, from the symbol tables of the
// files: so a stack can be read where no debugger is installed.
#ifndef KAVRI_CONFORMANCE_MODULE_STACK_NAMES_H
#define KAVRI_CONFORMANCE_MODULE_STACK_NAMES_H

#include <string>
#include <vector>

namespace kavri::conformance {

// A line for each frame "FILE+0xADDRESS", "#0 kavri_core_ipc_deinit, libkavri-core-test.so+0x1a2b",
// as far as the test framework, which is below every case. A frame of a file without symbols
// there has no name. `isCall`: the first frame, too, is where a call would have returned to.
std::string namedStack(const std::vector<std::string>& frames, bool isCall);

}  // namespace kavri::conformance

#endif
