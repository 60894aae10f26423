// What this machine calls users and processes by their numbers.
//
// Looked up here and not by the broker: that would cost it a system call for each connection,
// and nobody is to wait for a directory of users in the network.
#ifndef KAVRI_MANAGEMENT_NAMES_H
#define KAVRI_MANAGEMENT_NAMES_H

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>

namespace kavri::management {

// Each number is looked up once.
class Names {
  public:
    // Nothing where the number has no name.
    const std::optional<std::string>& ofUser(uid_t user);
    // The command that the process runs now; nothing where it is gone, or not to be seen.
    // It may be shown as it is.
    const std::optional<std::string>& ofProcess(pid_t process);

    // The name, or else the number.
    std::string user(uid_t user);

  private:
    std::map<uid_t, std::optional<std::string>> users_;
    std::map<pid_t, std::optional<std::string>> processes_;
};

}  // namespace kavri::management

#endif
