#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace agent {

/// A locked PID file, which prevents a second instance of the agent. Only root can read the file, because
/// read access would be enough to lock it.
/// Owns:    the open, locked file; the destructor closes it and removes the path.
/// Threads: one thread only.
/// Fails:   the constructor and writePid throw std::runtime_error and leave `errno` as the failed call has
///          set it: EAGAIN if another process holds the lock. A failed constructor removes nothing.
class Flock {
public:
    explicit Flock(std::string path);
    Flock(const Flock&) = delete;
    Flock& operator=(const Flock&) = delete;
    virtual ~Flock();

    /// Replaces the file's content with this process's PID, in decimal, without a newline.
    void writePid();

private:
    std::string path;
    os::FileDescriptor descriptor;
};

} // namespace agent
