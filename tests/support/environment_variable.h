// Sets an environment variable, or removes it, and puts it back when the object goes.
#ifndef KAVRI_TESTS_SUPPORT_ENVIRONMENT_VARIABLE_H
#define KAVRI_TESTS_SUPPORT_ENVIRONMENT_VARIABLE_H

#include <stdlib.h>

#include <optional>
#include <string>

namespace kavri::tests {

class EnvironmentVariable {
  public:
    EnvironmentVariable(std::string name, const std::optional<std::string>& value)
        : name_(std::move(name)) {
        if (const char* before = getenv(name_.c_str())) {
            before_ = before;
        }
        set(value);
    }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;
    ~EnvironmentVariable() { set(before_); }

  private:
    void set(const std::optional<std::string>& value) const {
        value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
    }

    const std::string name_;
    std::optional<std::string> before_;
};

}  // namespace kavri::tests

#endif
