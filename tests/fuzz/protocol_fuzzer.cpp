// Entry for libFuzzer; see targets.h.
#include <cstddef>
#include <cstdint>

#include "fuzz/targets.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count) {
    kavri::tests::fuzzProtocol({reinterpret_cast<const char*>(bytes), count});
    return 0;
}
