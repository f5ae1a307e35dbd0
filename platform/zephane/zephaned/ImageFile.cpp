#include "zephane/zephaned/ImageFile.h"

#include "os/FileDescriptor.h"
#include "zephane/zephaned/Config.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace zephane {

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw ConfigError(path + ": the image can't be made: " + std::generic_category().message(errno));
}

} // namespace

ImageFile::ImageFile(const std::string& path, std::uint64_t size, const std::string& ownerOf)
    : location(path) {
    struct stat owner{};
    if (::stat(ownerOf.c_str(), &owner) != 0) {
        fail(path);
    }
    const os::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file) {
        fail(path);
    }
    const bool isOwned = owner.st_uid == ::geteuid() || ::fchown(file.get(), owner.st_uid, owner.st_gid) == 0;
    if (!isOwned || ::ftruncate(file.get(), static_cast<off_t>(size)) != 0 || ::fsync(file.get()) != 0) {
        const int error = errno;
        ::unlink(path.c_str());
        errno = error;
        fail(path);
    }
}

ImageFile::~ImageFile() {
    if (!isKept) {
        ::unlink(location.c_str());
    }
}

} // namespace zephane
