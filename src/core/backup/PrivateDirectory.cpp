#include "core/backup/PrivateDirectory.h"

#include "common/Directory.h"
#include "common/File.h"
#include "common/Path.h"
#include "common/PosixError.h"
#include "common/UUIDGenerator.h"

#include <cerrno>
#include <sys/stat.h>

namespace agent::core::backup::private_directory {

namespace {

constexpr mode_t onlyOwner = 0700;

} // namespace

bool isPrivate(const std::string& path) {
    struct ::stat found{};
    return ::lstat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == 0 &&
           (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::string make(const std::string& path) {
    std::string renamed;
    dir::make(Path(path).parent());
    if (file::exists(path) && !isPrivate(path)) {
        renamed = path + "." + UUIDGenerator().generate();
        file::rename(path, renamed);
    }
    // isPrivate is checked again, in case somebody has created `path` since the rename.
    const int made = ::mkdir(path.c_str(), onlyOwner);
    if (made != 0 && (errno != EEXIST || !isPrivate(path))) {
        throw PosixError("\"" + path + "\" can't be made a directory of root's own", errno);
    }
    if (::chmod(path.c_str(), onlyOwner) != 0) {
        throw PosixError("chmod(\"" + path + "\") failed", errno);
    }
    return renamed;
}

} // namespace agent::core::backup::private_directory
