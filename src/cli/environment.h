// Reading this process' environment.
#ifndef KAVRI_CLI_ENVIRONMENT_H
#define KAVRI_CLI_ENVIRONMENT_H

#include <cstdlib>
#include <string>

namespace kavri::cli {

// Empty where the variable is not set: nothing here tells the two apart.
inline std::string environmentVariable(const char* name) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool never writes its environment.
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace kavri::cli

#endif
