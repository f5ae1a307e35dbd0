#pragma once

#include <memory>
#include <string>

// Opaque, from libmount.
struct libmnt_context;

namespace agent::core::backup {

/// One mount or unmount by libmount, which knows the helpers of file systems and the machine's tables.
/// Owns:    libmount's context.
/// Threads: one at a time; blocks for as long as the file system takes.
/// Fails:   with false and the reason in `errno`; the constructor throws std::bad_alloc.
class MountContext {
public:
    MountContext();

    /// Shows the file system of `device`, of a type that is found out, read-only at the directory `target`.
    bool mountReadOnly(const std::string& device, const std::string& target, const std::string& options);
    /// Finds what is mounted at `target`.
    bool prepareUmount(const std::string& target);
    /// Takes away what `prepareUmount` has found.
    bool umount();

private:
    bool mount(const std::string& target);

    struct Free {
        void operator()(libmnt_context* context) const noexcept;
    };
    std::unique_ptr<libmnt_context, Free> context;
};

} // namespace agent::core::backup
