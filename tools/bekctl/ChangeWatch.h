#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace bekctl {

/// Waits for changes of the files in a directory.
/// Owns:    the inotify descriptor with its watch.
/// Threads: one at a time.
/// Fails:   never: if nothing can be watched, `wait` sleeps for a second.
class ChangeWatch {
public:
    explicit ChangeWatch(std::string directory);

    /// Returns when something has changed since the last call, or after a minute.
    void wait();

private:
    bool attach();

    std::string directory;
    os::FileDescriptor events;
    int watch = -1;
};

} // namespace bekctl
