#include "Attributes.h"

#include "common/PosixError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace restore::view {

namespace {

constexpr std::size_t mostAttributeBytes = 65536; // the kernel's own limit for all names, and for a value
constexpr mode_t permissions = 07777;

void require(int result, const std::string& what) {
    if (result != 0) {
        throw agent::PosixError(what, errno);
    }
}

} // namespace

std::map<std::string, std::string> attributesOf(int directory, const std::string& name) {
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
    std::string names(mostAttributeBytes, '\0');
    const ::ssize_t length = ::llistxattr(path.c_str(), names.data(), names.size());
    if (length < 0 && errno != ENOTSUP && errno != ENOSYS) {
        throw agent::PosixError("its attributes can't be read", errno);
    }
    names.resize(static_cast<std::size_t>(std::max<::ssize_t>(length, 0)));
    std::map<std::string, std::string> found;
    std::string value(mostAttributeBytes, '\0');
    for (std::size_t begin = 0; begin < names.size();) {
        const std::string each = names.c_str() + begin;
        const ::ssize_t bytes = ::lgetxattr(path.c_str(), each.c_str(), value.data(), value.size());
        if (bytes < 0) {
            throw agent::PosixError("its attribute " + each + " can't be read", errno);
        }
        found[each] = value.substr(0, static_cast<std::size_t>(bytes));
        begin += each.size() + 1;
    }
    return found;
}

void copyAttributes(int from, const std::string& to) {
    struct ::stat status{};
    require(::fstat(from, &status), "a directory can't be looked at");
    require(::chown(to.c_str(), status.st_uid, status.st_gid), "the owner of " + to + " can't be set");
    require(::chmod(to.c_str(), status.st_mode & permissions), "the mode of " + to + " can't be set");
    for (const auto& [name, value] : attributesOf(from, ".")) {
        require(::setxattr(to.c_str(), name.c_str(), value.data(), value.size(), 0),
                "the attribute " + name + " of " + to + " can't be set");
    }
    const std::array<::timespec, 2> times{status.st_atim, status.st_mtim};
    require(::utimensat(AT_FDCWD, to.c_str(), times.data(), 0), "the times of " + to + " can't be set");
}

} // namespace restore::view
