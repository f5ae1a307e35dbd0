#include "core/backup/MountContext.h"

#include <cerrno>
#include <cstdlib>
#include <libmount.h>
#include <new>
#include <optional>
#include <sys/mount.h>
#include <sys/stat.h>

namespace agent::core::backup {

namespace {

/// For libmount calls that only prepare: they return a negative errno value on failure. Sets `errno`.
bool succeeded(int result) {
    errno = std::abs(result);
    return result == 0;
}

/// For a mount or an unmount; sets `errno` on failure. The error of the system call is read from the context,
/// because some releases of libmount return it and others only return that the call failed. libmount counts a
/// helper program as a success whatever its exit status, so the context's status is checked, too.
bool succeeded(libmnt_context* context, int result) {
    if (result == 0 && mnt_context_get_status(context) != 1) {
        errno = EIO;
        return false;
    }
    if (result != 0 && mnt_context_get_syscall_errno(context) != 0) {
        errno = mnt_context_get_syscall_errno(context);
        return false;
    }
    return succeeded(result);
}

/// The device number of the file system visible at `path`; none if stat fails. Keeps `errno`.
std::optional<dev_t> fileSystemAt(const std::string& path) {
    const int error = errno;
    struct stat status{};
    const bool isKnown = ::stat(path.c_str(), &status) == 0;
    errno = error;
    return isKnown ? std::optional(status.st_dev) : std::nullopt;
}

} // namespace

void MountContext::Free::operator()(libmnt_context* context) const noexcept {
    const int error = errno;
    mnt_free_context(context);
    errno = error;
}

MountContext::MountContext() : context(mnt_new_context()) {
    if (!context) {
        throw std::bad_alloc();
    }
}

bool MountContext::mountReadOnly(const std::string& device, const std::string& target,
                                 const std::string& options) {
    return succeeded(mnt_context_set_options(context.get(), options.c_str())) &&
           succeeded(mnt_context_set_mflags(context.get(), MS_RDONLY)) &&
           succeeded(mnt_context_set_source(context.get(), device.c_str())) &&
           succeeded(mnt_context_set_target(context.get(), target.c_str())) && mount(target);
}

/// SIGCHLD is ignored during a backup, so waiting for a mount helper fails with ECHILD. In that case a new
/// device number at the target shows that the helper succeeded.
bool MountContext::mount(const std::string& target) {
    const std::optional<dev_t> before = fileSystemAt(target);
    if (succeeded(context.get(), mnt_context_mount(context.get()))) {
        return true;
    }
    const std::optional<dev_t> after = fileSystemAt(target);
    return errno == ECHILD && after.has_value() && after != before;
}

bool MountContext::prepareUmount(const std::string& target) {
    return succeeded(mnt_context_set_target(context.get(), target.c_str())) &&
           succeeded(mnt_context_prepare_umount(context.get()));
}

bool MountContext::umount() {
    return succeeded(context.get(), mnt_context_umount(context.get()));
}

} // namespace agent::core::backup
