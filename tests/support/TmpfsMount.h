#pragma once

#include "common/Directory.h"
#include "common/PosixError.h"

#include <cerrno>
#include <string>
#include <sys/mount.h>

namespace agent::test {

/// A tmpfs that is mounted on a directory while the object lives.
/// Owns:    the mount; the destructor detaches it even if it is in use.
/// Threads: one.
/// Fails:   by PosixError, except in the destructor.
class TmpfsMount {
public:
    TmpfsMount(std::string path, const std::string& options) : path(std::move(path)) {
        dir::make(this->path);
        mountWith(0, options);
    }
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;
    ~TmpfsMount() { ::umount2(path.c_str(), MNT_DETACH); }

    void makeReadOnly() { mountWith(MS_REMOUNT | MS_RDONLY, ""); }
    void resize(const std::string& size) { mountWith(MS_REMOUNT, "size=" + size); }

private:
    void mountWith(unsigned long flags, const std::string& options) {
        if (::mount("tmpfs", path.c_str(), "tmpfs", flags, options.c_str()) != 0) {
            throw PosixError("mount(\"" + path + "\") failed", errno);
        }
    }

    std::string path;
};

} // namespace agent::test
