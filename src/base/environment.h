// Reading this process' environment.
#ifndef KAVRI_BASE_ENVIRONMENT_H
#define KAVRI_BASE_ENVIRONMENT_H

#include <cstdlib>
#include <string>

namespace kavri::base {

// Empty where the variable is not set: no caller distinguishes the two.
inline std::string environmentVariable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool never writes its environment.
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace kavri::base

#endif
