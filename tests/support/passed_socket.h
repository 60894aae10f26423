// A listening socket as a service manager makes it, and programs that it is passed to.
#ifndef KAVRI_TESTS_SUPPORT_PASSED_SOCKET_H
#define KAVRI_TESTS_SUPPORT_PASSED_SOCKET_H

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "base/descriptor.h"
#include "base/unix_address.h"
#include "process/program_start.h"

namespace kavri::tests {

class PassedSocket {
  public:
    PassedSocket(const std::string& path, mode_t mode, int type = SOCK_STREAM)
        : descriptor_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
        const base::UnixAddress address(path);
        if (::bind(descriptor_.get(), address.get(), address.size()) != 0 ||
            ::chmod(path.c_str(), mode) != 0 ||
            (type == SOCK_STREAM && ::listen(descriptor_.get(), SOMAXCONN) != 0)) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }

    // The program with the socket as its descriptors from 3 on. Only a shell between can
    // know the process that LISTEN_PID has to name.
    process::ChildSpawn passTo(const process::ChildSpawn& program, int times = 1) const {
        process::ChildSpawn spawn = program;
        const std::string number = std::to_string(descriptor_.get());
        std::string script = "LISTEN_PID=$$ LISTEN_FDS=" + std::to_string(times) + " exec \"$@\"";
        for (int i = 0; i < times; ++i) {
            script += " " + std::to_string(3 + i) + "<&" + number;
        }
        spawn.program = "bash";
        spawn.arguments = {"-c", script, "bash", program.program};
        spawn.arguments.insert(spawn.arguments.end(), program.arguments.begin(),
                               program.arguments.end());
        spawn.inheritedDescriptors = {descriptor_.get()};
        return spawn;
    }

  private:
    base::Descriptor descriptor_;
};

}  // namespace kavri::tests

#endif
