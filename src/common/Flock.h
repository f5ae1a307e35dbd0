#pragma once

#include "os/FileDescriptor.h"

#include <string>

namespace agent {

/// The lock on a file that keeps a second instance out, and tells the process identifier of the first.
/// Only root can read the file, since a lock needs no more than that.
/// Owns:    the open, locked file; the destructor closes it and removes the path.
/// Threads: one.
/// Fails:   std::runtime_error, with `errno` as the failed call has left it: EAGAIN for a file that another
///          process has locked. A constructor that fails has removed nothing.
class Flock {
public:
    explicit Flock(std::string path);
    Flock(const Flock&) = delete;
    Flock& operator=(const Flock&) = delete;
    virtual ~Flock();

    /// Replaces the file's content by this process's identifier, in decimal, with no newline.
    void writePid();

private:
    std::string path;
    os::FileDescriptor descriptor;
};

} // namespace agent
