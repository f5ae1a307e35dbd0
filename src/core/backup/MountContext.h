#pragma once

#include <memory>
#include <string>

// Opaque, from libmount.
struct libmnt_context;

namespace agent::core::backup {

/// One mount or unmount through libmount, which knows the file systems' mount helpers and the mount tables.
/// Owns:    libmount's context.
/// Threads: one at a time; blocks for as long as the file system takes.
/// Fails:   with false and the reason in `errno`; the constructor throws std::bad_alloc.
class MountContext {
public:
    MountContext();

    /// Mounts `device` read-only on the directory `target`; libmount detects the file system's type.
    bool mountReadOnly(const std::string& device, const std::string& target, const std::string& options);
    /// Looks up the mount at `target`.
    bool prepareUmount(const std::string& target);
    /// Unmounts what `prepareUmount` has found.
    bool umount();

private:
    bool mount(const std::string& target);

    struct Free {
        void operator()(libmnt_context* context) const noexcept;
    };
    std::unique_ptr<libmnt_context, Free> context;
};

} // namespace agent::core::backup
