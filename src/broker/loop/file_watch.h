// Becomes readable when one of some files is removed, renamed or replaced.
//
// It watches the files themselves, so other changes in their folder cause no wake-up.
#ifndef KAVRI_BROKER_LOOP_FILE_WATCH_H
#define KAVRI_BROKER_LOOP_FILE_WATCH_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "base/descriptor.h"

namespace kavri::broker {

// Which file it is, whatever it is called.
struct FileId {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileId&) const = default;
};
// Nothing where there is none. Symbolic links are not followed.
std::optional<FileId> fileAt(const std::string& path);
std::optional<FileId> fileBehind(int descriptor);

class FileWatch {
  public:
    FileWatch();

    // -1 where the system has no more watches to give; nothing is noticed then.
    int descriptor() const { return inotify_.get(); }

    void watchFile(const std::string& path);
    void watchFolder(const std::string& path);
    // Discards the notifications so far.
    void drain();

  private:
    void add(const std::string& path, unsigned events);

    const base::Descriptor inotify_;
};

}  // namespace kavri::broker

#endif
